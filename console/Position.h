// Positions and lengths as a user writes and reads them.
#pragma once

#include <cstdint>
#include <string>

namespace ffdhost {

// A position or length in the dictation: bytes, a time, or the end.
struct Position {
    enum class Unit { Bytes, Microseconds, End };

    Unit unit = Unit::Bytes;
    uint64_t count = 0;

    // In bytes of the dictation, rounded down. The end, and what lies beyond 4 GiB, is the largest
    // value: the driver cuts it down to the end.
    uint32_t to_bytes(uint32_t bytesPerSecond) const;
};

// Understands 12345 (bytes), 750ms, 62.5s, 1:02.5 (minutes), 1:02:03.5 (hours) and, where
// `endAllowed`, "end". Throws a Failure of `operation`, with FFD_INVALID_PARAMETER.
Position parse_position(std::string const& operation, std::string const& text,
                        bool endAllowed = false);

// A count of bytes of the dictation in milliseconds, rounded down.
uint64_t milliseconds_of(uint64_t byteCount, uint32_t bytesPerSecond);

// As 1:02.500, or 1:02:03.500 from an hour on; parse_position understands both.
std::string time_text(uint64_t milliseconds);

} // namespace ffdhost
