#include "log/os.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace xkivlog::os {

namespace {

// Numbers 0 to 2 stay free for what the host and its children take them for.
constexpr int kFirstOwnDescriptor = 3;

constinit std::mutex mutex;

int move_above_standard(int descriptor) {
    if (descriptor < 0 || descriptor >= kFirstOwnDescriptor)
        return descriptor;
    int const moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
    close(descriptor);
    return moved;
}

} // namespace

PreserveError::PreserveError() : error_(static_cast<uint64_t>(errno)) {}
PreserveError::~PreserveError() {
    errno = static_cast<int>(error_);
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
    if (descriptor < 0)
        return -1;
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode))) {
        fcntl(descriptor, F_SETFL, O_APPEND);
        return descriptor;
    }
    close(descriptor);
    errno = EINVAL;
    return -1;
}

int open_standard_error() {
    return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
}

bool replace(int kept, int fresh) {
    bool const replaced = dup3(fresh, kept, O_CLOEXEC) >= 0;
    close(fresh);
    return replaced;
}

void write_line(int descriptor, char const* line, size_t length) {
    while (length > 0) {
        ssize_t const written = write(descriptor, line, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        line += written;
        length -= static_cast<size_t>(written);
    }
}

void complain(char const* line, size_t length) {
    write_line(STDERR_FILENO, line, length);
}

FileStamp stamp_of(char const* path) {
    struct stat status {};
    if (stat(path, &status) != 0)
        return {};
    return {true,
            status.st_dev,
            status.st_ino,
            static_cast<uint64_t>(status.st_size),
            status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

size_t read_start(char const* path, char* buffer, size_t capacity) {
    int const descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor < 0)
        return 0;
    size_t length = 0;
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        while (length < capacity) {
            ssize_t const got = read(descriptor, buffer + length, capacity - length);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break;
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
