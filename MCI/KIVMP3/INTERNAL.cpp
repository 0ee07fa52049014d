#include "MCI/KIVMP3/INTERNAL.h"

#include "MCI/KIVMP3/Patience.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// Bit masks go to the trace as pointers, for the sake of their hexadecimal form.
void const* as_mask(DWORD dwMask_p) {
    return reinterpret_cast<void const*>(DWORD_PTR{dwMask_p});
}

void hand_up(DWORD* pdwError_p, DWORD dwError_p) {
    if (pdwError_p != nullptr) {
        *pdwError_p = dwError_p;
    }
}

HANDLE create_file(LPCSTR lpszFilepath_p, DWORD* pdwError_p, DWORD dwDesiredAccess_p,
                   DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                   DWORD dwFlagsAndAttributes_p, HANDLE hLike_p) {
    TRACE_ENTRY("-----KIVMP3_create_file(...)");
    TRACE_PARAM("lpszFilepath_p", "%s", lpszFilepath_p);
    TRACE_PARAM("dwDesiredAccess_p", "%p", as_mask(dwDesiredAccess_p));
    TRACE_PARAM("dwShareMode_p", "%lu", dwShareMode_p);
    TRACE_PARAM("dwCreationDistribution_p", "%lu", dwCreationDistribution_p);
    TRACE_PARAM("dwFlagsAndAttributes_p", "%p", as_mask(dwFlagsAndAttributes_p));
    *pdwError_p = NO_ERROR;
    HANDLE const hFile =
        hLike_p != nullptr
            ? PlatformCreatePrivateFile(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, hLike_p)
            : CreateFileA(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p, nullptr,
                          dwCreationDistribution_p, dwFlagsAndAttributes_p, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        *pdwError_p = GetLastError();
        TRACE_ERROR(*pdwError_p, "GetLastError() after CreateFile()");
        return nullptr;
    }
    return hFile;
}

} // namespace

HANDLE KIVMP3_create_file(LPCSTR lpszFilepath_p, DWORD* pdwError_p, DWORD dwDesiredAccess_p,
                          DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                          DWORD dwFlagsAndAttributes_p) {
    return create_file(lpszFilepath_p, pdwError_p, dwDesiredAccess_p, dwShareMode_p,
                       dwCreationDistribution_p, dwFlagsAndAttributes_p, nullptr);
}

HANDLE KIVMP3_create_private_file(LPCSTR lpszFilepath_p, DWORD* pdwError_p, DWORD dwDesiredAccess_p,
                                  DWORD dwShareMode_p, HANDLE hLike_p) {
    return create_file(lpszFilepath_p, pdwError_p, dwDesiredAccess_p, dwShareMode_p, CREATE_NEW,
                       FILE_ATTRIBUTE_NORMAL, hLike_p);
}

DWORD KIVMP3_close_file(HANDLE* rhFile_p) {
    TRACE_ENTRY("-----KIVMP3_close_file(.)");
    TRACE_PARAM("rhFile_p", "%p", *rhFile_p);
    if (!CloseHandle(*rhFile_p)) {
        DWORD const dwError = GetLastError();
        return TRACED_ERROR(dwError, "GetLastError() after CloseHandle(rhFile_p)");
    }
    *rhFile_p = nullptr;
    return NO_ERROR;
}

DWORD KIVMP3_release_file(HANDLE* rhFile_p) {
    DWORD const dwError = KIVMP3_close_file(rhFile_p);
    return dwError == NO_ERROR || *rhFile_p == nullptr ? dwError : KIVMP3_close_file(rhFile_p);
}

BOOL KIVMP3_free_block(void* pvBlock_p) {
    BOOL const bFreed = HeapFree(GetProcessHeap(), 0, pvBlock_p);
    return bFreed ? bFreed : HeapFree(GetProcessHeap(), 0, pvBlock_p);
}

