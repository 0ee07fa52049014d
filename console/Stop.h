// A stop of the program by its user or the system: what its handler finds, on every system.
#pragma once

#include <array>
#include <atomic>
#include <string>

namespace ffdhost {

// Whether a first stop is only noted, and whether there was one.
inline std::atomic<bool> g_stopWaits = false;
inline std::atomic<bool> g_stopped = false;

// What the handler writes: it can't take memory.
inline std::array<char, 1000> g_words;
inline size_t g_length = 0;

inline void set_words(std::string const& words) {
    g_length = words.copy(g_words.data(), g_words.size());
}

} // namespace ffdhost
