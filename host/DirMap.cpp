#include "DirMap.h"

#include "Bytes.h"
#include "console/Files.h"
#include "console/Status.h"

#include <algorithm>

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

std::vector<uint8_t> read_whole(std::filesystem::path const& path, InputFile const& file) {
    if (file.size() > kLargestFile) {
        damaged(path, "it is larger than 16 MiB");
    }
    std::vector<uint8_t> bytes = file.read_at(0, static_cast<size_t>(file.size()));
    if (bytes.size() != file.size()) {
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

std::optional<DirMap> read_dir_file(std::filesystem::path const& path) {
    std::optional<InputFile> const file = InputFile::find_own(path);
    if (!file) {
        return std::nullopt;
    }
    std::vector<uint8_t> const bytes = read_whole(path, *file);
    DirMap map;
    map.blocks.reserve(bytes.size() / kEntrySize);
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