int KIVMP3_read_file(HANDLE hFile, void* pBuffer, DWORD dwBytesToRead_p, DWORD* pdwBytesRead) {
    TRACE_ENTRY("-----KIVMP3_read_file(...)");
    TRACE_PARAM("dwBytesToRead_p", "%lu", dwBytesToRead_p);
    DWORD dwBytesRead = 0;
    if (!ReadFile(hFile, pBuffer, dwBytesToRead_p, &dwBytesRead, nullptr)) {
        TRACE_ERROR(GetLastError(), "GetLastError() after ReadFile()");
        return 0;
    }
    if (pdwBytesRead != nullptr) {
        *pdwBytesRead = dwBytesRead;
    }
    return 1;
}

int KIVMP3_write_file(HANDLE hFile, void const* pBuffer, DWORD dwBytesToWrite_p,
                      DWORD* pdwBytesWritten, DWORD* pdwError_p) {
    TRACE_ENTRY("-----KIVMP3_write_file(...)");
    TRACE_PARAM("dwBytesToWrite_p", "%lu", dwBytesToWrite_p);
    hand_up(pdwError_p, NO_ERROR);
    DWORD dwBytesWritten = 0;
    if (!WriteFile(hFile, pBuffer, dwBytesToWrite_p, &dwBytesWritten, nullptr)) {
        DWORD const dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after WriteFile()");
        hand_up(pdwError_p, dwError);
        return 0;
    }
    if (pdwBytesWritten != nullptr) {
        *pdwBytesWritten = dwBytesWritten;
    }
    return 1;
}

int KIVMP3_set_file_pointer(HANDLE hFile, DWORD dwFileOffset_p, DWORD* pdwError_p) {
    hand_up(pdwError_p, NO_ERROR);
    // With a high half the low one is unsigned: an offset past 2 GiB is not taken for a step back.
    LONG lHigh = 0;
    SetLastError(NO_ERROR);
    DWORD const dwLow =
        SetFilePointer(hFile, static_cast<LONG>(dwFileOffset_p), &lHigh, FILE_BEGIN);
    DWORD const dwError = dwLow == INVALID_SET_FILE_POINTER ? GetLastError() : NO_ERROR;
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after SetFilePointer()");
        hand_up(pdwError_p, dwError);
        return 0;
    }
    return 1;
}

int KIVMP3_seek_to_end(HANDLE hFile, uint64_t* pullFileSize_p) {
    LONG lHigh = 0;
    SetLastError(NO_ERROR);
    DWORD const dwLow = SetFilePointer(hFile, 0, &lHigh, FILE_END);
    if (dwLow == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) {
        TRACE_ERROR(GetLastError(), "GetLastError() after SetFilePointer()");
        return 0;
    }
    *pullFileSize_p = uint64_t{static_cast<DWORD>(lHigh)} << 32 | dwLow;
    return 1;
}

DWORD KIVMP3_get_file_size(HANDLE hFile, uint64_t* pullFileSize_p) {
    DWORD dwHigh = 0;
    SetLastError(NO_ERROR);
    DWORD const dwLow = GetFileSize(hFile, &dwHigh);
    if (dwLow == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
        return GetLastError();
    }
    *pullFileSize_p = uint64_t{dwHigh} << 32 | dwLow;
    return NO_ERROR;
}

DWORD KIVMP3_get_system_temp_path(LPSTR pszPath_p, DWORD dwSizeBuf_p) {
    TRACE_ENTRY("KIVMP3_get_system_temp_path(..)");
    TRACE_PARAM("dwSizeBuf_p", "%ld", dwSizeBuf_p);
    DWORD const dwLength = GetTempPathA(dwSizeBuf_p, pszPath_p);
    if (dwLength == 0) {
        TRACE_ERROR(GetLastError(), "GetLastError() after GetTempPath()");
        return 0;
    }
    // A length that does not fit is the size that would be needed, with the buffer not filled.
    if (dwLength >= dwSizeBuf_p) {
        TRACE_ERROR(ERROR_INSUFFICIENT_BUFFER, "GetLastError() after GetTempPath()");
        return 0;
    }
    TRACE_VALUE("pszPath_p", "%s", pszPath_p);
    return dwLength;
}

