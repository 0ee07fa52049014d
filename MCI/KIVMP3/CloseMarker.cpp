#include "MCI/KIVMP3/CloseMarker.h"

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Patience.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

constexpr char szMarkerMagic[] = "XKIVCLM1";
constexpr char szMarkerExtension[] = ".CLM";

DWORD crc32(BYTE const* pbyData_p, size_t nBytes_p) {
    DWORD dwCrc = 0xFFFFFFFFu;
    for (size_t nByte = 0; nByte < nBytes_p; ++nByte) {
        dwCrc ^= pbyData_p[nByte];
        for (int nBit = 0; nBit < 8; ++nBit) {
            dwCrc = (dwCrc & 1) != 0 ? dwCrc >> 1 ^ 0xEDB88320u : dwCrc >> 1;
        }
    }
    return ~dwCrc;
}

DWORD check_of(CloseMarkerRecord const& rRecord_p) {
    constexpr size_t nBegin = offsetof(CloseMarkerRecord, dwOldSize);
    return crc32(reinterpret_cast<BYTE const*>(&rRecord_p) + nBegin,
                 sizeof(CloseMarkerRecord) - nBegin);
}

// The file name of a path; false if it does not fit.
bool copy_file_name(LPCSTR pszPath_p, char (&szName_p)[MAX_PATH]) {
    PlatformPathParts parts;
    if (!PlatformSplitPath(pszPath_p, &parts)) {
        return false;
    }
    int const nLength = snprintf(szName_p, MAX_PATH, "%s%s", parts.szStem, parts.szExtension);
    return nLength > 0 && nLength < MAX_PATH;
}

// A name that stands in a marker must be a name alone, so that it can't reach out of the directory.
bool is_plain_name(char const (&szName_p)[MAX_PATH]) {
    PlatformPathParts parts;
    return memchr(szName_p, '\0', MAX_PATH) != nullptr && PlatformSplitPath(szName_p, &parts) &&
           parts.szDrive[0] == '\0' && parts.szDirectory[0] == '\0' && parts.szStem[0] != '\0';
}

// The path of a file in the directory of the marker.
bool beside_marker(LPCSTR pszMarkerPath_p, LPCSTR pszName_p, char (&szPath_p)[MAX_PATH]) {
    PlatformPathParts parts;
    if (!PlatformSplitPath(pszMarkerPath_p, &parts)) {
        return false;
    }
    int const nLength =
        snprintf(szPath_p, MAX_PATH, "%s%s%s", parts.szDrive, parts.szDirectory, pszName_p);
    return nLength > 0 && nLength < MAX_PATH;
}

// Whether the record is whole, and belongs to a sound file whose marker has this path.
bool is_marker_of(LPCSTR pszMarkerPath_p, CloseMarkerRecord const& rRecord_p) {
    if (memcmp(rRecord_p.szMagic, szMarkerMagic, sizeof rRecord_p.szMagic) != 0 ||
        rRecord_p.dwCheck != check_of(rRecord_p) || !is_plain_name(rRecord_p.szSoundName) ||
        !is_plain_name(rRecord_p.szRebuiltName)) {
        return false;
    }
    PlatformPathParts marker;
    PlatformPathParts sound;
    return PlatformSplitPath(pszMarkerPath_p, &marker) &&
           PlatformSplitPath(rRecord_p.szSoundName, &sound) &&
           PlatformSameFileName(marker.szStem, sound.szStem);
}

// The size of a file; false if there is none. A file that can't be asked throws.
bool find_file(LPCSTR pszPath_p, uint64_t* pullFileSize_p) {
    DWORD dwError = NO_ERROR;
    HANDLE hFile = KIVMP3_open_existing_file(pszPath_p, GENERIC_READ,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, &dwError);
    if (dwError == ERROR_FILE_NOT_FOUND) {
        return false;
    }
    if (dwError == NO_ERROR) {
        dwError = KIVMP3_get_file_size(hFile, pullFileSize_p);
        KIVMP3_release_file(&hFile);
    }
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "file can not be looked at");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return true;
}

