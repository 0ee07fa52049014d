// A library with the loader's part: tells in which order it came to life and went.
#include "platform/platform.h"

#include <cstring>

PLATFORM_EXPORT char* g_pTrace; // of TRACE_SIZE bytes, given by the test

namespace {

constexpr size_t TRACE_SIZE = 100;
char g_early[TRACE_SIZE] = ""; // what happens before anyone can give a place for it

void tell(char const* text) {
    char* const trace = g_pTrace != nullptr ? g_pTrace : g_early;
    strncat(trace, text, TRACE_SIZE - 1 - strlen(trace));
}

struct ProcessWide {
    ProcessWide() { tell("made "); }
    ~ProcessWide() { tell("gone "); }
} g_processWide;

} // namespace

extern "C" PLATFORM_EXPORT char const* early() {
    return g_early;
}

extern "C" PLATFORM_EXPORT BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    tell(reason == 1 ? "attach " : "detach ");
    // The layer works at attach and at detach and does not keep the library in memory.
    if (CloseHandle(CreateFileA("/", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)) ||
        GetLastError() != ERROR_INVALID_HANDLE) {
        tell("broken ");
    }
    return TRUE;
}
