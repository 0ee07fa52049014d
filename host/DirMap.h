// The blocks that make up a dictation, as the .DIR file beside a sound file lists them.
//
// The .DIR file is a row of 12-byte entries, little-endian: status (1 byte), three bytes of 0,
// start and end of the block as audio positions (4 bytes each). A status of 0 ends the row. Live
// entries in the order of the row are the dictation; deleted ones stay in the row and play no part.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
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

// The blocks of a .DIR file; nothing if there is none or it names no block, as before the first
// edit. Throws a Failure with FFD_DIRECTORY_MISMATCH if the file is damaged, and with
// FFD_FILE_IO_ERROR if it can't be read or the name is that of a link or no regular file.
std::optional<DirMap> read_dir_file(std::filesystem::path const& path);

// The same with the bytes of the file.
std::optional<DirMap> parse_dir_file(std::filesystem::path const& path,
                                     std::vector<uint8_t> const& bytes);

// An unedited dictation: all the audio of the file in one block.
DirMap one_block(uint32_t audioLength);

} // namespace ffdhost
