// The trace calls as the driver's sources write them: each names its module by TRACE_MODULE, a
// constant that the source defines, and adds its own place. Every call is made and every argument
// evaluated, whether the log is on or off: only the library decides what becomes of it.
//
// Any call may change the thread's last error: an error number is taken before it.
//
// Values must have the type that their format converts: DWORD or LONG for "%lu", "%ld" and "%u",
// a pointer for "%p" and "%Fp", a zero-terminated text for "%s". The code of an error is cut to its
// low 32 bits: statuses are 64 bits wide, the log takes 32.
#pragma once

#include "log/xkivlog.h"

#define TRACE_AT TRACE_MODULE, __FILE__, __LINE__

#define TRACE_INIT(path) LogInit(TRACE_AT, path)
#define TRACE_ENTRY(text) LogEntry(TRACE_AT, text)
#define TRACE_PARAM(name, format, value) LogParam(TRACE_AT, name, format, value)
#define TRACE_WARNING(text1, text2) LogWarning(TRACE_AT, text1, text2)
#define TRACE_INFO(text) LogInfo(TRACE_AT, text)
#define TRACE_VALUE(name, format, value) LogValue(TRACE_AT, name, format, value)
#define TRACE_ERROR(code, text) LogError(TRACE_AT, static_cast<uint32_t>(code), text)
// The same where the code is the result: return TRACED_ERROR(FFD_..., "...").
#define TRACED_ERROR(code, text) (TRACE_ERROR(code, text), (code))

// No calls of the log: a driver that only pretends reports each frame that its walk counts, and
// where the walk goes on; and how many bytes of the disk a rebuild wants to find free.
#if defined(KIV_PLATFORM_DRY)
#include "log/dry_log.h"
#define TELL_FRAME(dwFileOffset, dwEnd, pbyHeader) dry::tell_frame(dwFileOffset, dwEnd, pbyHeader)
#define TELL_NEED(dwBytes) dry::tell_need(dwBytes)
#else
#define TELL_FRAME(dwFileOffset, dwEnd, pbyHeader) static_cast<void>(0)
#define TELL_NEED(dwBytes) static_cast<void>(0)
#endif
