// Reading, writing and the file pointer, which lives in the handle: moving it costs no system call.
#include "platform/platform.h"
#include "platform/posix_descriptors.h"
#include "platform/posix_errors.h"
#include "platform/posix_handles.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace posix {
namespace {

constexpr size_t COPY_PIECE_BYTES = size_t{1} << 20;
constexpr size_t LARGEST_PIECE_BYTES = size_t{1} << 30; // one call moves less than 2 GiB

// Checks, for a call on a file handle, that it is one and has the access. NO_ERROR, or the error.
DWORD check(ObjectUse const& file, DWORD dwAccessNeeded) {
    if (!file) {
        return ERROR_INVALID_HANDLE;
    }
    return (file->dwAccess & dwAccessNeeded) == dwAccessNeeded ? NO_ERROR : ERROR_ACCESS_DENIED;
}

// The limit on the size of files that the process makes. The system answers what goes beyond it
// with a signal that ends the process, so it is never asked.
int64_t largest_file_bytes() {
    constexpr int64_t UNLIMITED = std::numeric_limits<int64_t>::max();
    struct rlimit limit {};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur > rlim_t{UNLIMITED}) {
        return UNLIMITED;
    }
    return static_cast<int64_t>(limit.rlim_cur);
}

// How many of the bytes may be written at the offset under the limit.
size_t bytes_within_limit(int64_t llFileOffset, size_t bytes) {
    int64_t const llRoom = largest_file_bytes() - llFileOffset;
    return llRoom <= 0 ? 0 : std::min(bytes, static_cast<size_t>(llRoom));
}

// pwrite, in which the limit is a full disk.
ssize_t write_at(int fd, void const* pBytes, size_t bytes, int64_t llFileOffset) {
    size_t const allowed = bytes_within_limit(llFileOffset, bytes);
    if (allowed != 0) {
        return pwrite(fd, pBytes, allowed, llFileOffset);
    }
    errno = ENOSPC;
    return -1;
}

// ftruncate, likewise.
int set_size(int fd, int64_t llFileBytes) {
    if (llFileBytes > largest_file_bytes()) {
        struct stat status {};
        if (fstat(fd, &status) != 0) {
            return -1;
        }
        if (status.st_size < llFileBytes) {
            errno = ENOSPC;
            return -1;
        }
    }
    return ftruncate(fd, llFileBytes);
}

// Moves bytes piece by piece with pread or pwrite and the file pointer along with them. Ends early
// where a piece moves nothing.
template <typename Transfer>
DWORD transfer_at_pointer(Object& file, DWORD dwBytesAsked, DWORD& dwBytesMoved,
                          Transfer transfer) {
    std::lock_guard const lock(file.mutex);
    while (dwBytesMoved < dwBytesAsked) {
        size_t const pieceBytes =
            std::min<size_t>(dwBytesAsked - dwBytesMoved, LARGEST_PIECE_BYTES);
        ssize_t const moved = transfer(file.fd, dwBytesMoved, pieceBytes, file.llFileOffset);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved < 0) {
            return error_of(errno);
        }
        if (moved == 0) {
            break;
        }
        dwBytesMoved += static_cast<DWORD>(moved);
        file.llFileOffset += moved;
    }
    return NO_ERROR;
}

DWORD file_size(int fd, int64_t& llFileBytes) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return error_of(errno);
    }
    llFileBytes = status.st_size;
    return NO_ERROR;
}

// Gives the low half of a 64-bit result. The one value that also stands for failure is told from it
// by a last error of 0.
DWORD low_half(int64_t llValue) {
    DWORD const dwLow = static_cast<DWORD>(static_cast<uint64_t>(llValue));
    if (dwLow == INVALID_SET_FILE_POINTER) {
        SetLastError(NO_ERROR);
    }
    return dwLow;
}

DWORD high_half(int64_t llValue) {
    return static_cast<DWORD>(static_cast<uint64_t>(llValue) >> 32);
}

// Moves the file pointer. With `bNarrow` the result must be below 4 GiB.
DWORD move_pointer(Object& file, int64_t llDistance, DWORD dwMethod, bool bNarrow,
                   int64_t& llResult) {
    std::lock_guard const lock(file.mutex);
    int64_t llStart = 0;
    if (dwMethod == FILE_CURRENT) {
        llStart = file.llFileOffset;
    } else if (dwMethod == FILE_END) {
        DWORD const dwError = file_size(file.fd, llStart);
        if (dwError != NO_ERROR) {
            return dwError;
        }
    } else if (dwMethod != FILE_BEGIN) {
        return ERROR_INVALID_PARAMETER;
    }
    if (llDistance > std::numeric_limits<int64_t>::max() - llStart) {
        return ERROR_INVALID_PARAMETER;
    }
    llResult = llStart + llDistance;
    if (llResult < 0) {
        return ERROR_NEGATIVE_SEEK;
    }
    if (bNarrow && llResult > std::numeric_limits<DWORD>::max()) {
        return ERROR_INVALID_PARAMETER;
    }
    file.llFileOffset = llResult;
    return NO_ERROR;
}

