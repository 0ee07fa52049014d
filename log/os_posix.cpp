#include "log/os.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace xkivlog::os {

namespace {

// Numbers 0 to 2 stay free for what the host and its children take them for.
constexpr int kFirstOwnDescriptor = 3;

constinit std::mutex mutex;

// What kind of file the log's own descriptor names. Once it is a pipe or a socket it stays one:
// only standard error may be, and that is the environment's choice, which holds for good.
constinit std::atomic<mode_t> ownMode{0};

int move_above_standard(int descriptor) {
    if (descriptor < 0 || descriptor >= kFirstOwnDescriptor) {
        return descriptor;
    }
    int const moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
    close(descriptor);
    return moved;
}

// Keeps a write from ending the process: a pipe without a reader raises SIGPIPE, a file at the
// limit of its size SIGXFSZ. They are held back only from this thread, and one that came is taken
// away, unless it was there before. What the process does with them stays as the host has it.
class HoldSignals {
public:
    HoldSignals() {
        sigemptyset(&m_held);
        sigaddset(&m_held, SIGPIPE);
        sigaddset(&m_held, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &m_held, &m_before);
        sigpending(&m_pendingBefore);
    }
    ~HoldSignals() {
        for (int const signal : {SIGPIPE, SIGXFSZ}) {
            sigset_t one;
            sigemptyset(&one);
            sigaddset(&one, signal);
            timespec const noTime{};
            if (m_failed && sigismember(&m_pendingBefore, signal) == 0) {
                sigtimedwait(&one, nullptr, &noTime);
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    HoldSignals(HoldSignals const&) = delete;
    HoldSignals& operator=(HoldSignals const&) = delete;

    // A write failed, and may have raised one.
    void write_failed() { m_failed = true; }

private:
    sigset_t m_held, m_before, m_pendingBefore;
    bool m_failed = false;
};

// Whether a write would go through at once: a line is shorter than what a pipe takes in one piece.
// A pipe without a reader counts as ready, so that the write finds that out.
bool is_ready(int descriptor) {
    pollfd asked{descriptor, POLLOUT, 0};
    return poll(&asked, 1, 0) == 1;
}

// Whether a write into such a file could raise a signal.
bool may_raise(mode_t mode) {
    rlimit limit{};
    return S_ISREG(mode) ? getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY
                         : S_ISFIFO(mode);
}

ssize_t write_some(int descriptor, mode_t mode, char const* text, size_t length) {
    if (S_ISSOCK(mode)) {
        return send(descriptor, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    return write(descriptor, text, length);
}

// As write_line, into what has this mode.
bool write_to(int descriptor, mode_t mode, char const* line, size_t length) {
    if (S_ISFIFO(mode) && !is_ready(descriptor)) {
        return true;
    }
    std::optional<HoldSignals> signals;
    if (may_raise(mode)) {
        signals.emplace();
    }
    while (length > 0) {
        ssize_t const written = write_some(descriptor, mode, line, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            bool const gone = errno == EPIPE || errno == ECONNRESET;
            if (signals) {
                signals->write_failed();
            }
            return !gone;
        }
        line += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

} // namespace

PreserveError::PreserveError() : m_error(static_cast<uint64_t>(errno)) {}
PreserveError::~PreserveError() {
    errno = static_cast<int>(m_error);
}

void Mutex::lock() {
    mutex.lock();
}
void Mutex::unlock() {
    mutex.unlock();
}

char const* environment(char const* name) {
    return secure_getenv(name);
}

uint64_t process_id() {
    return static_cast<uint64_t>(getpid());
}

uint64_t thread_id() {
    return static_cast<uint64_t>(gettid());
}

char const* error_text() {
    char const* text = strerrordesc_np(errno);
    return text != nullptr ? text : "unknown error";
}

int open_for_append(char const* path) {
    // Not blocking at the open: that of a pipe without a reader would wait for one.
    int const descriptor = move_above_standard(
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
    if (descriptor < 0) {
        return -1;
    }
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode))) {
        fcntl(descriptor, F_SETFL, O_APPEND);
        ownMode = status.st_mode;
        return descriptor;
    }
    close(descriptor);
    errno = EINVAL;
    return -1;
}

int open_standard_error() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return -1;
    }
    ownMode = status.st_mode;
    if (S_ISFIFO(status.st_mode)) {
        // The pipe once more: here a write may be told not to wait, for which the host's own way of
        // writing would change along with a mere copy.
        int const own = move_above_standard(
            open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (own >= 0) {
            return own;
        }
    }
    return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
}

bool replace(int kept, int fresh) {
    bool const replaced = dup3(fresh, kept, O_CLOEXEC) >= 0;
    close(fresh);
    return replaced;
}

bool write_line(int descriptor, char const* line, size_t length) {
    return write_to(descriptor, ownMode.load(std::memory_order_relaxed), line, length);
}

void complain(char const* line, size_t length) {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) == 0) {
        write_to(STDERR_FILENO, status.st_mode, line, length);
    }
}

FileStamp stamp_of(char const* path) {
    struct stat status {};
    if (stat(path, &status) != 0) {
        return {};
    }
    return {true,
            status.st_dev,
            status.st_ino,
            static_cast<uint64_t>(status.st_size),
            status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

size_t read_start(char const* path, char* buffer, size_t capacity) {
    int const descriptor =
        move_above_standard(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (descriptor < 0) {
        return 0;
    }
    size_t length = 0;
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        while (length < capacity) {
            ssize_t const got = read(descriptor, buffer + length, capacity - length);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            length += static_cast<size_t>(got);
        }
    }
    close(descriptor);
    return length;
}

void to_system_separators(char* path) {
    std::replace(path, path + std::strlen(path), '\\', '/');
}

void around_fork(void (*before)(), void (*inParent)(), void (*inChild)()) {
    pthread_atfork(before, inParent, inChild);
}

} // namespace xkivlog::os
