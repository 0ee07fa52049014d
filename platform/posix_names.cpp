// Removing and renaming.
#include "platform/posix_names.h"

#include "platform/platform.h"
#include "platform/posix_descriptors.h"
#include "platform/posix_errors.h"
#include "platform/posix_locks.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace posix {
namespace {

constexpr Claim ALONE{0, 0, false, false, true};

// Calls the function, which returns an error number, while no handle has the file open and none can
// get it. NO_ERROR, or the error number.
template <typename Function> DWORD while_unopened(char const* pszPath, Function function) {
    if (pszPath == nullptr || *pszPath == '\0') {
        return ERROR_PATH_NOT_FOUND;
    }
    for (int start = 0; start < MOST_STARTS; ++start) {
        Descriptor const descriptor(open_descriptor(pszPath, O_RDONLY));
        struct stat status {};
        if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0) {
            return error_of_path(errno, pszPath);
        }
        if (!S_ISREG(status.st_mode)) {
            return ERROR_ACCESS_DENIED;
        }
        Gate const gate(descriptor.get(), status);
        if (!gate.passed()) {
            break;
        }
        DWORD const dwError = claim(descriptor.get(), ALONE);
        if (dwError != NO_ERROR) {
            return dwError;
        }
        if (names_file(pszPath, status)) {
            return function();
        }
    }
    return ERROR_SHARING_VIOLATION;
}

DWORD error_of_rename(int iErrno, char const* pszNewPath) {
    return iErrno == EEXIST ? ERROR_ALREADY_EXISTS : error_of_path(iErrno, pszNewPath);
}

// For a file system that cannot rename without replacing. A process that dies between the two steps
// leaves the file under both names; it never leaves it under none.
DWORD rename_by_link(char const* pszPath, char const* pszNewPath) {
    if (link(pszPath, pszNewPath) != 0) {
        return error_of_rename(errno, pszNewPath);
    }
    if (unlink(pszPath) == 0) {
        return NO_ERROR;
    }
    DWORD const dwError = error_of_path(errno, pszPath);
    unlink(pszNewPath);
    return dwError;
}

DWORD rename_without_replacing(char const* pszPath, char const* pszNewPath) {
    if (renameat2(AT_FDCWD, pszPath, AT_FDCWD, pszNewPath, RENAME_NOREPLACE) == 0) {
        return NO_ERROR;
    }
    if (errno == EINVAL || errno == ENOSYS) {
        return rename_by_link(pszPath, pszNewPath);
    }
    return error_of_rename(errno, pszNewPath);
}

} // namespace

bool names_file(char const* pszPath, struct stat const& status) {
    struct stat found {};
    return stat(pszPath, &found) == 0 && found.st_dev == status.st_dev &&
           found.st_ino == status.st_ino;
}

OwnedText absolute_path(char const* pszPath) {
    if (*pszPath == '/') {
        return OwnedText(strdup(pszPath));
    }
    OwnedText const directory(getcwd(nullptr, 0));
    if (!directory) {
        return nullptr;
    }
    char* pszJoined = nullptr;
    return OwnedText(asprintf(&pszJoined, "%s/%s", directory.get(), pszPath) < 0 ? nullptr
                                                                                 : pszJoined);
}

} // namespace posix

BOOL WINAPI DeleteFileA(LPCSTR lpFileName) {
    DWORD const dwError = posix::while_unopened(lpFileName, [lpFileName] {
        return unlink(lpFileName) == 0 ? NO_ERROR : posix::error_of_path(errno, lpFileName);
    });
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}

BOOL WINAPI MoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    if (lpNewFileName == nullptr || *lpNewFileName == '\0') {
        return posix::fail(ERROR_PATH_NOT_FOUND);
    }
    DWORD const dwError =
        posix::while_unopened(lpExistingFileName, [lpExistingFileName, lpNewFileName] {
            return posix::rename_without_replacing(lpExistingFileName, lpNewFileName);
        });
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}
