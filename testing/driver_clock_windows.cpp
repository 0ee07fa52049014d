// Here time() is a call of _time64 through the pointer that the loader fills, and Sleep one through
// another: the linker puts ours in their place (--wrap=__imp__time64, --wrap=__imp_Sleep).
#include "platform/platform.h"

#include <ctime>

extern "C" {
time_t __wrap_time(time_t* pSeconds);
void WINAPI __wrap_Sleep(DWORD dwMilliseconds);
extern void(WINAPI* const __wrap___imp_Sleep)(DWORD);
void(WINAPI* const __wrap___imp_Sleep)(DWORD) = __wrap_Sleep;
extern time_t (*const __wrap___imp__time64)(time_t*);
time_t (*const __wrap___imp__time64)(time_t*) = __wrap_time;
}
