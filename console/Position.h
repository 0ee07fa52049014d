// Positions and lengths as a user writes and reads them.
#pragma once

#include <cstdint>
#include <string>

namespace ffdhost {

// A length in the dictation, as bytes or as a time, or all of it; or a position, which is that from
// the beginning, from the present position or from the end.
struct Position {
    enum class Unit { Bytes, Microseconds, All };
    enum class From { Begin, Here, End };

    Unit unit = Unit::Bytes;
    uint64_t count = 0;
    From from = From::Begin;
    bool isBack = false; // towards the beginning

    // The length in bytes of the dictation, rounded down. All of it, and what lies beyond 4 GiB, is
    // the largest value: the driver cuts it down to the end.
    uint32_t to_bytes(uint32_t bytesPerSecond) const;
    // The dictation position; it may lie beyond the end.
    uint32_t to_place(uint32_t bytesPerSecond, uint32_t here, uint32_t length) const;
};

// Understands 12345 (bytes), 750ms, 62.5s, 1m30s, 2h5m, 1:02.5 (minutes) and 1:02:03.5 (hours).
// Throws a Failure of `operation`, with FFD_INVALID_PARAMETER.
Position parse_length(std::string const& operation, std::string const& text);

// The same as a position, and: +5s and -5s from the present position, "end", end-3s.
Position parse_position(std::string const& operation, std::string const& text);
// The same where there is no present position yet.
Position parse_place(std::string const& operation, std::string const& text);

// A count of bytes of the dictation in milliseconds, rounded down.
uint64_t milliseconds_of(uint64_t byteCount, uint32_t bytesPerSecond);

// As 1:02.500, or 1:02:03.500 from an hour on; parse_position understands both.
std::string time_text(uint64_t milliseconds);

// As "45 min" or, from two hours on, "2 h"; rounded down.
std::string rough_time_text(uint64_t seconds);

} // namespace ffdhost
