// The trace calls as the driver's sources write them: each names its module by TRACE_MODULE, a
// constant that the source defines, and adds its own place.
//
// Values must have the type that their format converts: DWORD or LONG for "%lu", "%ld" and "%u",
// a pointer for "%p" and "%Fp", a zero-terminated text for "%s".
#pragma once

#include "log/xkivlog.h"

#define TRACE_INIT(path) LogInit(TRACE_MODULE, __FILE__, __LINE__, path)
#define TRACE_ENTRY(text) LogEntry(TRACE_MODULE, __FILE__, __LINE__, text)
#define TRACE_PARAM(name, format, value)                                                           \
    LogParam(TRACE_MODULE, __FILE__, __LINE__, name, format, value)
#define TRACE_WARNING(text1, text2) LogWarning(TRACE_MODULE, __FILE__, __LINE__, text1, text2)
#define TRACE_INFO(text) LogInfo(TRACE_MODULE, __FILE__, __LINE__, text)
#define TRACE_VALUE(name, format, value)                                                           \
    LogValue(TRACE_MODULE, __FILE__, __LINE__, name, format, value)
// The code is cut to its low 32 bits: statuses are 64 bits wide, the log takes 32.
#define TRACE_ERROR(code, text)                                                                    \
    LogError(TRACE_MODULE, __FILE__, __LINE__, static_cast<uint32_t>(code), text)
