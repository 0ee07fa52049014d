// Which calls the log library lets through, for a caller that wants to save those it drops.
//
// The library answers to its seven operations alone, and another one may take its place that has
// nothing else. This one also gives out the number that each of them compares first: with the log
// off, as it nearly always is, a call through the procedure linkage table comes down to a look at
// memory. Where there is no such number, in a library that took this one's place and on Windows,
// every call is made.
#pragma once

// What a call needs to pass.
#define XKIVLOG_ERROR 1
#define XKIVLOG_WARNING 2
#define XKIVLOG_INFO 3
#define XKIVLOG_ENTRY 4
#define XKIVLOG_PARAM 5
#define XKIVLOG_VALUE 6

#if defined(_WIN32)

inline bool xkivlog_passes(int /*level*/) {
    return true;
}

#else

// The highest level that is written. It stands at the top until the first call of the process has
// read the configuration, so that this call is made. Weak: its address is null where it is missing.
extern "C" [[gnu::weak, gnu::visibility("default")]] int xkivlog_gate;

inline bool xkivlog_passes(int level) {
    return &xkivlog_gate == nullptr || __atomic_load_n(&xkivlog_gate, __ATOMIC_RELAXED) >= level;
}

#endif
