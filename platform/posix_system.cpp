// Disk space, the error mode, a rest and the way back to the host.
#include "platform/platform.h"
#include "platform/posix_errors.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <sys/statvfs.h>

namespace {

// Kept only for its callers: nothing here ever asks the user a question.
constinit std::atomic<UINT> g_uErrorMode = 0;

} // namespace

BOOL WINAPI GetDiskFreeSpaceExA(LPCSTR lpDirectoryName, ULARGE_INTEGER* lpFreeBytesAvailable,
                                ULARGE_INTEGER* lpTotalNumberOfBytes,
                                ULARGE_INTEGER* lpTotalNumberOfFreeBytes) {
    char const* const pszDirectory = lpDirectoryName != nullptr ? lpDirectoryName : ".";
    struct statvfs space {};
    int result;
    do {
        result = statvfs(pszDirectory, &space);
    } while (result != 0 && errno == EINTR);
    if (result != 0) { // the path is a directory, so one that is missing is a missing directory
        return posix::fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : posix::error_of(errno));
    }
    uint64_t const ullUnitBytes = space.f_frsize;
    if (lpFreeBytesAvailable != nullptr) {
        lpFreeBytesAvailable->QuadPart = space.f_bavail * ullUnitBytes;
    }
    if (lpTotalNumberOfBytes != nullptr) {
        lpTotalNumberOfBytes->QuadPart = space.f_blocks * ullUnitBytes;
    }
    if (lpTotalNumberOfFreeBytes != nullptr) {
        lpTotalNumberOfFreeBytes->QuadPart = space.f_bfree * ullUnitBytes;
    }
    return TRUE;
}

UINT WINAPI SetErrorMode(UINT uMode) {
    return g_uErrorMode.exchange(uMode);
}

void WINAPI Sleep(DWORD dwMilliseconds) {
    timespec rest{static_cast<time_t>(dwMilliseconds / 1000),
                  static_cast<long>(dwMilliseconds % 1000 * 1000000)};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice, DWORD dwMsg,
                           DWORD_PTR dwUser, DWORD_PTR dwParam1, DWORD_PTR dwParam2) {
    if (dwCallback == 0 || dwFlags != DCB_FUNCTION) {
        return FALSE;
    }
    reinterpret_cast<LPDRVCALLBACK>(dwCallback)(hDevice, dwMsg, dwUser, dwParam1, dwParam2);
    return TRUE;
}
