// A folder that is held open, so that nobody who may write around it can redirect what is done in
// it.
#pragma once

#include "console/Files.h"
#include "console/Status.h"

#include <filesystem>
#include <optional>
#include <string>

namespace ffdhost {

[[noreturn]] inline void fail_to_copy(std::filesystem::path const& path, std::string const& words) {
    throw Failure("copy", path.string(), FFD_FILE_IO_ERROR, words,
                  "Check the permissions of the folder, and that the disk is not full, or recover "
                  "without --copy; nothing was changed.");
}

class OpenFolder {
public:
    // Throws a Failure with FFD_FILE_IO_ERROR, as all below do.
    explicit OpenFolder(std::filesystem::path path);

    std::filesystem::path const& path() const { return m_path; }

    // Makes a folder in this one, for this user only, and opens it. Nothing if the name is taken.
    std::optional<OpenFolder> make_folder(std::string const& name) const;

    // Copies a regular file of this folder, under its name, into another where nothing has that
    // name, with its time, its owner and group as far as this user may give them, and permissions
    // that let nobody else in; never a set-id bit. False if there is no such file. A link, or
    // anything else that is no file, is a Failure. What a failure leaves is removed.
    bool copy_file(std::string const& name, OpenFolder const& target) const;

    // Lets in whoever may read a file of this folder.
    void let_in_readers_of(std::string const& name) const;

    // Whether a name of this folder still leads to the other.
    bool leads_to(std::string const& name, OpenFolder const& folder) const;

    // Neither follows a link, and neither fails: what can't be removed stays.
    void remove_file(std::string const& name) const;
    void remove_folder(std::string const& name) const; // an empty one

private:
    OpenFolder(std::filesystem::path path, Descriptor folder);

    std::filesystem::path m_path;
    Descriptor m_folder;
};

} // namespace ffdhost
