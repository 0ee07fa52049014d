// What the log needs of the operating system beyond standard C++. The driver's platform layer is
// not used: it is traced through this library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace xkivlog::os {

// Keeps the calling thread's error numbers across a log call: a caller may log first and ask after.
class PreserveError {
public:
    PreserveError();
    ~PreserveError();
    PreserveError(PreserveError const&) = delete;
    PreserveError& operator=(PreserveError const&) = delete;

private:
    uint64_t m_error; // in a form of the system's own
};

// The one mutex of the log. It has no constructor or destructor that runs, and so works before the
// first and after the last.
struct Mutex {
    void lock();
    void unlock();
};

// The variable's value, or null. Also null in a process that runs with rights its caller does not
// have: the caller must not choose a file that those rights write.
char const* environment(char const* name);

uint64_t process_id();
uint64_t thread_id();

// The system's text for the calling thread's error number. Never null. The next call may overwrite
// it: call this only under the mutex.
char const* error_text();

// A descriptor that appends to the file, made if need be, and that no program started later
// inherits; or -1. Only plain files and character devices: a pipe could block the host or end it.
int open_for_append(char const* path);

// A descriptor of the log's own for standard error, or -1. A copy, because number 2 may come to
// name a file of the host once the host closes its standard error. On Windows -1 for a pipe.
int open_standard_error();

// Makes `kept` name what `fresh` names, in one step, so that a thread that writes to `kept` at that
// moment reaches the old file or the new one and no other. Closes `fresh`.
bool replace(int kept, int fresh);

// One write for the whole line, of kMaxLine bytes at most, where the system permits. A line that a
// full pipe, a full disk or a limit does not let through is dropped: this never waits for the
// reader of a pipe or a socket, and no signal comes of it. False if nobody reads it any more, and
// nobody ever will.
bool write_line(int descriptor, char const* line, size_t length);

// Writes to standard error as it stands; on Windows not into a pipe.
void complain(char const* line, size_t length);

// Says whether a file is still the one that was read.
struct FileStamp {
    bool exists = false;
    uint64_t device = 0;
    uint64_t file = 0;
    uint64_t size = 0;
    int64_t modifiedSeconds = 0;
    int64_t modifiedNanoseconds = 0;
    bool operator==(FileStamp const&) const = default;
};
FileStamp stamp_of(char const* path);

// Reads at most `capacity` bytes from the start of a plain file. 0 if that fails.
size_t read_start(char const* path, char* buffer, size_t capacity);

// Puts '/' for each '\' where the system knows only the first as a separator.
void to_system_separators(char* path);

// Runs the three around each fork of this process from now on.
void around_fork(void (*before)(), void (*inParent)(), void (*inChild)());

} // namespace xkivlog::os
