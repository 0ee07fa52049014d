#include "OpenFolder.h"

#include "console/FilesPosix.h"
#include "console/System.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace ffdhost {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(std::filesystem::path const& path) {
    fail_to_copy(path, std::strerror(errno));
}

struct stat status_of(Descriptor const& file, std::filesystem::path const& path) {
    struct stat status {};
    if (fstat(file.number(), &status) != 0) {
        fail(path);
    }
    return status;
}

// The group first: whoever gives a file away may not change it afterwards.
void keep_owner(int file, struct stat const& original) {
    if (fchown(file, static_cast<uid_t>(-1), original.st_gid) != 0 ||
        fchown(file, original.st_uid, static_cast<gid_t>(-1)) != 0) {
        return; // it stays with this user, who could read the original
    }
}

bool copy_bytes(int from, int to) {
    HeldStop const stop;
    std::array<char, 65536> block; // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (;;) {
        ssize_t const count = read(from, block.data(), block.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0;
        }
        if (stop.is_wanted()) {
            errno = EINTR;
            return false;
        }
        for (ssize_t done = 0; done < count;) {
            ssize_t const written =
                write(to, block.data() + done, static_cast<size_t>(count - done));
            if (written < 0 && errno != EINTR) {
                return false;
            }
            done += written > 0 ? written : 0;
        }
    }
}

} // namespace

OpenFolder::OpenFolder(std::filesystem::path path)
    : m_path(std::move(path)),
      m_folder(open(m_path.empty() ? "." : m_path.c_str(), kFolderFlags & ~O_NOFOLLOW)) {
    if (m_folder.number() < 0) {
        fail(m_path);
    }
}

OpenFolder::OpenFolder(std::filesystem::path path, Descriptor folder)
    : m_path(std::move(path)), m_folder(std::move(folder)) {}

std::optional<OpenFolder> OpenFolder::make_folder(std::string const& name) const {
    std::filesystem::path path = m_path / name;
    if (mkdirat(m_folder.number(), name.c_str(), 0700) != 0) {
        if (errno == EEXIST) {
            return std::nullopt;
        }
        fail(path);
    }
    Descriptor folder(openat(m_folder.number(), name.c_str(), kFolderFlags));
    if (folder.number() < 0) {
        fail(path);
    }
    // It may have been replaced since; one of this user's that others can't enter is as good.
    struct stat const status = status_of(folder, path);
    if (status.st_uid != geteuid() || (status.st_mode & 0077) != 0) {
        fail_to_copy(path, "it was replaced while it was made");
    }
    // What the folder around it gives to new ones.
    fremovexattr(folder.number(), "system.posix_acl_access");
    fremovexattr(folder.number(), "system.posix_acl_default");
    return OpenFolder(std::move(path), std::move(folder));
}

bool OpenFolder::copy_file(std::string const& name, OpenFolder const& target) const {
    std::filesystem::path const path = m_path / name;
    constexpr int kRead = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    Descriptor const from(openat(m_folder.number(), name.c_str(), kRead));
    if (from.number() < 0) {
        if (errno == ENOENT) {
            return false;
        }
        errno == ELOOP
            ? fail_to_copy(path, "it is a symbolic link, and what it leads to is not copied")
            : fail(path);
    }
    struct stat const original = status_of(from, path);
    if (!S_ISREG(original.st_mode)) {
        fail_to_copy(path, "it is no regular file");
    }
    constexpr int kMake = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor to(openat(target.m_folder.number(), name.c_str(), kMake, 0600));
    if (to.number() < 0) {
        fail(target.m_path / name);
    }
    std::array<timespec, 2> const times = {original.st_atim, original.st_mtim};
    bool good = copy_bytes(from.number(), to.number());
    if (good) {
        keep_owner(to.number(), original);
        let_in(to.number(), mode_as(to.number(), from.number()));
        futimens(to.number(), times.data()); // the copy is right without it, too
        good = fsync(to.number()) == 0 && to.close();
    }
    if (!good) {
        int const error = errno;
        target.remove_file(name);
        fail_to_copy(path, std::strerror(error));
    }
    return true;
}

void OpenFolder::let_in_readers_of(std::string const& name) const {
    Descriptor const file(openat(m_folder.number(), name.c_str(), O_RDONLY | O_NOFOLLOW));
    struct stat const status = status_of(file, m_path / name);
    keep_owner(m_folder.number(), status);
    bool const ownGroup = status_of(m_folder, m_path).st_gid == status.st_gid;
    mode_t const group = ownGroup && (status.st_mode & S_IRGRP) != 0 ? 0050 : 0;
    mode_t const others = (status.st_mode & S_IROTH) != 0 ? 0055 : 0;
    fchmod(m_folder.number(), 0700 | group | others);
}

bool OpenFolder::leads_to(std::string const& name, OpenFolder const& folder) const {
    struct stat there {};
    struct stat const own = status_of(folder.m_folder, folder.m_path);
    return fstatat(m_folder.number(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           there.st_dev == own.st_dev && there.st_ino == own.st_ino;
}

void OpenFolder::remove_file(std::string const& name) const {
    unlinkat(m_folder.number(), name.c_str(), 0);
}

void OpenFolder::remove_folder(std::string const& name) const {
    unlinkat(m_folder.number(), name.c_str(), AT_REMOVEDIR);
}

} // namespace ffdhost
