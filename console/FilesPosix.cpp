#include "Files.h"

#include "FilesPosix.h"
#include "Status.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace ffdhost {

namespace {

char const* const kAccessList = "system.posix_acl_access";

// Until it is closed, or the process is killed. False if another has it, or without one.
bool claim(Descriptor const& file) {
    struct flock all {};
    all.l_type = F_WRLCK;
    return fcntl(file.number(), F_OFD_SETLK, &all) == 0;
}

// Without O_NONBLOCK the open of a pipe would wait.
int open_to_read(std::filesystem::path const& path, int flags) {
    return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags);
}

} // namespace

bool is_no_regular_file(std::filesystem::path const& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool is_in_use(std::filesystem::path const& path) {
    Descriptor const file(open_to_read(path, 0));
    struct flock claim {}; // of all bytes: any claim of another is in its way
    claim.l_type = F_WRLCK;
    return fcntl(file.number(), F_OFD_GETLK, &claim) == 0 && claim.l_type != F_UNLCK;
}

mode_t mode_as(int file, int like) {
    struct stat original {};
    struct stat made {};
    mode_t mode = 0600;
    if (fstat(like, &original) == 0 && fstat(file, &made) == 0) {
        mode = original.st_mode & 0666;
        if (made.st_gid != original.st_gid) {
            mode &= ~070U | (mode & 07) << 3; // another group gets what all get, at most
        }
    }
    // With a list the bits of the group are those of the list, and the list is not copied.
    if (fgetxattr(like, kAccessList, nullptr, 0) > 0) {
        mode &= 0600;
    }
    return mode;
}

void let_in(int file, mode_t mode) {
    fremovexattr(file, kAccessList);
    fchmod(file, mode);
}

bool Descriptor::close() {
    int const number = release();
    return number < 0 || ::close(number) == 0;
}

InputFile::InputFile(std::filesystem::path const& path)
    : InputFile(path, Descriptor(open_to_read(path, 0))) {}

InputFile::InputFile(std::filesystem::path path, Descriptor file)
    : m_path(std::move(path)), m_file(std::move(file)) {
    struct stat status {};
    if (m_file.number() < 0 || fstat(m_file.number(), &status) != 0) {
        bool const isLink = errno == ELOOP;
        fail(m_path, isLink ? "it is a symbolic link" : system_words(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        fail(m_path, "it is no regular file");
    }
    m_size = static_cast<uint64_t>(status.st_size);
}

std::optional<InputFile> InputFile::find_own(std::filesystem::path const& path) {
    Descriptor file(open_to_read(path, O_NOFOLLOW));
    if (file.number() < 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return std::nullopt;
    }
    return InputFile(path, std::move(file));
}

std::vector<uint8_t> InputFile::read_at(uint64_t fileOffset, size_t size) const {
    std::vector<uint8_t> bytes(size);
    size_t done = 0;
    while (done < size) {
        ssize_t const count = pread(m_file.number(), bytes.data() + done, size - done,
                                    static_cast<off_t>(fileOffset + done));
        if (count < 0 && errno != EINTR) {
            throw Failure("read file", m_path.string(), FFD_FILE_IO_ERROR, system_words(errno));
        }
        if (count == 0) {
            break;
        }
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    bytes.resize(done);
    return bytes;
}

Descriptor make_file(std::string const& name, std::vector<std::string> const& privateAs) {
    Descriptor file(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    struct stat made {};
    if (file.number() >= 0 && (!claim(file) || fstat(file.number(), &made) != 0 ||
                               made.st_nlink == 0)) { // somebody took it for abandoned
        errno = EEXIST;
        return Descriptor();
    }
    if (file.number() >= 0) {
        mode_t const mask = umask(077);
        umask(mask);
        mode_t mode = 0666 & ~mask;
        for (std::string const& each : privateAs) {
            mode &= mode_as(file.number(), Descriptor(open_to_read(each, 0)).number());
        }
        let_in(file.number(), mode);
    }
    return file;
}

bool remove_abandoned(std::string const& name) {
    Descriptor const file(open(name.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    return claim(file) && fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == geteuid() && unlink(name.c_str()) == 0;
}

bool flush(Descriptor const& file) {
    return fsync(file.number()) == 0;
}

bool move_file(std::string const& from, std::string const& to, bool replace) {
    if (!replace &&
        renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (!replace && errno != EINVAL) {
        return false;
    }
    struct stat status {};
    if (!replace && lstat(to.c_str(), &status) == 0) { // a file system that can't do it in one
        errno = EEXIST;
        return false;
    }
    return rename(from.c_str(), to.c_str()) == 0;
}

Descriptor open_as_it_is(std::string const& name) {
    errno = 0;
    if (name.empty()) {
        return Descriptor(dup(STDOUT_FILENO));
    }
    struct stat status {};
    if (lstat(name.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
        errno = 0;
        return Descriptor();
    }
    return Descriptor(open(name.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC));
}

bool OutputFile::write_some(std::span<uint8_t const>& bytes) const {
    ssize_t const count = ::write(m_file.number(), bytes.data(), bytes.size());
    bytes = bytes.subspan(count > 0 ? static_cast<size_t>(count) : 0);
    return count >= 0 || errno == EINTR;
}

} // namespace ffdhost
