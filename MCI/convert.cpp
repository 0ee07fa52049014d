#include "MCI/convert.h"

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

DWORD PtrdiffTToDWord(ptrdiff_t llDifference_p) {
    TRACE_ENTRY("-----PtrdiffTToDWord(.)");
    if (llDifference_p > static_cast<ptrdiff_t>(0xFFFFFFFF)) {
        TRACE_WARNING("", "PtrdiffTToDWord, truncating data");
    }
    return static_cast<DWORD>(llDifference_p & 0xFFFFFFFF);
}