// Brings a directory entry to the disk. Where the directory may not be read, or its file system has
// no such call, flushing the file whole is all there is, and on the usual file systems that takes
// the name of a new file along.
DWORD flush_name(int fd, char const* pszPath) {
    Descriptor const directory(open_descriptor(Folder(pszPath).name(), O_RDONLY | O_DIRECTORY));
    bool bFlushed = false;
    int iErrno = EINVAL;
    if (directory.get() >= 0) {
        bFlushed = fsync(directory.get()) == 0;
        iErrno = errno;
    }
    if (bFlushed) {
        return NO_ERROR;
    }
    if (iErrno != EINVAL) {
        return error_of(iErrno);
    }
    return fsync(fd) == 0 ? NO_ERROR : error_of(errno);
}

DWORD flush(Object& file) {
    if (fdatasync(file.fd) != 0) {
        return error_of(errno);
    }
    std::lock_guard const lock(file.mutex);
    if (!file.bNameUnflushed) {
        return NO_ERROR;
    }
    DWORD const dwError = flush_name(file.fd, file.pszPath.get());
    if (dwError != NO_ERROR) {
        return dwError;
    }
    file.bNameUnflushed = false;
    if (!file.bDeleteOnClose) {
        file.pszPath.reset();
    }
    return NO_ERROR;
}

constexpr int64_t PAGE_BYTES = 4096;

// Copies a piece at both file pointers and moves them. What copy_file_range says of bytes moved, or
// of a failure.
ssize_t copy_piece(Object& from, Object& to, size_t pieceBytes, char* pBuffer) {
    // The system then copies whole pages, or shares them between the files. Pages that it had to
    // put together from two, it would copy one by one, at half the speed of a large read and write.
    if ((from.llFileOffset - to.llFileOffset) % PAGE_BYTES == 0) {
        return copy_file_range(from.fd, &from.llFileOffset, to.fd, &to.llFileOffset, pieceBytes, 0);
    }
    ssize_t moved = pread(from.fd, pBuffer, pieceBytes, from.llFileOffset);
    if (moved > 0) {
        moved = pwrite(to.fd, pBuffer, static_cast<size_t>(moved), to.llFileOffset);
    }
    if (moved > 0) {
        from.llFileOffset += moved;
        to.llFileOffset += moved;
    }
    return moved;
}

// The disk begins now, not when the flush that follows waits for it: on large pieces of whole
// pages, since a page that is written to while the disk has it, the disk gets again. A refusal is
// no loss.
void begin_flush(Object& to) {
    int64_t const llWholePages = to.llFileOffset - to.llFileOffset % PAGE_BYTES;
    int64_t const llBytes = llWholePages - to.llBegunOffset;
    if (llBytes >= static_cast<int64_t>(COPY_PIECE_BYTES)) {
        sync_file_range(to.fd, to.llBegunOffset, llBytes, SYNC_FILE_RANGE_WRITE);
        to.llBegunOffset = llWholePages;
    }
}

// Copies at both file pointers, whose mutexes are held, until a piece moves nothing or fails.
DWORD copy_at_pointers(Object& from, Object& to, DWORD dwBytesAsked) {
    size_t const bytesAllowed = bytes_within_limit(to.llFileOffset, dwBytesAsked);
    std::unique_ptr<char[]> const buffer(
        new (std::nothrow) char[std::min(bytesAllowed, COPY_PIECE_BYTES)]);
    DWORD dwBytesMoved = 0;
    while (buffer != nullptr && dwBytesMoved < bytesAllowed) {
        size_t const pieceBytes = std::min(bytesAllowed - dwBytesMoved, COPY_PIECE_BYTES);
        ssize_t const moved = copy_piece(from, to, pieceBytes, buffer.get());
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            break;
        }
        dwBytesMoved += static_cast<DWORD>(moved);
        begin_flush(to);
    }
    return dwBytesMoved;
}

} // namespace
} // namespace posix

BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPVOID /*lpOverlapped*/) {
    DWORD dwBytesRead = 0;
    posix::ObjectUse const file(hFile, posix::Kind::File);
    DWORD dwError = posix::check(file, GENERIC_READ);
    if (dwError == NO_ERROR) {
        dwError = posix::transfer_at_pointer(
            *file, nNumberOfBytesToRead, dwBytesRead,
            [lpBuffer](int fd, DWORD dwDone, size_t bytes, int64_t llFileOffset) {
                return pread(fd, static_cast<char*>(lpBuffer) + dwDone, bytes, llFileOffset);
            });
    }
    if (lpNumberOfBytesRead != nullptr) {
        *lpNumberOfBytesRead = dwBytesRead;
    }
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}

BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPVOID /*lpOverlapped*/) {
    DWORD dwBytesWritten = 0;
    posix::ObjectUse const file(hFile, posix::Kind::File);
    DWORD dwError = posix::check(file, GENERIC_WRITE);
    if (dwError == NO_ERROR && nNumberOfBytesToWrite != 0) {
        dwError = posix::transfer_at_pointer(
            *file, nNumberOfBytesToWrite, dwBytesWritten,
            [lpBuffer](int fd, DWORD dwDone, size_t bytes, int64_t llFileOffset) {
                return posix::write_at(fd, static_cast<char const*>(lpBuffer) + dwDone, bytes,
                                       llFileOffset);
            });
    }
    if (lpNumberOfBytesWritten != nullptr) {
        *lpNumberOfBytesWritten = dwBytesWritten;
    }
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}

DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod) {
    bool const bNarrow = lpDistanceToMoveHigh == nullptr;
    int64_t llDistance = lDistanceToMove;
    if (!bNarrow) {
        llDistance = static_cast<int64_t>(static_cast<uint64_t>(*lpDistanceToMoveHigh) << 32 |
                                          static_cast<uint32_t>(lDistanceToMove));
    }
    posix::ObjectUse const file(hFile, posix::Kind::File);
    int64_t llResult = 0;
    DWORD dwError = posix::check(file, 0);
    if (dwError == NO_ERROR) {
        dwError = posix::move_pointer(*file, llDistance, dwMoveMethod, bNarrow, llResult);
    }
    if (dwError != NO_ERROR) {
        posix::fail(dwError);
        return INVALID_SET_FILE_POINTER;
    }
    if (!bNarrow) {
        *lpDistanceToMoveHigh = static_cast<LONG>(posix::high_half(llResult));
    }
    return posix::low_half(llResult);
}

BOOL WINAPI SetEndOfFile(HANDLE hFile) {
    posix::ObjectUse const file(hFile, posix::Kind::File);
    DWORD const dwError = posix::check(file, GENERIC_WRITE);
    if (dwError != NO_ERROR) {
        return posix::fail(dwError);
    }
    std::lock_guard const lock(file->mutex);
    int result;
    do {
        result = posix::set_size(file->fd, file->llFileOffset);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? TRUE : posix::fail(posix::error_of(errno));
}

DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    posix::ObjectUse const file(hFile, posix::Kind::File);
    int64_t llFileBytes = 0;
    DWORD dwError = posix::check(file, 0);
    if (dwError == NO_ERROR) {
        dwError = posix::file_size(file->fd, llFileBytes);
    }
    if (dwError != NO_ERROR) {
        posix::fail(dwError);
        return INVALID_FILE_SIZE;
    }
    if (lpFileSizeHigh != nullptr) {
        *lpFileSizeHigh = posix::high_half(llFileBytes);
    }
    return posix::low_half(llFileBytes);
}

BOOL WINAPI FlushFileBuffers(HANDLE hFile) {
    posix::ObjectUse const file(hFile, posix::Kind::File);
    DWORD dwError = posix::check(file, GENERIC_WRITE);
    if (dwError == NO_ERROR) {
        dwError = posix::flush(*file);
    }
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}

DWORD PlatformCopyBytes(HANDLE hFrom, HANDLE hTo, DWORD dwBytes) {
    posix::ObjectUse const from(hFrom, posix::Kind::File);
    posix::ObjectUse const to(hTo, posix::Kind::File);
    if (posix::check(from, GENERIC_READ) != NO_ERROR ||
        posix::check(to, GENERIC_WRITE) != NO_ERROR || &*from == &*to) {
        return 0;
    }
    std::scoped_lock const lock(from->mutex, to->mutex);
    return posix::copy_at_pointers(*from, *to, dwBytes);
}

bool PlatformMayPass(LPCSTR /*pszPath*/, DWORD dwError) {
    return dwError == ERROR_SHARING_VIOLATION;
}

bool PlatformIsNameLingering(LPCSTR /*pszPath*/) {
    return false;
}

bool PlatformIsReadOnly(LPCSTR /*pszPath*/) {
    return false;
}

BOOL PlatformSetReadOnly(LPCSTR /*pszPath*/) {
    return TRUE;
}
