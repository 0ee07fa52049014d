// The layer over system calls that behave as they do elsewhere or rarely: the definitions here
// stand in for those of the C library.
#include "testing/platform_support.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace {

// What the calls do other than usual.
struct Behaviour {
    bool interruptsAndSplits = false; // pread and pwrite
    int readError = 0;
    int renameError = 0;
    int lockError = 0;               // of both kinds of lock
    unsigned gateTakenByOthers = 0;  // so many times from now on
    std::function<void()> atTheGate; // once, in front of the next try to take it
    bool clockJumps = false;         // a second at each look
    unsigned jumps = 0;

    // What was seen.
    unsigned directoryFlushes = 0;
    unsigned calls = 0;
    bool gateHeld = false;
    unsigned locksSetOutsideTheGate = 0;
};
Behaviour g_behaviour;

int fail_with(int error) {
    errno = error;
    return -1;
}

// The number of bytes that a transfer moves; -1 with EINTR every second time.
ssize_t split(size_t bytes, int error = 0) {
    if (error != 0) {
        return fail_with(error);
    }
    if (!g_behaviour.interruptsAndSplits) {
        return static_cast<ssize_t>(bytes);
    }
    return ++g_behaviour.calls % 2 == 1 ? fail_with(EINTR)
                                        : static_cast<ssize_t>(std::min<size_t>(bytes, 3));
}

} // namespace

extern "C" {

ssize_t pread(int fd, void* buffer, size_t bytes, off_t fileOffset) {
    ssize_t const piece = split(bytes, g_behaviour.readError);
    return piece < 0 ? piece : syscall(SYS_pread64, fd, buffer, piece, fileOffset);
}

ssize_t pwrite(int fd, void const* buffer, size_t bytes, off_t fileOffset) {
    ssize_t const piece = split(bytes);
    return piece < 0 ? piece : syscall(SYS_pwrite64, fd, buffer, piece, fileOffset);
}

int renameat2(int oldDirectory, char const* oldPath, int newDirectory, char const* newPath,
              unsigned flags) noexcept {
    if (g_behaviour.renameError != 0) {
        return fail_with(g_behaviour.renameError);
    }
    return static_cast<int>(
        syscall(SYS_renameat2, oldDirectory, oldPath, newDirectory, newPath, flags));
}

// Under another name here, since a type has the name of the call.
int flock_call(int fd, int operation) __asm__("flock");
int flock_call(int fd, int operation) {
    if (g_behaviour.lockError != 0) {
        return fail_with(g_behaviour.lockError);
    }
    if (operation == LOCK_UN) {
        g_behaviour.gateHeld = false;
    } else {
        if (g_behaviour.atTheGate) {
            std::exchange(g_behaviour.atTheGate, nullptr)();
        }
        if (g_behaviour.gateTakenByOthers != 0) {
            --g_behaviour.gateTakenByOthers;
            return fail_with(EWOULDBLOCK);
        }
        g_behaviour.gateHeld = true;
    }
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (command == F_OFD_SETLK || command == F_OFD_GETLK) {
        if (g_behaviour.lockError != 0) {
            return fail_with(g_behaviour.lockError);
        }
        bool const bSets = static_cast<struct flock const*>(argument)->l_type != F_UNLCK;
        g_behaviour.locksSetOutsideTheGate += bSets && !g_behaviour.gateHeld ? 1 : 0;
    }
    return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    int const result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (g_behaviour.clockJumps) {
        time->tv_sec += ++g_behaviour.jumps;
    }
    return result;
}

int fsync(int fd) {
    struct stat status {};
    if (fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        ++g_behaviour.directoryFlushes;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}
}

namespace {

class PlatformCalls : public PlatformTest {
protected:
    PlatformCalls() { g_behaviour = {}; }
    ~PlatformCalls() override { g_behaviour = {}; }
};

TEST_F(PlatformCalls, TransfersGoOnAfterInterruptionsAndShortPieces) {
    g_behaviour.interruptsAndSplits = true;
    make_file(a, "0123456789");
    EXPECT_EQ(text_of(a), "0123456789");
    EXPECT_GE(g_behaviour.calls, 16u);
    g_behaviour.readError = EIO;
    EXPECT_EQ(text_of(a), "error 1117");
}

TEST_F(PlatformCalls, RenamingWhereNothingRenamesWithoutReplacing) {
    make_file(a, "a");
    make_file(b, "b");
    for (int const error : {EINVAL, ENOSYS}) {
        g_behaviour.renameError = error;
        EXPECT_EQ(rename_error(a, b), 183u);
        EXPECT_EQ(text_of(a) + text_of(b), "ab");
        EXPECT_EQ(rename_error(a, path("c")), 0u);
        EXPECT_EQ(rename_error(path("c"), a), 0u);
        EXPECT_FALSE(std::filesystem::exists(path("c")));
        EXPECT_EQ(text_of(a), "a");
    }
}

TEST_F(PlatformCalls, WhereThereAreNoLocksFilesStillOpen) {
    for (int const error : {ENOLCK, EOPNOTSUPP, EINVAL}) {
        g_behaviour.lockError = error;
        make_file(a, "old");
        {
            Opened const alone(a, READ, 0);
            EXPECT_EQ(text_of(a), "old") << error;
        }
        EXPECT_EQ(remove_error(a), 0u);
    }
}

TEST_F(PlatformCalls, TheGateIsWaitedForAndLeft) {
    g_behaviour.gateTakenByOthers = 5;
    make_file(a, "old");
    EXPECT_EQ(g_behaviour.gateTakenByOthers, 0u);
    EXPECT_FALSE(g_behaviour.gateHeld);
    EXPECT_EQ(rename_error(a, b), 0u);
    EXPECT_EQ(rename_error(b, a), 0u);
    EXPECT_EQ(g_behaviour.locksSetOutsideTheGate, 0u);
    // One who never leaves it is waited for, but not for ever.
    g_behaviour.clockJumps = true;
    g_behaviour.gateTakenByOthers = 1000;
    EXPECT_EQ(open_error(a, READ_WRITE, 0, 2), 32u);
    EXPECT_EQ(remove_error(a), 32u);
    EXPECT_GT(g_behaviour.gateTakenByOthers, 900u);
    g_behaviour = {};
    EXPECT_EQ(text_of(a), "old");
}

TEST_F(PlatformCalls, AFileThatTakesTheNameMeanwhileIsTheOneThatCounts) {
    for (auto const& attempt : std::vector<std::function<DWORD()>>{
             [this] { return remove_error(a); },
             [this] { return rename_error(a, path("c")); },
             [this] { return open_error(a, READ_WRITE, 0); },
             [this] { return open_error(a, READ_WRITE, 0, 2); },
         }) {
        make_file(a, "old");
        make_file(b, "new");
        Opened const held(b, READ, 3);
        g_behaviour.atTheGate = [this] { std::filesystem::rename(b, a); };
        EXPECT_EQ(attempt(), 32u);
        EXPECT_EQ(text_of(a), "new");
    }
}

TEST_F(PlatformCalls, AFlushBringsANewNameToTheDiskOnce) {
    for (DWORD const disposition : {1u, 2u}) {
        Opened const file(a, READ_WRITE, 0, disposition);
        EXPECT_TRUE(FlushFileBuffers(file));
        EXPECT_TRUE(FlushFileBuffers(file));
        EXPECT_EQ(g_behaviour.directoryFlushes, 1u);
    }
}

} // namespace
