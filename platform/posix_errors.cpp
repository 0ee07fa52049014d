#include "platform/posix_errors.h"

#include <cerrno>
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

} // namespace

Folder::Folder(char const* pszPath) : m_name{"."} {
    char const* const pszSeparator = strrchr(pszPath, '/');
    size_t const length =
        pszSeparator == nullptr ? 0 : static_cast<size_t>(pszSeparator - pszPath) + 1;
    if (length >= m_name.size()) {
        m_name[0] = '\0';
    } else if (length > 0) {
        memcpy(m_name.data(), pszPath, length);
        m_name[length] = '\0';
    }
}

DWORD error_of(int iErrno) {
    struct Row {
        int iErrno;
        DWORD dwError;
    };
    static constexpr Row aRows[] = {
        {ENOENT, ERROR_FILE_NOT_FOUND},
        {ENOTDIR, ERROR_PATH_NOT_FOUND},
        {ELOOP, ERROR_PATH_NOT_FOUND},
        {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
        {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
        {EACCES, ERROR_ACCESS_DENIED},
        {EPERM, ERROR_ACCESS_DENIED},
        {EISDIR, ERROR_ACCESS_DENIED},
        {ENXIO, ERROR_ACCESS_DENIED}, // a socket, or a device that is not there
        {ENODEV, ERROR_ACCESS_DENIED},
        {EBADF, ERROR_INVALID_HANDLE},
        {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
        {EXDEV, ERROR_NUMBER_NOT_SAME_DEVICE},
        {EROFS, ERROR_WRITE_PROTECT},
        {ETXTBSY, ERROR_SHARING_VIOLATION}, // a program that runs is open for whoever runs it
        {EAGAIN, ERROR_SHARING_VIOLATION},  // a lease: its holder has the file open
        {EBUSY, ERROR_SHARING_VIOLATION},
        {EEXIST, ERROR_FILE_EXISTS},
        {ENOSPC, ERROR_DISK_FULL},
        {EDQUOT, ERROR_DISK_FULL},
        {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
        {EFBIG, ERROR_FILE_TOO_LARGE},
        {EOVERFLOW, ERROR_FILE_TOO_LARGE},
        {EIO, ERROR_IO_DEVICE},
    };
    for (Row const& row : aRows) {
        if (row.iErrno == iErrno) {
            return row.dwError;
        }
    }
    return ERROR_INVALID_PARAMETER;
}

DWORD error_of_path(int iErrno, char const* pszPath) {
    if (iErrno == ENOENT && !is_directory(Folder(pszPath).name())) {
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
