// Here time() is a call of _time64 through the pointer that the loader fills: the linker puts ours
// in its place (--wrap=__imp__time64).
#include <ctime>

extern "C" time_t __wrap_time(time_t* pSeconds);

extern "C" {
extern time_t (*const __wrap___imp__time64)(time_t*);
time_t (*const __wrap___imp__time64)(time_t*) = __wrap_time;
}
