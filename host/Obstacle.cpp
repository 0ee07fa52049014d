#include "Obstacle.h"

#include "Beside.h"
#include "console/Files.h"
#include "console/Output.h"
#include "console/Printable.h"
#include "console/System.h"

#include <algorithm>
#include <utility>

namespace ffdhost {

namespace {

constexpr std::chrono::milliseconds kBetweenTries(100);

std::chrono::milliseconds g_patience(0);

bool has_user(std::string const& path) {
    return is_in_use(path) || is_in_use(dir_file_of(path));
}

// Why a file that can be read can't be opened for writing. Nothing if it is not to be seen.
std::optional<Failure> why_not_writable(std::string const& operation, std::string const& path) {
    auto const why = [&](std::string const& words, std::string const& advice) {
        return Failure(operation, path, FFD_FILE_IO_ERROR, words, advice);
    };
    if (!may_write(path)) {
        return why("permission denied: the file may not be written to",
                   "Change its permissions, or copy it to a place of your own.");
    }
    for (std::filesystem::path const& own : {dir_file_of(path), marker_file_of(path)}) {
        std::error_code code;
        auto const status = std::filesystem::symlink_status(own, code);
        if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
            return why(own.string() + " is no regular file",
                       "Find out who made it, and move it away.");
        }
        if (std::filesystem::exists(status) && !may_write(own)) {
            return why("permission denied: " + own.string() + " may not be written to",
                       "Let its owner open the file, or change its permissions.");
        }
    }
    std::filesystem::path const folder = std::filesystem::absolute(path).parent_path();
    if (!may_write(folder)) {
        return why("permission denied: no files may be made in its folder, and edits need one",
                   "Change the permissions of " + folder.string() +
                       ", or copy the file to a place of your own.");
    }
    return std::nullopt;
}

} // namespace

std::chrono::milliseconds set_patience(std::chrono::milliseconds patience) {
    return std::exchange(g_patience, patience);
}

bool await_free(std::string const& path) {
    Waiting const waiting("waiting for " + printable(path));
    while (has_user(path)) {
        if (g_patience.count() <= 0) {
            return false;
        }
        auto const pause = std::min(g_patience, kBetweenTries);
        g_patience -= pause;
        if (!sleep_for(pause)) {
            throw Failure("open", path, FFD_FILE_IO_ERROR,
                          "it is in use by another program, and the waiting was stopped",
                          "Nothing was changed.");
        }
    }
    return true;
}

std::optional<Failure> why_unreadable(std::string const& operation, std::string const& path) {
    auto const why = [&](std::string const& words, std::string const& advice) {
        return Failure(operation, path, FFD_FILE_IO_ERROR, words, advice);
    };
    std::error_code code;
    auto const status = std::filesystem::status(path, code);
    if (status.type() == std::filesystem::file_type::not_found) {
        return std::filesystem::is_symlink(path, code)
                   ? why("the link leads to no file", "Check where it leads to.")
                   : why("there is no such file", "Check the path.");
    }
    if (code == std::errc::too_many_symbolic_link_levels) {
        return why("the links lead in a circle", "Check where they lead to.");
    }
    if (std::filesystem::is_directory(status)) {
        return why("it is a directory", "Give the path of a file in it.");
    }
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        return why("it is no regular file", "Give the path of an MP3 file.");
    }
    try {
        InputFile const file(path); // takes no heed of what others have open
    } catch (Failure const& reason) {
        return why(reason.what(), "Check the permissions of the file.");
    }
    return std::nullopt;
}

void wait_or_explain(std::string const& path, ffd::Access access, ffd::Error const& error,
                     bool again) {
    if (auto const why = why_unreadable(error.operation(), path)) {
        throw *why;
    }
    if (has_user(path)) {
        if (await_free(path)) {
            return;
        }
        throw Failure(error.operation(), path, error.status(), "it is in use by another program",
                      "Close that program, or wait until it is done, as with --wait SECONDS.");
    }
    if (access == ffd::Access::ReadWrite) {
        if (auto const why = why_not_writable(error.operation(), path)) {
            throw *why;
        }
    }
    if (again || g_patience.count() == 0) {
        throw Failure(error.operation(), path, error.status());
    } // or else it was in use a moment ago
}

Failure why_not_closed(std::string const& path, ffd::Error const& error) {
    namespace fs = std::filesystem;
    auto const why = [&](std::string const& words, std::string const& advice) {
        return Failure(error.operation(), path, error.status(), words, advice);
    };
    std::error_code code;
    fs::path const folder = fs::absolute(path).parent_path();
    if (!fs::exists(folder, code)) {
        return why("its folder is gone", "If it was moved, the edits are there, in the .DIR file "
                                         "beside the file. Run: ffdhost recover FILE");
    }
    if (error.status() == FFD_FILE_IO_ERROR && fs::file_size(dir_file_of(path), code) > 0 &&
        !code) {
        std::optional<Failure> const reason = why_not_writable(error.operation(), path);
        return why(reason ? reason->what() : "the edits could not be folded in",
                   "Nothing is lost: the edits are in " + dir_file_of(path).string() +
                       ", which is to stay beside the file. When the folder may be written to and "
                       "has room for the file once more, run: ffdhost recover -- " +
                       shell_word(path));
    }
    std::string copy; // the latest
    for (fs::directory_iterator entry(folder, code), end; !code && entry != end;
         entry.increment(code)) {
        fs::path const name = entry->path().filename();
        bool const isTime =
            name.stem().string().find_first_not_of("0123456789") == std::string::npos;
        if (isTime && same_file_name(name.extension(), ".MP3")) {
            copy = std::max(copy, name.string());
        }
    }
    if (error.status() == FFD_FILE_IO_ERROR && !copy.empty()) {
        return why("another file has taken its place meanwhile",
                   "Nothing is lost: the whole dictation is in " +
                       fs::path(path).replace_filename(copy).string() + ".");
    }
    return {error.operation(), path, error.status()};
}

} // namespace ffdhost
