// The playing lane of a dictation in a line of text.
#pragma once

#include "MapLanes.h"

#include <string>

namespace ffdhost {

struct StripStyle {
    unsigned width; // columns
    bool colour;    // with escape sequences
    bool utf8;      // else only ASCII
};

// The lane, so many columns wide, time marks below it, and a key to what differs from plain audio.
// Ends with a line end; empty if nothing plays.
std::string map_strip(Lanes const& lanes, uint32_t bytesPerSecond, StripStyle const& style);

} // namespace ffdhost
