// The layer's descriptors: never 0, 1 or 2, and none of them in another process.
//
// What a process writes to a standard stream that was closed would go into a file that had got its
// number. A copy of a descriptor in another process would keep the claims on the file, which belong
// to the opening and not to the process: so none outlives an exec, a forked child closes its copies
// at once, and a close takes the claims back by itself, before a child got so far and whoever else
// has a copy. The child never takes back claims: they are its parent's.
#pragma once

#include <sys/types.h>

namespace posix {

// open(2) for what may turn out to be no regular file: it never waits. The umask takes from the
// mode of a file that is made.
int open_descriptor(char const* pszPath, int iFlags, mode_t mode = 0);

// Closes what open_descriptor opened, after the claims. 0, or the error number of POSIX; the
// descriptor is gone either way.
int close_descriptor(int fd);

// Closes itself.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            close_descriptor(m_fd);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

} // namespace posix