DWORD KIVMP3_get_disk_free_space_ex(LPCSTR pszName_p, DWORD* pdwFreeBytes_p) {
    TRACE_ENTRY("-----KIVMP3_get_disk_free_space_ex(..)");
    TRACE_PARAM("pszName_p", "%s", pszName_p);
    *pdwFreeBytes_p = 0;
    PlatformPathParts parts;
    char szDirectoryName[256];
    bool bFits = PlatformSplitPath(pszName_p, &parts);
    if (bFits) {
        int const nLength = snprintf(szDirectoryName, sizeof szDirectoryName, "%s%s", parts.szDrive,
                                     parts.szDirectory);
        bFits = nLength >= 0 && nLength < static_cast<int>(sizeof szDirectoryName);
    }
    if (!bFits) {
        return TRACED_ERROR(ERROR_FILENAME_EXCED_RANGE,
                            "GetLastError() after GetDiskFreeSpaceEx()");
    }
    TRACE_VALUE("szDirectoryName", "%s", szDirectoryName);

    // Keeps the platform from asking the user about an empty or dead drive.
    UINT const nOldMode = SetErrorMode(SEM_FAILCRITICALERRORS);
    DWORD dwError = NO_ERROR;
    ULARGE_INTEGER ullFree = {};
    ULARGE_INTEGER ullTotal = {};
    ULARGE_INTEGER ullTotalFree = {};
    if (!GetDiskFreeSpaceExA(szDirectoryName, &ullFree, &ullTotal, &ullTotalFree)) {
        dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after GetDiskFreeSpaceEx()");
    }
    SetErrorMode(nOldMode);
    if (dwError == NO_ERROR) {
        *pdwFreeBytes_p = static_cast<DWORD>(std::min<uint64_t>(ullFree.QuadPart, 0xFFFFFFFFu));
    }
    TRACE_VALUE("*pdwFreeBytes_p", "%lu", *pdwFreeBytes_p);
    return dwError;
}

FFDError KIVMP3_transfer_mp3_data(HANDLE hSourceFile, HANDLE hDestFile, LONG lBytesToTransfer_p,
                                  BYTE* pcBuffer_p, LONG lBufferSize_p) {
    TRACE_ENTRY("-----KIVMP3_transfer_mp3_data(...)");
    TRACE_PARAM("hSourceFile", "%p", hSourceFile);
    TRACE_PARAM("hDestFile", "%p", hDestFile);
    TRACE_PARAM("lBytesToTransfer_p", "%ld", lBytesToTransfer_p);
    TRACE_PARAM("pcBuffer_p", "%p", static_cast<void*>(pcBuffer_p));
    TRACE_PARAM("lBufferSize_p", "%ld", lBufferSize_p);
    TRACE_ENTRY("----------------------------------");
    // As much as the system moves by itself, which gains nothing below a page; the blocks below do
    // the rest, and meet what stopped it.
    constexpr LONG lLeastBytesForSystem = 4096;
    if (lBytesToTransfer_p > lLeastBytesForSystem) {
        lBytesToTransfer_p -= static_cast<LONG>(
            PlatformCopyBytes(hSourceFile, hDestFile, static_cast<DWORD>(lBytesToTransfer_p)));
    }
    while (lBytesToTransfer_p > 0) {
        LONG const lBlock = std::min(lBytesToTransfer_p, lBufferSize_p);
        DWORD dwRead = 0;
        if (!ReadFile(hSourceFile, pcBuffer_p, static_cast<DWORD>(lBlock), &dwRead, nullptr)) {
            TRACE_ERROR(0xFFFFFFFFu, "by ReadFile() from source wave file -> FFD_FILE_IO_ERROR");
            return FFD_FILE_IO_ERROR;
        }
        DWORD dwWritten = 0;
        if (!WriteFile(hDestFile, pcBuffer_p, dwRead, &dwWritten, nullptr)) {
            TRACE_ERROR(0xFFFFFFFFu, "by WriteFile() into dest wave file -> FFD_FILE_IO_ERROR");
            return FFD_FILE_IO_ERROR;
        }
        // The block and not what was delivered: behind the end of the source the loop runs out.
        lBytesToTransfer_p -= lBlock;
    }
    return FFD_NOERROR;
}

