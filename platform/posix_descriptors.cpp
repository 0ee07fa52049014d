#include "platform/posix_descriptors.h"

#include "platform/platform.h"
#include "platform/posix_handles.h"
#include "platform/posix_locks.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace posix {
namespace {

constexpr int FIRST_DESCRIPTOR = 3;
constexpr int MOST_DESCRIPTORS = 1 << 20; // more than a process may have, as a rule
constexpr int WORD_BITS = 64;

// Which descriptors are the layer's. An open holds the mutex from before the descriptor exists
// until it stands here, and so does a fork: no child gets one that it does not find.
constinit std::mutex g_mutex;
constinit std::array<uint64_t, MOST_DESCRIPTORS / WORD_BITS> g_words{};
constinit int g_iWordsUsed = 0;
constinit bool g_bForksWatched = false;
constinit std::atomic<DWORD> g_dwForks = 0;

void before_fork() {
    table_mutex().lock();
    g_mutex.lock();
}

void after_fork_in_parent() {
    g_mutex.unlock();
    table_mutex().unlock();
}

// The one thread of the child. Others of the parent may have held anything but the two mutexes.
void after_fork_in_child() {
    for (int iWord = 0; iWord < g_iWordsUsed; ++iWord) {
        uint64_t& word = g_words[static_cast<size_t>(iWord)];
        for (; word != 0; word &= word - 1) {
            close(iWord * WORD_BITS + __builtin_ctzll(word));
        }
    }
    forget_handles();
    ++g_dwForks;
    after_fork_in_parent();
}

// The registration belongs to the library and goes with it when it is unloaded.
bool watch_forks() {
    if (!g_bForksWatched) {
        g_bForksWatched =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    }
    return g_bForksWatched;
}

void enter(int fd) {
    int const iWord = fd / WORD_BITS;
    g_words[static_cast<size_t>(iWord)] |= uint64_t{1} << fd % WORD_BITS;
    if (iWord >= g_iWordsUsed) {
        g_iWordsUsed = iWord + 1;
    }
}

void leave(int fd) {
    std::lock_guard const lock(g_mutex);
    g_words[static_cast<size_t>(fd / WORD_BITS)] &= ~(uint64_t{1} << fd % WORD_BITS);
}

int open_uninterrupted(char const* pszPath, int iFlags, mode_t mode) {
    int fd;
    do {
        fd = open(pszPath, iFlags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Fills closed standard streams for the length of an open, with what swallows whatever is written.
class StandardStreams {
public:
    StandardStreams() {
        std::array<struct pollfd, FIRST_DESCRIPTOR> streams{{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}};
        poll(streams.data(), streams.size(), 0);
        for (size_t stream = 0; stream < streams.size(); ++stream) {
            if ((streams[stream].revents & POLLNVAL) != 0) {
                m_filled[stream] = open_uninterrupted("/dev/null", O_RDWR, 0);
            }
        }
    }
    ~StandardStreams() {
        int const iErrno = errno;
        for (int const fd : m_filled) {
            if (fd >= 0) {
                close(fd);
            }
        }
        errno = iErrno;
    }
    StandardStreams(StandardStreams const&) = delete;
    StandardStreams& operator=(StandardStreams const&) = delete;

private:
    std::array<int, FIRST_DESCRIPTOR> m_filled{-1, -1, -1};
};

// Where the streams could not be filled: the file has the low number for the length of two calls.
int move_up(int fd) {
    int const iMoved = fcntl(fd, F_DUPFD_CLOEXEC, FIRST_DESCRIPTOR);
    int const iErrno = errno;
    close(fd);
    errno = iErrno;
    return iMoved;
}

} // namespace

int open_descriptor(char const* pszPath, int iFlags, mode_t mode) {
    std::lock_guard const lock(g_mutex);
    if (!watch_forks()) {
        errno = ENOMEM;
        return -1;
    }
    StandardStreams const streams;
    int fd = open_uninterrupted(pszPath, iFlags, mode);
    if (fd >= 0 && fd < FIRST_DESCRIPTOR) {
        fd = move_up(fd);
    }
    if (fd >= MOST_DESCRIPTORS) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    if (fd >= 0) {
        enter(fd);
    }
    return fd;
}

int close_descriptor(int fd) {
    take_back_claim(fd);
    leave(fd);
    // The descriptor is gone whatever close says, after EINTR as well.
    return close(fd) == 0 || errno == EINTR ? 0 : errno;
}

} // namespace posix

DWORD PlatformForks() {
    return posix::g_dwForks;
}
