// Opening and closing.
#include "platform/platform.h"
#include "platform/posix_descriptors.h"
#include "platform/posix_errors.h"
#include "platform/posix_locks.h"
#include "platform/posix_names.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace posix {
namespace {

struct Request {
    char const* pszPath;
    DWORD dwAccess;
    DWORD dwShare;
    DWORD dwDisposition;
    bool bDeleteOnClose;
    bool bNoLink;         // a link is not followed
    mode_t modeOfNewFile; // what the umask leaves of it

    bool empties() const {
        return dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    }
    bool makes_if_missing() const {
        return dwDisposition == CREATE_ALWAYS || dwDisposition == OPEN_ALWAYS;
    }
};

DWORD check(Request const& request) {
    if (request.pszPath == nullptr || *request.pszPath == '\0') {
        return ERROR_PATH_NOT_FOUND;
    }
    bool const bBadAccess = (request.dwAccess & ~(GENERIC_READ | GENERIC_WRITE)) != 0;
    bool const bBadShare =
        (request.dwShare & ~(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)) != 0;
    bool const bBadDisposition =
        request.dwDisposition < CREATE_NEW || request.dwDisposition > TRUNCATE_EXISTING ||
        (request.dwDisposition == TRUNCATE_EXISTING && (request.dwAccess & GENERIC_WRITE) == 0);
    return bBadAccess || bBadShare || bBadDisposition ? ERROR_INVALID_PARAMETER : NO_ERROR;
}

// Shared locks need a readable descriptor, so there is none that only writes; the access of the
// handle is checked at each call instead.
int open_flags(Request const& request) {
    bool const bWrites = (request.dwAccess & GENERIC_WRITE) != 0 || request.empties();
    return (bWrites ? O_RDWR : O_RDONLY) | (request.bNoLink ? O_NOFOLLOW : 0);
}

// The descriptor stays -1, without an error, if the file came or went at the wrong moment.
DWORD make_file(Request const& request, Object& object) {
    object.pszPath = absolute_path(request.pszPath);
    if (!object.pszPath) {
        return error_of_path(errno, request.pszPath);
    }
    object.fd = open_descriptor(request.pszPath, open_flags(request) | O_CREAT | O_EXCL,
                                request.modeOfNewFile);
    if (object.fd >= 0) {
        object.bNameUnflushed = true;
        return NO_ERROR;
    }
    if (errno == EEXIST && request.makes_if_missing()) {
        return NO_ERROR;
    }
    return error_of_path(errno, request.pszPath);
}

DWORD open_or_make_file(Request const& request, Object& object) {
    object.bNameUnflushed = false;
    if (request.dwDisposition == CREATE_NEW) {
        return make_file(request, object);
    }
    object.fd = open_descriptor(request.pszPath, open_flags(request));
    if (object.fd >= 0) {
        return NO_ERROR;
    }
    if (errno == ENOENT && request.makes_if_missing()) {
        return make_file(request, object);
    }
    if (errno == ELOOP && request.bNoLink) {
        return ERROR_CANT_ACCESS_FILE;
    }
    return error_of_path(errno, request.pszPath);
}

DWORD empty_file(int fd) {
    return ftruncate(fd, 0) == 0 ? NO_ERROR : error_of(errno);
}

// Makes the opened file this handle's under its share mode. Clears `bStillThere` if the path names
// another file by now, or none.
DWORD enter_file(Request const& request, Object& object, bool& bStillThere) {
    struct stat status {};
    if (fstat(object.fd, &status) != 0) {
        return error_of(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return ERROR_ACCESS_DENIED;
    }
    object.device = status.st_dev;
    object.inode = status.st_ino;
    bool const bEmpties = request.empties() && !object.bNameUnflushed;
    Gate const gate(object.fd, status);
    if (!gate.passed()) {
        return ERROR_SHARING_VIOLATION;
    }
    Claim const wanted{request.dwAccess, request.dwShare, request.bDeleteOnClose, bEmpties, false};
    DWORD const dwError = claim(object.fd, wanted);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    bStillThere = names_file(request.pszPath, status);
    return bStillThere && bEmpties ? empty_file(object.fd) : NO_ERROR;
}

// What a handle keeps beside its descriptor. Not earlier: a failed open must not remove a file.
void complete(Request const& request, Object& object) {
    object.dwAccess = request.dwAccess;
    object.bDeleteOnClose = request.bDeleteOnClose;
    if (!object.bDeleteOnClose && !object.bNameUnflushed) {
        object.pszPath.reset();
    }
}

// A file that is made here and then found claimed by another is left: it is open there, and is that
// one's file now.
DWORD open_file(Request const& request, Object& object) {
    if (request.bDeleteOnClose) {
        object.pszPath = absolute_path(request.pszPath);
        if (!object.pszPath) {
            return error_of_path(errno, request.pszPath);
        }
    }
    for (int start = 0; start < MOST_STARTS; ++start) {
        DWORD dwError = open_or_make_file(request, object);
        if (dwError != NO_ERROR) {
            return dwError;
        }
        if (object.fd < 0) {
            continue;
        }
        bool bStillThere = true;
        dwError = enter_file(request, object, bStillThere);
        if (dwError != NO_ERROR) {
            return dwError;
        }
        if (bStillThere) {
            complete(request, object);
            return NO_ERROR;
        }
        object.finish();
    }
    return ERROR_SHARING_VIOLATION;
}

HANDLE create_file(Request const& request) {
    NewHandle newHandle(Kind::File);
    DWORD dwError = check(request);
    if (dwError == NO_ERROR) {
        dwError = newHandle.error();
    }
    if (dwError == NO_ERROR) {
        dwError = open_file(request, newHandle.object());
    }
    return newHandle.publish_after(dwError, INVALID_HANDLE_VALUE);
}

} // namespace
} // namespace posix

HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPVOID /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE /*hTemplateFile*/) {
    return posix::create_file({lpFileName, dwDesiredAccess, dwShareMode, dwCreationDisposition,
                               (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0,
                               (dwFlagsAndAttributes & FILE_FLAG_OPEN_REPARSE_POINT) != 0, 0666});
}

HANDLE PlatformCreatePrivateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                 HANDLE /*hLike*/) {
    return posix::create_file(
        {lpFileName, dwDesiredAccess, dwShareMode, CREATE_NEW, false, true, 0600});
}

BOOL WINAPI CloseHandle(HANDLE hObject) {
    DWORD const dwError = posix::close_handle(hObject);
    return dwError == NO_ERROR ? TRUE : posix::fail(dwError);
}
