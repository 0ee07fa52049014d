#include "DirFile.h"

#include "console/Files.h"
#include "console/Status.h"
#include "MCI/KIVMP3/CKivDirFile.h"

#include <algorithm>

namespace ffdhost {

namespace {

[[noreturn]] void damaged(std::filesystem::path const& path, std::string const& words) {
    throw Failure("read directory", path.string(), FFD_DIRECTORY_MISMATCH, "the " + words,
                  "Open the sound file for writing: the driver sets the damaged .DIR file aside "
                  "as .DIR.bad and takes the audio as one block.");
}

std::vector<uint8_t> read_whole(std::filesystem::path const& path, InputFile const& file) {
    if (file.size() > DIR_FILE_SIZE_MOST) {
        damaged(path, "dir file is damaged: larger than " + std::to_string(DIR_FILE_SIZE_MOST) +
                          " bytes");
    }
    std::vector<uint8_t> bytes = file.read_at(0, static_cast<size_t>(file.size()));
    if (bytes.size() != file.size()) {
        throw Failure("read directory", path.string(), FFD_FILE_IO_ERROR);
    }
    return bytes;
}

BlockState state_of(DirEntry const& entry) {
    return !entry.is_deleted()   ? BlockState::Live
           : entry.is_undoable() ? BlockState::DeletedUndoable
                                 : BlockState::Deleted;
}

} // namespace

std::optional<DirMap> read_dir_file(std::filesystem::path const& path) {
    std::optional<InputFile> const file = InputFile::find_own(path);
    if (!file) {
        return std::nullopt;
    }
    return parse_dir_file(path, read_whole(path, *file));
}

std::optional<DirMap> parse_dir_file(std::filesystem::path const& path,
                                     std::vector<uint8_t> const& bytes) {
    // The driver's own judgement.
    auto const size = static_cast<DWORD>(bytes.size());
    std::vector<DirEntry> entries(CKivDirFile::get_buffer_size(size) / sizeof(DirEntry) + 1);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(entries.data()));
    LPCSTR damage = nullptr;
    FFDError const status = CKivDirFile::judge_dir_file(entries.data(), size, &damage);
    if (status == FFD_FILE_IO_ERROR) {
        damaged(path, damage);
    }
    if (status != FFD_NOERROR) {
        throw Failure("read directory", path.string(), status);
    }
    if (CKivDirFile::is_new_directory(entries.data())) {
        return std::nullopt;
    }
    DirMap map;
    for (DirEntry const* entry = entries.data(); entry->Status != 0; ++entry) {
        map.blocks.push_back(
            {state_of(*entry), entry->Startpos, entry->Endpos, map.dictationLength});
        map.dictationLength += entry->live_size();
    }
    return map;
}

} // namespace ffdhost
