// The lanes in which a dictation is drawn: the blocks as they play, and as they lie in the file.
#pragma once

#include "host/DirMap.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ffdhost {

enum class PlaceKind { Original, Appended, Undoable, Deleted };
constexpr size_t kPlaceKinds = 4;

// A block of at least one byte, with its place in both lanes.
struct Place {
    size_t block; // its index in the directory
    PlaceKind kind;
    uint64_t size;  // bytes
    uint64_t plays; // dictation position; for a deleted block, where it would play
    // Bytes of audio in front of it in the file. Other bytes take up no place in the lane: they
    // have no time.
    uint64_t lies;

    bool live() const { return kind == PlaceKind::Original || kind == PlaceKind::Appended; }
};

// Bytes of the file that belong to no block: tags, or what else stands there.
struct LaneGap {
    uint64_t fileFrom;
    uint64_t fileTo;
    uint64_t lies; // bytes of audio in front of it in the file
    bool inFront;  // of all audio

    uint64_t size() const { return fileTo - fileFrom; }
};

struct Lanes {
    std::vector<Place> places; // in the order of the directory
    std::vector<LaneGap> gaps; // in file order
    uint64_t gapsLeftOut = 0;  // only a foreign directory has more than are worth drawing
    uint64_t dictationLength = 0;
    uint64_t audioLength = 0; // of all blocks, deleted ones too
};

// A stretch of one lane: a block, or several that are too thin to be told apart. Then it is of the
// kind of one of them, so that the kinds of the lane keep their shares.
struct Piece {
    PlaceKind kind;
    uint64_t from; // bytes from the beginning of the lane
    uint64_t to;
    size_t block; // the first in the lane
    size_t count;
};

struct Tick {
    uint64_t at; // bytes from the beginning of the lane
    std::string label;
};

// The audio position where the audio ended before the first edit, as far as the blocks show. The
// driver appends new audio behind all that the file holds, and never changes the order of the old
// audio. So the old audio ends at the first gap between two blocks, where a tag stood at the end of
// the file; without one, at the lowest block that plays before audio that lies in front of it.
// What was appended to the very end of the dictation looks like old audio then.
std::optional<uint32_t> original_end(std::vector<Block> const& blocks);

Lanes lanes_of(DirMap const& map, uint64_t firstFrameOffset, uint64_t fileSize);

// The pieces of a lane, in its order. Neighbours thinner than `least` bytes are merged until they
// are as long.
std::vector<Piece> playing_pieces(Lanes const& lanes, double least);
std::vector<Piece> file_pieces(Lanes const& lanes, double least);

// Between two time marks: a round count of seconds that makes `most` marks at most.
uint64_t tick_seconds(uint64_t length, uint32_t bytesPerSecond, unsigned most);

// Time marks from 0 on.
std::vector<Tick> time_ticks(uint64_t length, uint32_t bytesPerSecond, uint64_t seconds);

} // namespace ffdhost
