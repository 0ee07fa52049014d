// The seven operations of the trace log library.
//
// The driver reports what it does through these calls and through nothing else. They are C symbols
// of a library of its own, so that another library with the same seven can take its place. None
// returns anything, none can fail as far as the caller is concerned, and each works at process
// attach, before and without LogInit, and on any thread.
//
// Every call begins with the place it comes from: the module tag ("XKIVMP3.DLL" or "XKIVFBASE"),
// the path of the source file, and the line. Texts are narrow and zero-terminated and are read
// only during the call.
//
// LogParam and LogValue take a printf format with exactly one conversion, and its value. In that
// format `l` is a 32-bit width on every platform ("%ld", "%lu" convert a 32-bit value), and "%Fp"
// prints like "%p".
#pragma once

#include <stdint.h>

#if defined(KIV_PLATFORM_DRY)
#include "log/dry_names.h"
#endif

#if defined(_WIN32)
#if defined(XKIVLOG_BUILD) || defined(KIV_PLATFORM_DRY)
#define XKIVLOG_API // by number, in xkivlog.def, or not at all
#else
#define XKIVLOG_API __declspec(dllimport)
#endif
#else
#define XKIVLOG_API __attribute__((visibility("default")))
#endif

extern "C" {

// Opens the log for a module tag. `path` names an initialisation file or is null; both separators
// are taken. May be called any number of times, with any of them.
XKIVLOG_API void LogInit(char const* module, char const* file, int line, char const* path);

// A function was entered.
XKIVLOG_API void LogEntry(char const* module, char const* file, int line, char const* text);

// An input argument.
XKIVLOG_API void LogParam(char const* module, char const* file, int line, char const* name,
                          char const* format, ...);

// A condition that should not be; the program goes on.
XKIVLOG_API void LogWarning(char const* module, char const* file, int line, char const* text1,
                            char const* text2);

// A decision or an event.
XKIVLOG_API void LogInfo(char const* module, char const* file, int line, char const* text);

// A member, local or result.
XKIVLOG_API void LogValue(char const* module, char const* file, int line, char const* name,
                          char const* format, ...);

// A failure, with a status or a platform error number.
XKIVLOG_API void LogError(char const* module, char const* file, int line, uint32_t code,
                          char const* text);
}
