#include "DirMap.h"

#include "console/Files.h"
#include "console/Status.h"
#include "MCI/KIVMP3/CKivDirFile.h"

#include <algorithm>
#include <cstring>

namespace ffdhost {

namespace {

[[noreturn]] void damaged(std::filesystem::path const& path, std::string const& words) {
    throw Failure("read directory", path.string(), FFD_DIRECTORY_MISMATCH,
                  "the .DIR file is damaged: " + words,
                  "Open the sound file for writing: the driver sets the damaged .DIR file aside "
                  "as .DIR.bad and takes the audio as one block.");
}

std::vector<uint8_t> read_whole(std::filesystem::path const& path, InputFile const& file) {
    if (file.size() > DIR_FILE_SIZE_MOST) {
        damaged(path, "it is larger than " + std::to_string(DIR_FILE_SIZE_MOST) + " bytes");
    }
    std::vector<uint8_t> bytes = file.read_at(0, static_cast<size_t>(file.size()));
    if (bytes.size() != file.size()) {
        throw Failure("read directory", path.string(), FFD_FILE_IO_ERROR);
    }
    return bytes;
}

BlockState state_of(DirEntry const& entry) {
    bool const undoable = (entry.Status & DIR_ENTRY_UNDOABLE) != 0;
    return !entry.is_deleted() ? BlockState::Live
           : undoable          ? BlockState::DeletedUndoable
                               : BlockState::Deleted;
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
    return parse_dir_file(path, read_whole(path, *file));
}

std::optional<DirMap> parse_dir_file(std::filesystem::path const& path,
                                     std::vector<uint8_t> const& bytes) {
    size_t offset = 0;
    while (offset < bytes.size() && bytes[offset] != 0) {
        offset += sizeof(DirEntry);
    }
    size_t const count = offset / sizeof(DirEntry);
    if (offset > bytes.size()) {
        damaged(path, "the end of the file cuts entry " + std::to_string(count - 1));
    }
    if (offset == bytes.size() && bytes.size() >= DIR_FILE_SIZE) {
        damaged(path, "no entry ends the directory");
    }
    std::vector<DirEntry> entries(count);
    if (count > 0) {
        std::memcpy(entries.data(), bytes.data(), offset);
    }
    // The driver's own judgement.
    if (CKivDirFile::check_entries(entries.data(), static_cast<DWORD>(count)) != FFD_NOERROR) {
        auto const bad = std::find_if(entries.begin(), entries.end(), [](DirEntry const& entry) {
            return CKivDirFile::check_entries(&entry, 1) != FFD_NOERROR;
        });
        damaged(path, bad == entries.end()
                          ? "two blocks overlap"
                          : "entry " + std::to_string(bad - entries.begin()) + " is none");
    }
    DirMap map;
    map.blocks.reserve(count);
    for (DirEntry const& entry : entries) {
        map.blocks.push_back({state_of(entry), entry.Startpos, entry.Endpos, map.dictationLength});
        map.dictationLength += entry.live_size();
    }
    if (map.blocks.empty() || (map.blocks.size() == 1 && map.blocks[0].audioTo == 0)) {
        return std::nullopt;
    }
    return map;
}

DirMap one_block(uint32_t audioLength) {
    return {{{BlockState::Live, 0, audioLength, 0}}, audioLength};
}

} // namespace ffdhost
