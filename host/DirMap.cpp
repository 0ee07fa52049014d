#include "DirMap.h"

#include "Bytes.h"
#include "Status.h"

#include <algorithm>
#include <fstream>

namespace ffdhost {

namespace {

constexpr size_t kEntrySize = 12;
constexpr size_t kNewFileSize = 65536; // the driver zero-fills a smaller file up to here
constexpr uint64_t kLargestFile = uint64_t{16} << 20; // what the driver still adopts

[[noreturn]] void damaged(std::filesystem::path const& path, std::string const& words) {
    throw Failure("read directory", path.string(), FFD_DIRECTORY_MISMATCH,
                  "the .DIR file is damaged: " + words,
                  "Open the sound file for writing: the driver sets the damaged .DIR file aside "
                  "as .DIR.bad and takes the audio as one block.");
}

std::vector<uint8_t> read_whole(std::filesystem::path const& path) {
    std::ifstream stream(path, std::ios::binary | std::ios::ate);
    std::streamoff const size = stream.tellg();
    if (!stream || size < 0) {
        throw Failure("read directory", path.string(), FFD_FILE_IO_ERROR);
    }
    if (static_cast<uint64_t>(size) > kLargestFile) {
        damaged(path, "it is larger than 16 MiB");
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    stream.seekg(0);
    if (!stream.read(reinterpret_cast<char*>(bytes.data()), size)) {
        throw Failure("read directory", path.string(), FFD_FILE_IO_ERROR);
    }
    return bytes;
}

BlockState parse_state(std::filesystem::path const& path, std::string const& entry,
                       uint8_t status) {
    switch (status) {
    case 1:
        return BlockState::Live;
    case 3:
        return BlockState::Deleted;
    case 11:
        return BlockState::DeletedUndoable;
    default:
        damaged(path, entry + " has the unknown status " + std::to_string(status));
    }
}

void check_no_overlap(std::filesystem::path const& path, std::vector<Block> blocks) {
    std::erase_if(blocks, [](Block const& block) { return block.size() == 0; });
    std::sort(blocks.begin(), blocks.end(), [](Block const& left, Block const& right) {
        return left.audioFrom < right.audioFrom;
    });
    for (size_t i = 1; i < blocks.size(); ++i) {
        if (blocks[i].audioFrom < blocks[i - 1].audioTo) {
            damaged(path,
                    "two blocks overlap at audio position " + std::to_string(blocks[i].audioFrom));
        }
    }
}

} // namespace

char const* state_text(BlockState state) {
    switch (state) {
    case BlockState::Live:
        return "live";
    case BlockState::Deleted:
        return "deleted";
    case BlockState::DeletedUndoable:
        return "deleted, undoable";
    }
    return "";
}

std::filesystem::path beside(std::string const& soundFile, std::string const& extension) {
    std::string const name = std::filesystem::path(soundFile).filename().string();
    return std::filesystem::path(soundFile).replace_filename(name.substr(0, name.rfind('.')) +
                                                             extension);
}

std::filesystem::path dir_file_of(std::string const& soundFile) {
    return beside(soundFile, ".DIR");
}

std::optional<uint64_t> leftover_size(std::string const& soundFile) {
    std::error_code error;
    uint64_t const size = std::filesystem::file_size(dir_file_of(soundFile), error);
    return error ? std::nullopt : std::optional(size);
}

std::optional<DirMap> read_dir_file(std::filesystem::path const& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return std::nullopt;
    }
    std::vector<uint8_t> const bytes = read_whole(path);
    DirMap map;
    size_t offset = 0;
    for (; offset < bytes.size() && bytes[offset] != 0; offset += kEntrySize) {
        std::string const entry = "entry " + std::to_string(map.blocks.size());
        if (bytes.size() - offset < kEntrySize) {
            damaged(path, "the end of the file cuts " + entry);
        }
        uint8_t const* const fields = &bytes[offset];
        Block const block{parse_state(path, entry, fields[0]), le32(fields + 4), le32(fields + 8),
                          map.dictationLength};
        if (fields[1] != 0 || fields[2] != 0 || fields[3] != 0) {
            damaged(path, "a reserved byte of " + entry + " is not 0");
        }
        if (block.audioFrom > block.audioTo) {
            damaged(path, entry + " ends before it starts");
        }
        map.dictationLength += block.live() ? block.size() : 0;
        map.blocks.push_back(block);
    }
    if (offset >= bytes.size() && bytes.size() >= kNewFileSize) {
        damaged(path, "no entry ends the directory");
    }
    check_no_overlap(path, map.blocks);
    if (map.blocks.empty() || (map.blocks.size() == 1 && map.blocks[0].audioTo == 0)) {
        return std::nullopt;
    }
    return map;
}

DirMap one_block(uint32_t audioLength) {
    return {{{BlockState::Live, 0, audioLength, 0}}, audioLength};
}

} // namespace ffdhost
