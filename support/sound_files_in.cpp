#include "support.h"

#include "console/Files.h"
#include "host/Beside.h"
#include "MCI/KIVMP3/CloseMarker.h"

#include <set>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

// The sound file that a .DIR file or a close marker belongs to. The directory does not name it.
fs::path sound_file_of(fs::path const& companion) {
    if (ends_in(companion, ".clm")) {
        try {
            std::vector<uint8_t> name = InputFile(companion).read_at(
                offsetof(CloseMarkerRecord, szSoundName), sizeof(CloseMarkerRecord::szSoundName));
            name.push_back(0);
            std::string const text = reinterpret_cast<char const*>(name.data());
            if (text == fs::path(text).filename() && fs::path(text).stem() == companion.stem()) {
                return fs::path(companion).replace_filename(text);
            }
        } catch (Failure const&) { // as one that names nothing
        }
    }
    return fs::path(companion).replace_extension(".mp3");
}

} // namespace

std::vector<std::string> sound_files_in(std::string const& folder) {
    std::set<std::string> found;
    std::set<fs::path> stems;
    std::vector<fs::path> companions;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (fs::directory_iterator const end; !error && entry != end; entry.increment(error)) {
        fs::path const& path = entry->path();
        std::error_code unknown;
        if (ends_in(path, ".dir") || ends_in(path, ".clm")) {
            companions.push_back(path);
        } else if (!fs::is_directory(path, unknown)) {
            stems.insert(path.stem());
            if (ends_in(path, ".mp3")) {
                found.insert(path.string());
            }
        }
    }
    if (error) {
        throw Failure("open folder", folder, FFD_FILE_IO_ERROR, system_words(error.value()),
                      "Check the permissions of the folder.");
    }
    for (fs::path const& companion : companions) {
        if (!stems.contains(companion.stem())) {
            found.insert(sound_file_of(companion).string());
        }
    }
    return {found.begin(), found.end()};
}

} // namespace ffdhost
