#include "platform/posix_locks.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

namespace posix {
namespace {

// The lock bytes. Their order makes both what the usual opens look for and what they set one or two
// runs of neighbouring bytes, each of which is one system call.
constexpr off_t FIRST_LOCK_BYTE = off_t{1} << 62;
constexpr unsigned PRESENT = 1u << 0;
constexpr unsigned READS = 1u << 1;
constexpr unsigned WRITES = 1u << 2;
constexpr unsigned REMOVES = 1u << 3;
constexpr unsigned DENIES_READ = 1u << 4;
constexpr unsigned DENIES_WRITE = 1u << 5;
constexpr unsigned DENIES_REMOVAL = 1u << 6;
constexpr unsigned LOCK_BYTES = 7;
constexpr unsigned ALL = (1u << LOCK_BYTES) - 1;
constexpr unsigned FROM_ACCESS_TO_DENIAL = 3;

constexpr unsigned ACCESSES = READS | WRITES | REMOVES;
static_assert(READS << FROM_ACCESS_TO_DENIAL == DENIES_READ);
static_assert(WRITES << FROM_ACCESS_TO_DENIAL == DENIES_WRITE);
static_assert(REMOVES << FROM_ACCESS_TO_DENIAL == DENIES_REMOVAL);

struct LockBytes {
    unsigned held;
    unsigned sought; // of others: any of them is a conflict
};

unsigned accesses_of(Claim const& wanted) {
    return ((wanted.dwAccess & GENERIC_READ) != 0 ? READS : 0) |
           ((wanted.dwAccess & GENERIC_WRITE) != 0 ? WRITES : 0) | (wanted.bRemoves ? REMOVES : 0);
}

unsigned shared_accesses_of(Claim const& wanted) {
    return ((wanted.dwShare & FILE_SHARE_READ) != 0 ? READS : 0) |
           ((wanted.dwShare & FILE_SHARE_WRITE) != 0 ? WRITES : 0) |
           ((wanted.dwShare & FILE_SHARE_DELETE) != 0 ? REMOVES : 0);
}

LockBytes lock_bytes_of(Claim const& wanted) {
    if (wanted.bWholeFileAlone) {
        return {REMOVES | ACCESSES << FROM_ACCESS_TO_DENIAL, ALL};
    }
    unsigned const accesses = accesses_of(wanted);
    // A handle without any access denies nothing and is denied nothing, as on the platform.
    unsigned const denied = accesses == 0 ? 0 : ACCESSES & ~shared_accesses_of(wanted);
    unsigned const needed = accesses | (wanted.bEmpties ? WRITES : 0);
    return {PRESENT | accesses | denied << FROM_ACCESS_TO_DENIAL,
            denied | needed << FROM_ACCESS_TO_DENIAL};
}

struct flock range_lock(short type, unsigned firstByte, unsigned byteCount) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = FIRST_LOCK_BYTE + firstByte;
    lock.l_len = byteCount;
    return lock;
}

// Calls the function with the first byte and the length of each run of set bits, until one of the
// calls returns false. Whether all returned true.
template <typename Function> bool for_each_run(unsigned bytes, Function function) {
    for (unsigned first = 0; first < LOCK_BYTES;) {
        if ((bytes >> first & 1u) == 0) {
            ++first;
            continue;
        }
        unsigned end = first;
        while ((bytes >> end & 1u) != 0) {
            ++end;
        }
        if (!function(first, end - first)) {
            return false;
        }
        first = end;
    }
    return true;
}

int lock_call(int fd, int command, struct flock& lock) {
    int result;
    do {
        result = fcntl(fd, command, &lock);
    } while (result != 0 && errno == EINTR);
    return result;
}

// Whether flock on this file is a lock of its own. Where a remote file system makes a byte-range
// lock over the whole file of it, it would run into the share locks, and releasing it would release
// those.
bool has_own_flock(int fd, struct stat const& status) {
    constexpr unsigned NFS = 0x6969;
    constexpr unsigned CIFS = 0xFF534D42;
    constexpr unsigned SMB2 = 0xFE534D42;
    constexpr unsigned PLAN9 = 0x01021997;
    if (major(status.st_dev) != 0) { // a block device stands behind it: a local file system
        return true;
    }
    struct statfs fileSystem {};
    if (fstatfs(fd, &fileSystem) != 0) {
        return false;
    }
    unsigned const type = static_cast<unsigned>(fileSystem.f_type);
    return type != NFS && type != CIFS && type != SMB2 && type != PLAN9;
}

int64_t milliseconds_now() {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace

Gate::Gate(int fd, struct stat const& status) : m_fd(fd) {
    constexpr int64_t LONGEST_WAIT_MS = 2000;
    constexpr long PAUSE_NS = 200000;
    if (!has_own_flock(fd, status)) {
        m_bPassed = true;
        return;
    }
    int64_t llFirstTryMs = -1;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) {
            continue;
        }
        if (errno != EWOULDBLOCK) { // a file system without it
            m_bPassed = true;
            return;
        }
        int64_t const llNowMs = milliseconds_now();
        if (llFirstTryMs < 0) {
            llFirstTryMs = llNowMs;
        }
        if (llNowMs - llFirstTryMs >= LONGEST_WAIT_MS) {
            return;
        }
        struct timespec const pause{0, PAUSE_NS};
        nanosleep(&pause, nullptr);
    }
    m_bHeld = true;
    m_bPassed = true;
}

Gate::~Gate() {
    if (m_bHeld) {
        flock(m_fd, LOCK_UN);
    }
}

DWORD claim(int fd, Claim const& wanted) {
    LockBytes const bytes = lock_bytes_of(wanted);
    bool bGuarded = true;
    bool const bSet = for_each_run(bytes.held, [&](unsigned first, unsigned count) {
        struct flock lock = range_lock(F_RDLCK, first, count);
        if (lock_call(fd, F_OFD_SETLK, lock) == 0) {
            return true;
        }
        // Nothing in this layer sets a lock that a shared one could meet.
        bGuarded = errno == EAGAIN || errno == EACCES;
        return false;
    });
    if (!bSet) {
        return bGuarded ? ERROR_SHARING_VIOLATION : NO_ERROR;
    }
    return test_claim(fd, wanted);
}

DWORD test_claim(int fd, Claim const& wanted) {
    bool const bFree =
        for_each_run(lock_bytes_of(wanted).sought, [&](unsigned first, unsigned count) {
            struct flock lock = range_lock(F_WRLCK, first, count);
            return lock_call(fd, F_OFD_GETLK, lock) != 0 || lock.l_type == F_UNLCK;
        });
    return bFree ? NO_ERROR : ERROR_SHARING_VIOLATION;
}

void take_back_claim(int fd) {
    struct flock lock = range_lock(F_UNLCK, 0, LOCK_BYTES);
    lock_call(fd, F_OFD_SETLK, lock);
}

} // namespace posix
