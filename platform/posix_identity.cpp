// Which file a handle has, or a name leads to, and whose it is.
#include "platform/platform.h"
#include "platform/posix_errors.h"
#include "platform/posix_handles.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace posix {
namespace {

BOOL answer(DWORD dwError) {
    return dwError == NO_ERROR ? TRUE : fail(dwError);
}

// Of the descriptor if the path is empty. NO_ERROR, or the error number.
DWORD identify(int fd, char const* pszPath, PlatformFileIdentity& identity) {
    struct statx status {};
    if (statx(fd, pszPath, *pszPath == '\0' ? AT_EMPTY_PATH : 0, STATX_INO | STATX_BTIME,
              &status) != 0) {
        return error_of_path(errno, pszPath);
    }
    // A number that becomes free is given out again at once: the time of birth tells the two apart.
    uint64_t const birth = (status.stx_mask & STATX_BTIME) != 0
                               ? static_cast<uint64_t>(status.stx_btime.tv_sec) * 1000000000u +
                                     status.stx_btime.tv_nsec
                               : 0;
    identity = {uint64_t{status.stx_dev_major} << 32 | status.stx_dev_minor, status.stx_ino, birth};
    return NO_ERROR;
}

bool is_same_file(struct stat const& first, struct stat const& second) {
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

DWORD test_companion(int fd, char const* pszPath, char const* pszSoundPath) {
    struct stat file {};
    struct stat name {};
    struct stat folder {};
    if (fstat(fd, &file) != 0 || lstat(pszPath, &name) != 0 ||
        stat(Folder(pszPath).name(), &folder) != 0) {
        return error_of_path(errno, pszPath);
    }
    struct stat sound {};
    bool const bSound = stat(pszSoundPath, &sound) == 0;
    if (!is_same_file(file, name) || (bSound && is_same_file(file, sound))) {
        return ERROR_CANT_ACCESS_FILE;
    }
    bool const bAnybodyAdds = (folder.st_mode & S_ISVTX) != 0 && (folder.st_mode & S_IWOTH) != 0;
    bool const bTrusted = file.st_uid == 0 || file.st_uid == geteuid() ||
                          file.st_uid == folder.st_uid || (bSound && file.st_uid == sound.st_uid);
    return bTrusted || !bAnybodyAdds ? NO_ERROR : ERROR_CANT_ACCESS_FILE;
}

} // namespace
} // namespace posix

BOOL PlatformGetFileIdentity(HANDLE hFile, PlatformFileIdentity* pIdentity) {
    posix::ObjectUse const file(hFile, posix::Kind::File);
    return posix::answer(file ? posix::identify(file->fd, "", *pIdentity) : ERROR_INVALID_HANDLE);
}

BOOL PlatformGetNameIdentity(LPCSTR pszPath, PlatformFileIdentity* pIdentity) {
    return posix::answer(*pszPath == '\0' ? ERROR_PATH_NOT_FOUND
                                          : posix::identify(AT_FDCWD, pszPath, *pIdentity));
}

BOOL PlatformTestCompanion(HANDLE hFile, LPCSTR pszPath, LPCSTR pszSoundPath) {
    posix::ObjectUse const file(hFile, posix::Kind::File);
    return posix::answer(file ? posix::test_companion(file->fd, pszPath, pszSoundPath)
                              : ERROR_INVALID_HANDLE);
}
