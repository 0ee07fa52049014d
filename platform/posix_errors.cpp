#include "platform/posix_errors.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>

namespace posix {
namespace {

// A plain number without a destructor: it does not keep the library from being unloaded.
thread_local DWORD t_dwLastError = NO_ERROR;

bool is_directory(char const* pszPath) {
    struct stat status {};
    return stat(pszPath, &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether the directory that is to hold the last component is there.
bool has_directory(char const* pszPath) {
    size_t const length = directory_length(pszPath);
    if (length == 0) {
        return is_directory(".");
    }
    std::array<char, PATH_MAX + 1> directory;
    if (length >= directory.size()) {
        return false;
    }
    memcpy(directory.data(), pszPath, length);
    directory[length] = '\0';
    return is_directory(directory.data());
}

} // namespace

size_t directory_length(char const* pszPath) {
    char const* const pszSeparator = strrchr(pszPath, '/');
    return pszSeparator == nullptr ? 0 : static_cast<size_t>(pszSeparator - pszPath) + 1;
}

DWORD error_of(int iErrno) {
    switch (iErrno) {
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP:
        return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EISDIR:
    case ENXIO: // a socket, or a device that is not there
    case ENODEV:
        return ERROR_ACCESS_DENIED;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV:
        return ERROR_NUMBER_NOT_SAME_DEVICE;
    case EROFS:
        return ERROR_WRITE_PROTECT;
    case ETXTBSY: // a program that runs is open for whoever runs it
    case EAGAIN:  // a lease: its holder has the file open
    case EBUSY:
        return ERROR_SHARING_VIOLATION;
    case EEXIST:
        return ERROR_FILE_EXISTS;
    case ENOSPC:
    case EDQUOT:
        return ERROR_DISK_FULL;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case EFBIG:
    case EOVERFLOW:
        return ERROR_FILE_TOO_LARGE;
    case EIO:
        return ERROR_IO_DEVICE;
    default:
        return ERROR_INVALID_PARAMETER;
    }
}

DWORD error_of_path(int iErrno, char const* pszPath) {
    if (iErrno == ENOENT && !has_directory(pszPath)) {
        return ERROR_PATH_NOT_FOUND;
    }
    return error_of(iErrno);
}

BOOL fail(DWORD dwError) {
    SetLastError(dwError);
    return FALSE;
}

} // namespace posix

DWORD WINAPI GetLastError(void) {
    return posix::t_dwLastError;
}

void WINAPI SetLastError(DWORD dwErrCode) {
    posix::t_dwLastError = dwErrCode;
}
