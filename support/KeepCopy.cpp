#include "KeepCopy.h"

#include "console/Output.h"
#include "console/System.h"
#include "host/Beside.h"
#include "OpenFolder.h"

namespace ffdhost {

namespace {

constexpr int kMostFolders = 10000; // of one sound file

std::filesystem::path kept_folder(std::string const& soundFile, int number) {
    return beside(soundFile, ".kept" + (number == 0 ? "" : std::to_string(number)));
}

OpenFolder make_kept_folder(OpenFolder const& folder, std::string const& soundFile) {
    for (int number = 0; number < kMostFolders; ++number) {
        std::string const name = kept_folder(soundFile, number).filename().string();
        if (std::optional<OpenFolder> made = folder.make_folder(name)) {
            return std::move(*made);
        }
    }
    throw Failure("copy", beside(soundFile, ".kept").string(), FFD_FILE_ALREADY_EXISTS,
                  "all names for the folder of the copy are taken",
                  "Move folders of earlier copies away; nothing was changed.");
}

} // namespace

std::filesystem::path next_kept_folder(std::string const& soundFile) {
    int number = 0;
    std::error_code error;
    while (exists(symlink_status(kept_folder(soundFile, number), error))) {
        ++number;
    }
    return kept_folder(soundFile, number);
}

std::vector<std::filesystem::path> keep_copy(std::string const& soundFile,
                                             std::vector<std::string> const& names) {
    tell_when_interrupted("\nffdhost: interrupted: nothing was changed, and no copy is kept\n");
    HeldStop const stop;
    OpenFolder const folder(std::filesystem::path(soundFile).parent_path());
    OpenFolder kept = make_kept_folder(folder, soundFile);
    std::string const keptName = kept.path().filename().string();
    std::vector<std::string> copied;
    try {
        Waiting const waiting("keeping a copy");
        for (std::string const& name : names) {
            if (folder.copy_file(name, kept)) {
                copied.push_back(name);
            }
            if (stop.is_wanted()) {
                throw Failure("copy", name, FFD_FILE_IO_ERROR, "interrupted");
            }
        }
        if (!copied.empty()) {
            kept.let_in_readers_of(copied.front());
        }
        if (!folder.leads_to(keptName, kept)) {
            throw Failure("copy", kept.path().string(), FFD_FILE_IO_ERROR,
                          "somebody has moved the folder away while the copy was made",
                          "Move the dictation to a folder of its own; nothing was changed.");
        }
    } catch (...) {
        for (std::string const& name : copied) {
            kept.remove_file(name);
        }
        bool const remains = folder.leads_to(keptName, kept);
        { OpenFolder const closed = std::move(kept); } // an open one can't be removed everywhere
        if (remains) {
            folder.remove_folder(keptName);
        }
        throw;
    }
    std::vector<std::filesystem::path> copies;
    copies.reserve(copied.size());
    tell_when_interrupted("");
    for (std::string const& name : copied) {
        copies.push_back(kept.path() / name);
    }
    return copies;
}

} // namespace ffdhost
