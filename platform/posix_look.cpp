// Looking without touching: what the calls that change something would answer.
#include "platform/posix_descriptors.h"
#include "platform/posix_errors.h"
#include "platform/posix_locks.h"
#include "platform/posix_names.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace posix {
namespace {

// Whether the process may write what the path names. NO_ERROR, or the error number.
DWORD may_write(char const* pszPath) {
    return faccessat(AT_FDCWD, pszPath, W_OK, AT_EACCESS) == 0 ? NO_ERROR
                                                               : error_of_path(errno, pszPath);
}

// Whether names of the path's directory may be made and removed.
DWORD may_change_names(char const* pszPath) {
    if (faccessat(AT_FDCWD, Folder(pszPath).name(), W_OK | X_OK, AT_EACCESS) == 0) {
        return NO_ERROR;
    }
    return errno == ENOENT ? ERROR_PATH_NOT_FOUND : error_of(errno);
}

// In a sticky directory only its owner, the file's owner and root remove and rename.
DWORD may_remove(char const* pszPath) {
    struct stat file {};
    if (lstat(pszPath, &file) != 0) {
        return error_of_path(errno, pszPath);
    }
    struct stat folder {};
    uid_t const user = geteuid();
    bool const bDenied = stat(Folder(pszPath).name(), &folder) == 0 &&
                         (folder.st_mode & S_ISVTX) != 0 && user != 0 && user != file.st_uid &&
                         user != folder.st_uid;
    return bDenied ? ERROR_ACCESS_DENIED : may_change_names(pszPath);
}

DWORD look(char const* pszPath, Claim const& wanted, Object& object) {
    object.fd = open_descriptor(pszPath, O_RDONLY);
    struct stat status {};
    if (object.fd < 0 || fstat(object.fd, &status) != 0) {
        return error_of_path(errno, pszPath);
    }
    if (!S_ISREG(status.st_mode)) {
        return ERROR_ACCESS_DENIED;
    }
    object.dwAccess = GENERIC_READ;
    object.device = status.st_dev;
    object.inode = status.st_ino;
    DWORD const dwError = (wanted.dwAccess & GENERIC_WRITE) != 0 ? may_write(pszPath) : NO_ERROR;
    return dwError == NO_ERROR ? test_claim(object.fd, wanted) : dwError;
}

} // namespace
} // namespace posix

HANDLE PlatformLookAtFile(LPCSTR pszPath, DWORD dwDesiredAccess, DWORD dwShareMode) {
    posix::NewHandle newHandle(posix::Kind::File);
    DWORD dwError = newHandle.error();
    if (dwError == NO_ERROR && (pszPath == nullptr || *pszPath == '\0')) {
        dwError = ERROR_PATH_NOT_FOUND;
    }
    if (dwError == NO_ERROR) {
        dwError = posix::look(pszPath, {dwDesiredAccess, dwShareMode, false, false, false},
                              newHandle.object());
    }
    return newHandle.publish_after(dwError, INVALID_HANDLE_VALUE);
}

DWORD PlatformTestRemoval(LPCSTR pszPath) {
    posix::Object object;
    DWORD const dwError = posix::look(pszPath, {0, 0, false, false, true}, object);
    object.finish();
    return dwError == NO_ERROR ? posix::may_remove(pszPath) : dwError;
}

DWORD PlatformTestCreation(LPCSTR pszPath) {
    struct stat status {};
    if (lstat(pszPath, &status) == 0) {
        return ERROR_FILE_EXISTS;
    }
    return errno == ENOENT ? posix::may_change_names(pszPath)
                           : posix::error_of_path(errno, pszPath);
}
