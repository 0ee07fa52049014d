// The seven operations for a driver that is linked into a program and only pretends
// (KIV_PLATFORM_DRY). They have names of their own, since the driver that ships may be loaded
// beside it with the log library. Included by xkivlog.h.
#pragma once

#define LogInit DryLogInit
#define LogEntry DryLogEntry
#define LogParam DryLogParam
#define LogWarning DryLogWarning
#define LogInfo DryLogInfo
#define LogValue DryLogValue
#define LogError DryLogError
