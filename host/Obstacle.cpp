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

} // namespace ffdhost
