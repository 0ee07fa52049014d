// The lanes of a dictation as a picture.
#pragma once

#include "MapLanes.h"

#include <string>
#include <vector>

namespace ffdhost {

// The words of a picture. None need be valid UTF-8.
struct PictureWords {
    std::string name;              // of the file, without its directory
    std::string format;            // of the audio
    std::vector<std::string> gaps; // what each gap of the lanes is
};

// An SVG document that needs nothing else to be shown: both lanes with time marks, and a band for
// each live block from where it plays to where it lies. Blocks too thin to be seen are merged, so
// that the document stays small whatever the count of blocks.
std::string map_picture(Lanes const& lanes, PictureWords const& words, uint32_t bytesPerSecond);

} // namespace ffdhost
