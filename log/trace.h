// The trace calls as the driver's sources write them: each names its module by TRACE_MODULE, a
// constant that the source defines, and adds its own place.
//
// Arguments are always evaluated, but a call that the log would drop is not made where that can be
// told beforehand (gate.h). In the traceless build of the benchmarks no call is made at all.
//
// Values must have the type that their format converts: DWORD or LONG for "%lu", "%ld" and "%u",
// a pointer for "%p" and "%Fp", a zero-terminated text for "%s". The code of an error is cut to its
// low 32 bits: statuses are 64 bits wide, the log takes 32.
#pragma once

#include "log/gate.h"
#include "log/xkivlog.h"

// Whether a call of the level would get through: for work that is done for the log alone.
#if defined(XKIV_TRACELESS)
#define TRACE_PASSES(level) false
#else
#define TRACE_PASSES(level) xkivlog_passes(level)
#endif

#define TRACE_TEXT(level, operation, text)                                                         \
    do {                                                                                           \
        char const* const pszTraced = text;                                                        \
        if (TRACE_PASSES(level)) [[unlikely]]                                                      \
            operation(TRACE_MODULE, __FILE__, __LINE__, pszTraced);                                \
    } while (false)

#define TRACE_NAMED(level, operation, name, format, value)                                         \
    do {                                                                                           \
        auto const traced = value;                                                                 \
        if (TRACE_PASSES(level)) [[unlikely]]                                                      \
            operation(TRACE_MODULE, __FILE__, __LINE__, name, format, traced);                     \
    } while (false)

// 0 always passes: LogInit also reads the configuration.
#define TRACE_INIT(path) TRACE_TEXT(0, LogInit, path)
#define TRACE_ENTRY(text) TRACE_TEXT(XKIVLOG_ENTRY, LogEntry, text)
#define TRACE_INFO(text) TRACE_TEXT(XKIVLOG_INFO, LogInfo, text)
#define TRACE_PARAM(name, format, value) TRACE_NAMED(XKIVLOG_PARAM, LogParam, name, format, value)
#define TRACE_VALUE(name, format, value) TRACE_NAMED(XKIVLOG_VALUE, LogValue, name, format, value)
#define TRACE_WARNING(text1, text2)                                                                \
    do {                                                                                           \
        if (TRACE_PASSES(XKIVLOG_WARNING)) [[unlikely]]                                            \
            LogWarning(TRACE_MODULE, __FILE__, __LINE__, text1, text2);                            \
    } while (false)
#define TRACE_ERROR(code, text)                                                                    \
    do {                                                                                           \
        uint32_t const uTraced = static_cast<uint32_t>(code);                                      \
        if (TRACE_PASSES(XKIVLOG_ERROR)) [[unlikely]]                                              \
            LogError(TRACE_MODULE, __FILE__, __LINE__, uTraced, text);                             \
    } while (false)