// A number that follows from every byte of a file and its place: 64-bit FNV-1a over little-endian
// words of eight bytes, the last filled up with zeros, with the high half folded into the low at
// each step. A file that can't be read throws.
uint64_t fingerprint_file(LPCSTR pszPath_p) {
    CHeapBlock const buffer(KIVMP3_TRANSFER_BUFFER_SIZE);
    if (buffer.get() == nullptr) {
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    DWORD dwError = NO_ERROR;
    HANDLE hFile = KIVMP3_create_file(pszPath_p, &dwError, GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0);
    if (dwError != NO_ERROR) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    uint64_t ullFingerprint = 0xCBF29CE484222325u;
    uint64_t ullBytes = 0;
    uint64_t ullFileSize = 0;
    DWORD dwBytesRead = KIVMP3_TRANSFER_BUFFER_SIZE;
    bool bRead = KIVMP3_get_file_size(hFile, &ullFileSize) == NO_ERROR;
    while (bRead && dwBytesRead == KIVMP3_TRANSFER_BUFFER_SIZE) {
        bRead =
            KIVMP3_read_file(hFile, buffer.get(), KIVMP3_TRANSFER_BUFFER_SIZE, &dwBytesRead) != 0;
        if (!bRead) {
            break;
        }
        ullBytes += dwBytesRead;
        memset(buffer.get() + dwBytesRead, 0, KIVMP3_TRANSFER_BUFFER_SIZE - dwBytesRead);
        for (DWORD dwByte = 0; dwByte < dwBytesRead; dwByte += 8) {
            uint64_t ullWord = 0;
            memcpy(&ullWord, buffer.get() + dwByte, sizeof ullWord);
            ullFingerprint = (ullFingerprint ^ ullWord) * 0x100000001B3u;
            ullFingerprint ^= ullFingerprint >> 32;
        }
    }
    KIVMP3_release_file(&hFile);
    if (!bRead || ullBytes != ullFileSize) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return ullFingerprint;
}

// Whether a file is the rebuilt one of a marker. After an edit that only moves bytes both files
// have one size, and the contents decide.
bool is_rebuilt_file(LPCSTR pszPath_p, uint64_t ullFileSize_p, CloseMarkerRecord const& rRecord_p) {
    return ullFileSize_p == rRecord_p.dwNewSize &&
           (rRecord_p.dwNewSize != rRecord_p.dwOldSize ||
            fingerprint_file(pszPath_p) == rRecord_p.ullNewFingerprint);
}

void delete_file(LPCSTR pszPath_p) {
    DWORD const dwError = KIVMP3_delete_file(pszPath_p);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(.)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void set_directory_aside(LPCSTR pszDirPath_p) {
    uint64_t ullDirSize = 0;
    if (find_file(pszDirPath_p, &ullDirSize) && !KIVMP3_set_file_aside(pszDirPath_p)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Brings the files of an interrupted close to one of its two ends. The marker is still there, so
// that a crash in here is met by the same decision again.
void settle_files(LPCSTR pszMarkerPath_p, CloseMarkerRecord const& rRecord_p) {
    char szSoundPath[MAX_PATH];
    char szRebuiltPath[MAX_PATH];
    char szDirPath[MAX_PATH];
    if (!beside_marker(pszMarkerPath_p, rRecord_p.szSoundName, szSoundPath) ||
        !beside_marker(pszMarkerPath_p, rRecord_p.szRebuiltName, szRebuiltPath) ||
        KIVMP3_make_sibling_path(szSoundPath, ".DIR", szDirPath) != FFD_NOERROR) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    uint64_t ullSoundSize = 0;
    uint64_t ullRebuiltSize = 0;
    bool const bSound = find_file(szSoundPath, &ullSoundSize);
    bool const bRebuilt = find_file(szRebuiltPath, &ullRebuiltSize);

    if (bSound && bRebuilt) {
        // Nothing was removed yet: the old file and its directory still hold every edit. A sound
        // file of another size was put there by somebody else: the rebuilt file is kept then, and
        // the directory belongs to neither.
        TRACE_INFO("interrupted close: forget the rebuilt file");
        if (ullSoundSize != rRecord_p.dwOldSize) {
            set_directory_aside(szDirPath);
        } else if (ullRebuiltSize == rRecord_p.dwNewSize) {
            delete_file(szRebuiltPath);
        }
    } else if (bRebuilt && ullRebuiltSize == rRecord_p.dwNewSize) {
        TRACE_INFO("interrupted close: give the rebuilt file its name");
        DWORD const dwError = KIVMP3_move_file(szRebuiltPath, szSoundPath);
        if (dwError != NO_ERROR) {
            TRACE_ERROR(dwError, "GetLastError() after MoveFile(..)");
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        delete_file(szDirPath);
    } else if (bSound && is_rebuilt_file(szSoundPath, ullSoundSize, rRecord_p)) {
        TRACE_INFO("interrupted close: remove the directory of the old file");
        delete_file(szDirPath);
    } else if (bSound && ullSoundSize != rRecord_p.dwOldSize) {
        TRACE_INFO("interrupted close: the directory belongs to another file");
        set_directory_aside(szDirPath);
    } else if (!bSound) {
        // Nothing here can be opened; everything stays for whoever looks into it.
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

} // namespace

FFDError CCloseMarker::write(LPCSTR pszSoundPath_p, LPCSTR pszRebuiltPath_p, DWORD dwOldSize_p,
                             DWORD dwNewSize_p) {
    TRACE_ENTRY("-----CCloseMarker::write(...)");
    CloseMarkerRecord record = {};
    memcpy(record.szMagic, szMarkerMagic, sizeof record.szMagic);
    record.dwOldSize = dwOldSize_p;
    record.dwNewSize = dwNewSize_p;
    if (!copy_file_name(pszSoundPath_p, record.szSoundName) ||
        !copy_file_name(pszRebuiltPath_p, record.szRebuiltName)) {
        return FFD_INVALID_PATH;
    }
    if (dwOldSize_p == dwNewSize_p) {
        try {
            record.ullNewFingerprint = fingerprint_file(pszRebuiltPath_p);
        } catch (FFDError ffdThrown) {
            return ffdThrown;
        }
    }
    record.dwCheck = check_of(record);

    FFDError const ffdError =
        KIVMP3_make_sibling_path(pszSoundPath_p, szMarkerExtension, m_szMarkerPath);
    if (ffdError != FFD_NOERROR) {
        m_szMarkerPath[0] = '\0';
        return ffdError;
    }
    DWORD dwError = NO_ERROR;
    CPatience oPatience; // with the name of the last marker
    do {
        m_hMarkerFile = KIVMP3_create_file(m_szMarkerPath, &dwError, GENERIC_READ | GENERIC_WRITE,
                                           0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
    } while (dwError != ERROR_SHARING_VIOLATION && oPatience.wait_for(m_szMarkerPath, dwError));
    if (dwError != NO_ERROR) {
        m_szMarkerPath[0] = '\0';
        return FFD_FILE_IO_ERROR;
    }
    DWORD dwBytesWritten = 0;
    if (!KIVMP3_write_file(m_hMarkerFile, &record, sizeof record, &dwBytesWritten) ||
        dwBytesWritten != sizeof record || !FlushFileBuffers(m_hMarkerFile)) {
        remove();
        return FFD_FILE_IO_ERROR;
    }
    return FFD_NOERROR;
}

void CCloseMarker::leave() {
    if (m_hMarkerFile != nullptr) {
        KIVMP3_release_file(&m_hMarkerFile);
    }
}

FFDError CCloseMarker::remove() {
    leave();
    if (m_szMarkerPath[0] == '\0') {
        return FFD_NOERROR;
    }
    DWORD const dwError = KIVMP3_delete_file(m_szMarkerPath);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(m_szMarkerPath)");
        return FFD_FILE_IO_ERROR;
    }
    m_szMarkerPath[0] = '\0';
    return FFD_NOERROR;
}

void CCloseMarker::finish_interrupted_close(LPCSTR pszSoundPath_p) {
    TRACE_ENTRY("-----CCloseMarker::finish_interrupted_close(.)");
    char szMarkerPath[MAX_PATH];
    char szDirPath[MAX_PATH];
    FFDError ffdError = KIVMP3_make_sibling_path(pszSoundPath_p, szMarkerExtension, szMarkerPath);
    if (ffdError == FFD_NOERROR) {
        // The open is going to refuse such a name: no file may change for its sake.
        ffdError = KIVMP3_make_sibling_path(pszSoundPath_p, ".DIR", szDirPath);
    }
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by KIVMP3_make_sibling_path(...)");
        throw FFDError{ffdError};
    }
    DWORD dwError = NO_ERROR;
    HANDLE hMarkerFile =
        KIVMP3_open_existing_file(szMarkerPath, GENERIC_READ | GENERIC_WRITE, 0, &dwError);
    if (hMarkerFile == nullptr) {
        if (dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND) {
            return;
        }
        TRACE_ERROR(dwError, "GetLastError() after CreateFile()");
        throw FFDError{FFD_FILE_IO_ERROR};
    }

    // Larger than the record by a byte, so that a longer file shows. A read that stops short of the
    // file's end says nothing about the marker.
    BYTE abyContents[sizeof(CloseMarkerRecord) + 1] = {};
    DWORD dwBytesRead = 0;
    uint64_t ullMarkerSize = 0;
    bool const bRead =
        KIVMP3_get_file_size(hMarkerFile, &ullMarkerSize) == NO_ERROR &&
        KIVMP3_read_file(hMarkerFile, abyContents, sizeof abyContents, &dwBytesRead) != 0 &&
        dwBytesRead == std::min<uint64_t>(ullMarkerSize, sizeof abyContents);
    CloseMarkerRecord record;
    memcpy(&record, abyContents, sizeof record);
    bool const bWhole = bRead && dwBytesRead == sizeof record && is_marker_of(szMarkerPath, record);
    FFDError ffdSettled = bRead ? FFD_NOERROR : FFD_FILE_IO_ERROR;
    if (bWhole) {
        try {
            settle_files(szMarkerPath, record);
        } catch (FFDError ffdThrown) {
            ffdSettled = ffdThrown;
        }
    }
    KIVMP3_release_file(&hMarkerFile);
    if (ffdSettled != FFD_NOERROR) {
        TRACE_ERROR(ffdSettled, "interrupted close can not be settled");
        throw FFDError{ffdSettled};
    }
    if (bWhole || dwBytesRead == 0) {
        delete_file(szMarkerPath);
    } else if (!KIVMP3_set_file_aside(szMarkerPath)) {
        // Torn by a crash in front of every other step of its close, or nobody's marker.
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void CCloseMarker::refuse_close_in_progress(LPCSTR pszSoundPath_p) {
    char szMarkerPath[MAX_PATH];
    uint64_t ullMarkerSize = 0;
    if (KIVMP3_make_sibling_path(pszSoundPath_p, szMarkerExtension, szMarkerPath) != FFD_NOERROR ||
        find_file(szMarkerPath, &ullMarkerSize)) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "close in progress -> FFD_FILE_IO_ERROR");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}