int KIVMP3_get_full_path(LPCSTR pszPath_p, char (&szFullPath_p)[MAX_PATH],
                         DWORD* pdwDirectoryLength_p, DWORD* pdwError_p) {
    LPSTR pszFilePart = nullptr;
    DWORD const dwLength = GetFullPathNameA(pszPath_p, MAX_PATH, szFullPath_p, &pszFilePart);
    if (dwLength == 0) {
        *pdwError_p = GetLastError();
        TRACE_ERROR(*pdwError_p, "GetLastError() after GetFullPathName()");
        return 0;
    }
    if (dwLength >= MAX_PATH) {
        *pdwError_p = ERROR_FILENAME_EXCED_RANGE;
        TRACE_ERROR(*pdwError_p, "GetLastError() after GetFullPathName()");
        return 0;
    }
    *pdwDirectoryLength_p =
        pszFilePart == nullptr ? dwLength : static_cast<DWORD>(pszFilePart - szFullPath_p);
    return 1;
}

FFDError KIVMP3_make_sibling_path(LPCSTR pszFilePath_p, LPCSTR pszExtension_p,
                                  char (&szSiblingPath_p)[MAX_PATH]) {
    PlatformPathParts parts;
    if (!PlatformSplitPath(pszFilePath_p, &parts)) {
        return FFD_INVALID_PATH;
    }
    if (parts.szStem[0] == '\0') {
        return FFD_FILE_IO_ERROR;
    }
    char szGiven[MAX_PATH];
    int const nLength = snprintf(szGiven, sizeof szGiven, "%s%s%s%s", parts.szDrive,
                                 parts.szDirectory, parts.szStem, pszExtension_p);
    if (nLength < 0 || nLength >= MAX_PATH ||
        PlatformSameFileName(parts.szExtension, pszExtension_p)) {
        return FFD_INVALID_PATH;
    }
    // The host may change the working directory while the file is open.
    DWORD dwDirectoryLength = 0;
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_get_full_path(szGiven, szSiblingPath_p, &dwDirectoryLength, &dwError)) {
        if (dwError == ERROR_FILENAME_EXCED_RANGE) {
            return FFD_INVALID_PATH;
        }
        memcpy(szSiblingPath_p, szGiven, sizeof szGiven);
    }
    return FFD_NOERROR;
}

HANDLE KIVMP3_open_existing_file(LPCSTR pszPath_p, DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                                 DWORD dwFlags_p, DWORD* pdwError_p) {
    HANDLE hFile = INVALID_HANDLE_VALUE;
    CPatience oPatience;
    do {
        hFile = CreateFileA(pszPath_p, dwDesiredAccess_p, dwShareMode_p, nullptr, OPEN_EXISTING,
                            dwFlags_p, nullptr);
        *pdwError_p = hFile == INVALID_HANDLE_VALUE ? GetLastError() : NO_ERROR;
    } while (*pdwError_p != ERROR_SHARING_VIOLATION && oPatience.wait_for(pszPath_p, *pdwError_p));
    return *pdwError_p == NO_ERROR ? hFile : nullptr;
}

HANDLE KIVMP3_open_companion(LPCSTR pszPath_p, LPCSTR pszSoundPath_p, DWORD* pdwError_p,
                             DWORD dwDesiredAccess_p, DWORD dwShareMode_p) {
    HANDLE hFile =
        KIVMP3_open_existing_file(pszPath_p, dwDesiredAccess_p, dwShareMode_p,
                                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, pdwError_p);
    if (hFile != nullptr && !PlatformTestCompanion(hFile, pszPath_p, pszSoundPath_p)) {
        *pdwError_p = GetLastError();
        KIVMP3_release_file(&hFile);
    }
    return hFile;
}

