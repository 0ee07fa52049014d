// The blocks that make up a dictation, as the .DIR file beside a sound file lists them.
//
// The .DIR file is a row of 12-byte entries, little-endian: status (1 byte), three bytes of 0,
// start and end of the block as audio positions (4 bytes each). A status of 0 ends the row. Live
// entries in the order of the row are the dictation; deleted ones stay in the row and play no part.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

namespace ffdhost {

enum class BlockState { Live, Deleted, DeletedUndoable };

struct Block {
    BlockState state;
    uint32_t audioFrom; // audio positions count from the first frame and say where bytes lie
    uint32_t audioTo;   // behind the last byte
    // Where the block plays; for a deleted block, where it would play if it came back.
    uint64_t dictationFrom;

    uint32_t size() const { return audioTo - audioFrom; }
    bool live() const { return state == BlockState::Live; }
};

struct DirMap {
    std::vector<Block> blocks;
    uint64_t dictationLength = 0; // bytes
};

char const* state_text(BlockState state);

// Reads the blocks of a .DIR file, as read_dir_file of map/DirFile.h does.
using DirReader = std::function<std::optional<DirMap>(std::filesystem::path const&)>;

// An unedited dictation: all the audio of the file in one block.
DirMap one_block(uint32_t audioLength);

} // namespace ffdhost
