// What a user may set: how much is logged, and where to. Pure parsing, no file is touched here.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace xkivlog {

// Each level holds all those before it. The numbers are what the gate compares.
enum class Level : int { Off, Error, Warning, Info, Entry, Param, Value };

// Longest path taken, with its terminator. Longer ones count as unusable.
inline constexpr size_t kMaxPath = 4096;

struct Settings {
    Level level = Level::Off;
    std::string_view path; // into the parsed text; empty: no file named
};

// A level's name, in any case; "all" is the highest. Nothing if there is no such level.
std::optional<Level> parse_level(std::string_view name);

// "level" or "level:path". Nothing if there is no such level.
std::optional<Settings> parse_environment(std::string_view text);

// The keys Level and File of section [XKIVLOG]; all else is passed over. What is missing or wrong
// leaves the level off. The last one of a repeated key holds.
Settings parse_ini(std::string_view content);

} // namespace xkivlog