DWORD KIVMP3_delete_file(LPCSTR pszPath_p) {
    CPatience oPatience;
    DWORD dwError = NO_ERROR;
    do {
        dwError = DeleteFileA(pszPath_p) ? NO_ERROR : GetLastError();
    } while (oPatience.wait_for(pszPath_p, dwError));
    return dwError == ERROR_FILE_NOT_FOUND ? NO_ERROR : dwError;
}

DWORD KIVMP3_move_file(LPCSTR pszPath_p, LPCSTR pszNewPath_p) {
    CPatience oPatience;
    DWORD dwError = NO_ERROR;
    do {
        dwError = MoveFileA(pszPath_p, pszNewPath_p) ? NO_ERROR : GetLastError();
    } while (oPatience.wait_for(pszNewPath_p, dwError));
    return dwError;
}

void CFingerprint::add(BYTE const* pbyData_p, DWORD dwBytes_p) {
    for (DWORD dwByte = 0; dwByte < dwBytes_p; dwByte += 8) {
        uint64_t ullWord = 0;
        memcpy(&ullWord, pbyData_p + dwByte, std::min<size_t>(sizeof ullWord, dwBytes_p - dwByte));
        m_ullFingerprint = (m_ullFingerprint ^ ullWord) * 0x100000001B3u;
        m_ullFingerprint ^= m_ullFingerprint >> 32;
    }
}

FFDError KIVMP3_fingerprint_file(HANDLE hFile, uint64_t* pullFingerprint_p) {
    CHeapBlock const buffer(KIVMP3_TRANSFER_BUFFER_SIZE);
    if (buffer.get() == nullptr) {
        return FFD_ERROR_OUTOFMEMORY;
    }
    uint64_t ullFileSize = 0;
    if (KIVMP3_get_file_size(hFile, &ullFileSize) != NO_ERROR ||
        !KIVMP3_set_file_pointer(hFile, 0)) {
        return FFD_FILE_IO_ERROR;
    }
    CFingerprint oFingerprint;
    uint64_t ullBytes = 0;
    DWORD dwBytesRead = KIVMP3_TRANSFER_BUFFER_SIZE;
    while (dwBytesRead == KIVMP3_TRANSFER_BUFFER_SIZE) {
        if (!KIVMP3_read_file(hFile, buffer.get(), KIVMP3_TRANSFER_BUFFER_SIZE, &dwBytesRead)) {
            return FFD_FILE_IO_ERROR;
        }
        oFingerprint.add(buffer.get(), dwBytesRead);
        ullBytes += dwBytesRead;
    }
    *pullFingerprint_p = oFingerprint.get();
    return ullBytes == ullFileSize ? FFD_NOERROR : FFD_FILE_IO_ERROR;
}

int KIVMP3_set_file_aside(LPCSTR pszPath_p) {
    TRACE_ENTRY("-----KIVMP3_set_file_aside(.)");
    TRACE_PARAM("pszPath_p", "%s", pszPath_p);
    constexpr int nLastNumber = 63;
    for (int nName = 0; nName <= nLastNumber + 1; ++nName) {
        char szAside[MAX_PATH + 32];
        char szNumber[24] = "";
        if (nName > 0) {
            long long const llNumber = nName <= nLastNumber ? nName : int64_t{time(nullptr)};
            snprintf(szNumber, sizeof szNumber, "%lld", llNumber);
        }
        snprintf(szAside, sizeof szAside, "%s%s%s", pszPath_p, KIVMP3_ASIDE_EXTENSION, szNumber);
        if (MoveFileA(pszPath_p, szAside)) {
            TRACE_INFO("file set aside");
            return 1;
        }
        DWORD const dwError = GetLastError();
        if (dwError != ERROR_ALREADY_EXISTS && dwError != ERROR_FILE_EXISTS) {
            TRACE_ERROR(dwError, "GetLastError() after MoveFile(..)");
            return 0;
        }
    }
    TRACE_ERROR(ERROR_ALREADY_EXISTS, "GetLastError() after MoveFile(..)");
    return 0;
}
