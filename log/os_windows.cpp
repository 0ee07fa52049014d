#include "log/os.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <array>
#include <cerrno>

namespace xkivlog::os {

namespace {

// A descriptor is an index into this. The log has one for good and a second for the moment in which
// it changes the place it writes to.
constexpr int kDescriptors = 2;
constinit std::array<HANDLE, kDescriptors> handles{};

// Shared by those who write, exclusive for who opens or replaces.
constinit SRWLOCK lock = SRWLOCK_INIT;

constinit SRWLOCK mutex = SRWLOCK_INIT;

// Keeps the library in the process: an unload would take away the code under a thread that logs,
// and each load anew would lose one handle.
void stay_loaded() {
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCSTR>(&handles), &self);
}

// -1 if the handle is none or there is no room; it is closed then.
int add(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
        return -1;
    }
    stay_loaded();
    AcquireSRWLockExclusive(&lock);
    int descriptor = 0;
    while (descriptor < kDescriptors && handles[static_cast<size_t>(descriptor)] != nullptr) {
        ++descriptor;
    }
    if (descriptor < kDescriptors) {
        handles[static_cast<size_t>(descriptor)] = handle;
    }
    ReleaseSRWLockExclusive(&lock);
    if (descriptor < kDescriptors) {
        return descriptor;
    }
    CloseHandle(handle);
    return -1;
}

void write_to(HANDLE handle, char const* line, size_t length) {
    while (length > 0) {
        DWORD written = 0;
        if (!WriteFile(handle, line, static_cast<DWORD>(length), &written, nullptr) ||
            written == 0) {
            return;
        }
        line += written;
        length -= written;
    }
}

} // namespace

PreserveError::PreserveError()
    : m_error(static_cast<uint64_t>(GetLastError()) << 32 | static_cast<uint32_t>(errno)) {}
PreserveError::~PreserveError() {
    errno = static_cast<int>(static_cast<uint32_t>(m_error));
    SetLastError(static_cast<DWORD>(m_error >> 32));
}

void Mutex::lock() {
    AcquireSRWLockExclusive(&mutex);
}
void Mutex::unlock() {
    ReleaseSRWLockExclusive(&mutex);
}

char const* environment(char const* name) {
    // Asked once for a process. The C library's copy of the environment would not do: it is from
    // before the host's last changes.
    static char value[32768];
    DWORD const length = GetEnvironmentVariableA(name, value, sizeof value);
    return length > 0 && length < sizeof value ? value : nullptr;
}

uint64_t process_id() {
    return GetCurrentProcessId();
}

uint64_t thread_id() {
    return GetCurrentThreadId();
}

char const* error_text() {
    static char text[256];
    DWORD const length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                                            FORMAT_MESSAGE_MAX_WIDTH_MASK, // no line ends
                                        nullptr, GetLastError(), 0, text, sizeof text, nullptr);
    return length > 0 ? text : "unknown error";
}

namespace {

// A write into a pipe that nobody reads waits for ever, and would stop the host.
bool may_take(HANDLE handle) {
    DWORD const type = GetFileType(handle);
    return type == FILE_TYPE_DISK || type == FILE_TYPE_CHAR;
}

} // namespace

int open_for_append(char const* path) {
    // The right to append and no other makes each write go to the end in one step, also between
    // processes.
    HANDLE const handle =
        CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return -1;
    }
    if (may_take(handle)) {
        return add(handle);
    }
    CloseHandle(handle);
    SetLastError(ERROR_BAD_PATHNAME);
    return -1;
}

int open_standard_error() {
    HANDLE copy = nullptr;
    HANDLE const standardError = GetStdHandle(STD_ERROR_HANDLE);
    if (standardError == nullptr || standardError == INVALID_HANDLE_VALUE ||
        !may_take(standardError) ||
        !DuplicateHandle(GetCurrentProcess(), standardError, GetCurrentProcess(), &copy, 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
        return -1;
    }
    return add(copy);
}

bool replace(int kept, int fresh) {
    AcquireSRWLockExclusive(&lock);
    HANDLE const old = handles[static_cast<size_t>(kept)];
    handles[static_cast<size_t>(kept)] = handles[static_cast<size_t>(fresh)];
    handles[static_cast<size_t>(fresh)] = nullptr;
    ReleaseSRWLockExclusive(&lock);
    CloseHandle(old);
    return true;
}

bool write_line(int descriptor, char const* line, size_t length) {
    AcquireSRWLockShared(&lock);
    write_to(handles[static_cast<size_t>(descriptor)], line, length);
    ReleaseSRWLockShared(&lock);
    return true; // none of its places has a reader that can go
}

void complain(char const* line, size_t length) {
    HANDLE const standardError = GetStdHandle(STD_ERROR_HANDLE);
    if (may_take(standardError)) {
        write_to(standardError, line, length);
    }
}

FileStamp stamp_of(char const* path) {
    HANDLE const file = CreateFileA(path, FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return {};
    }
    BY_HANDLE_FILE_INFORMATION status;
    FileStamp stamp;
    if (GetFileInformationByHandle(file, &status)) {
        stamp = {true,
                 status.dwVolumeSerialNumber,
                 static_cast<uint64_t>(status.nFileIndexHigh) << 32 | status.nFileIndexLow,
                 static_cast<uint64_t>(status.nFileSizeHigh) << 32 | status.nFileSizeLow,
                 static_cast<int64_t>(status.ftLastWriteTime.dwHighDateTime),
                 static_cast<int64_t>(status.ftLastWriteTime.dwLowDateTime)};
    }
    CloseHandle(file);
    return stamp;
}

size_t read_start(char const* path, char* buffer, size_t capacity) {
    HANDLE const file =
        CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return 0;
    }
    DWORD length = 0;
    if (GetFileType(file) != FILE_TYPE_DISK ||
        !ReadFile(file, buffer, static_cast<DWORD>(capacity), &length, nullptr)) {
        length = 0;
    }
    CloseHandle(file);
    return length;
}

// The system takes both.
void to_system_separators(char*) {}

// There is no fork.
void around_fork(void (*)(), void (*)(), void (*)()) {}

} // namespace xkivlog::os
