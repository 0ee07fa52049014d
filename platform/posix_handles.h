// The process-wide table behind the values that the driver holds as HANDLE.
//
// A handle is a place in the table together with the number of its use, never an address: a value
// that is stale, null or made up finds nothing. An object lives until its handle is closed and the
// last call that uses it has returned, so that a close on one thread takes no file from a read on
// another.
#pragma once

#include "platform/platform.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sys/types.h>

namespace posix {

enum class Kind { File, Mapping };

struct FreeMemory {
    void operator()(char* psz) const { free(psz); }
};
using OwnedText = std::unique_ptr<char, FreeMemory>;
using Memory = std::shared_ptr<void>;

struct Object {
    Kind kind = Kind::File;
    int fd = -1;

    // Of a file.
    DWORD dwAccess = 0;
    bool bDeleteOnClose = false;
    bool bNameUnflushed = false; // this handle made the file, and its name is not yet on the disk
    OwnedText pszPath;           // absolute; held only while one of the two above is true
    dev_t device = 0;
    ino_t inode = 0;
    std::mutex mutex; // guards the file pointer, and bNameUnflushed with its path
    int64_t llFileOffset = 0;
    int64_t llBegunOffset = 0; // up to here the disk has begun on what a copy wrote

    // Of a mapping.
    uint64_t ullMappingBytes = 0;
    Memory pMapping;
    bool bViewed = false; // guarded by the table's mutex

    Object() = default;
    Object(Object const&) = delete;
    Object& operator=(Object const&) = delete;
    ~Object(); // closes the descriptor

    // Gives the descriptor back, after the name if the file is to go with its handle. The error
    // number of the close.
    DWORD finish();

    // The table, while the handle is open, and every call in progress. A new one comes under the
    // table's mutex and while the handle is open, so that the count never rises from 0; letting go
    // needs no mutex.
    std::atomic<uint32_t> uHolders = 0;
};

// A place in the table, taken before anything on the disk changes, so that nothing can fail after
// the change. Given back unless published.
class NewHandle {
public:
    explicit NewHandle(Kind kind);
    ~NewHandle();
    NewHandle(NewHandle const&) = delete;
    NewHandle& operator=(NewHandle const&) = delete;

    // NO_ERROR, or why there is no place.
    DWORD error() const { return m_dwError; }
    Object& object() { return *m_pObject; }
    HANDLE publish();
    // The same if all went well so far; else `hFailed`, with the last error set.
    HANDLE publish_after(DWORD dwError, HANDLE hFailed);

private:
    std::unique_ptr<Object> m_pObject;
    uint32_t m_uIndex = 0;
    DWORD m_dwError = NO_ERROR;
    bool m_bPublished = false;
};

// The object behind a handle, for the length of one call.
class ObjectUse {
public:
    ObjectUse(HANDLE handle, Kind kind);
    ~ObjectUse();
    ObjectUse(ObjectUse const&) = delete;
    ObjectUse& operator=(ObjectUse const&) = delete;

    explicit operator bool() const { return m_pObject != nullptr; }
    Object* operator->() const { return m_pObject; }
    Object& operator*() const { return *m_pObject; }

private:
    Object* m_pObject = nullptr;
};

// Takes the handle out of the table. NO_ERROR, or the error number.
DWORD close_handle(HANDLE handle);

// Guards the table.
std::mutex& table_mutex();

// Takes all handles out of the table, whose mutex is held, and leaves their objects, which calls of
// threads may use that a forked child does not have.
void forget_handles();

} // namespace posix
