// What stands in a sound file in front of its audio and behind it. The driver neither touches
// these bytes nor names them.
#pragma once

#include "console/Files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ffdhost {

struct Region {
    std::string kind;    // "ID3v2", "ID3v1", "APE", "Lyrics3" or "other"
    std::string version; // as in "2.3.0", empty if the kind has none
    uint64_t fileOffset;
    uint64_t size; // bytes
};

// Regions in file order. A file may hold more than anybody reads: the first of them, and how many
// come behind these.
struct Regions {
    std::vector<Region> listed;
    uint64_t more = 0;
};

// The end of the ID3v2 tags at the front of the file, one behind the other, as far as the driver
// skips them: a major version above 4, a damaged header, or a tag that reaches behind the end of
// the file ends the row.
uint64_t end_of_front_tags(InputFile const& file);

// All bytes in front of the audio, tags and other.
Regions regions_in_front(InputFile const& file, uint64_t firstFrameOffset);

// All bytes from the end of the audio to that of the file, tags and other.
Regions regions_behind(InputFile const& file, uint64_t fileSize, uint64_t audioEndOffset);

} // namespace ffdhost
