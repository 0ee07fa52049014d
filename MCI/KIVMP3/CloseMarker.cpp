#include "MCI/KIVMP3/CloseMarker.h"

#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Patience.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

constexpr char MARKER_MAGIC[] = "XKIVCLM1";
constexpr char MARKER_EXTENSION[] = ".CLM";

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

DWORD folded(uint64_t ullFingerprint_p) {
    return static_cast<DWORD>((ullFingerprint_p ^ ullFingerprint_p >> 32) & 0xFFFFFFFFu);
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

// A name that stands in a marker must be only a name, so that it can't reach out of the directory.
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

// By the letters of English; nothing is decided by it.
bool is_same_but_for_case(LPCSTR pszName1_p, LPCSTR pszName2_p) {
    auto const lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    return std::equal(pszName1_p, pszName1_p + strlen(pszName1_p) + 1, pszName2_p,
                      pszName2_p + strlen(pszName2_p) + 1,
                      [&](char c1, char c2) { return lower(c1) == lower(c2); });
}

// Whether a name in a marker is that of the sound file. On a Linux file system that takes letters
// of either case for the same, two spellings lead to one file.
bool names_sound_file(LPCSTR pszName_p, LPCSTR pszSoundPath_p) {
    char szSoundName[MAX_PATH];
    char szNamedPath[MAX_PATH];
    if (!copy_file_name(pszSoundPath_p, szSoundName) ||
        !beside_marker(pszSoundPath_p, pszName_p, szNamedPath)) {
        return false;
    }
    PlatformFileIdentity sound = {};
    PlatformFileIdentity named = {};
    return PlatformSameFileName(szSoundName, pszName_p) ||
           (is_same_but_for_case(szSoundName, pszName_p) &&
            PlatformGetNameIdentity(pszSoundPath_p, &sound) &&
            PlatformGetNameIdentity(szNamedPath, &named) && sound == named);
}

// What lies under the name of a marker.
enum class Kind {
    Marker,     // a whole one, of this sound file
    OtherSound, // a whole one, of another sound file with the same stem
    Empty,      // made, and a crash came
    Torn,       // what a crash leaves of one: cut short, or with bytes that never reached the disk
    Foreign     // somebody's file
};

// Of the dwBytes_p bytes that the file has, at most one more than a record.
Kind kind_of_marker(LPCSTR pszSoundPath_p, BYTE const* pbyContents_p, DWORD dwBytes_p,
                    CloseMarkerRecord* pRecord_p) {
    if (dwBytes_p == 0 || dwBytes_p > sizeof *pRecord_p) {
        return dwBytes_p == 0 ? Kind::Empty : Kind::Foreign;
    }
    *pRecord_p = {};
    memcpy(pRecord_p, pbyContents_p, dwBytes_p);
    if (dwBytes_p < sizeof *pRecord_p || pRecord_p->dwCheck != check_of(*pRecord_p)) {
        bool const bZeros = std::all_of(pbyContents_p, pbyContents_p + dwBytes_p,
                                        [](BYTE byByte) { return byByte == 0; });
        size_t const nMagic = std::min<size_t>(dwBytes_p, sizeof pRecord_p->szMagic);
        bool const bBegun = memcmp(pRecord_p->szMagic, MARKER_MAGIC, nMagic) == 0;
        return bZeros || bBegun ? Kind::Torn : Kind::Foreign;
    }
    PlatformPathParts sound;
    PlatformPathParts named;
    if (memcmp(pRecord_p->szMagic, MARKER_MAGIC, sizeof pRecord_p->szMagic) != 0 ||
        !is_plain_name(pRecord_p->szSoundName) || !is_plain_name(pRecord_p->szRebuiltName) ||
        !CClockName::is_name(pRecord_p->szRebuiltName, REBUILT_FILE_EXTENSION, true) ||
        PlatformSameFileName(pRecord_p->szRebuiltName, pRecord_p->szSoundName) ||
        !PlatformSplitPath(pszSoundPath_p, &sound) ||
        !PlatformSplitPath(pRecord_p->szSoundName, &named)) {
        return Kind::Foreign;
    }
    if (names_sound_file(pRecord_p->szSoundName, pszSoundPath_p)) {
        return Kind::Marker;
    }
    return PlatformSameFileName(sound.szStem, named.szStem) ? Kind::OtherSound : Kind::Foreign;
}

// False if the file could not be read to its end.
bool read_marker(HANDLE hFile, LPCSTR pszSoundPath_p, Kind* pKind_p, CloseMarkerRecord* pRecord_p) {
    // Larger than the record by a byte, so that a longer file shows. A read that stops short of the
    // file's end says nothing about the marker.
    BYTE abyContents[sizeof(CloseMarkerRecord) + 1] = {};
    DWORD dwBytesRead = 0;
    uint64_t ullFileSize = 0;
    if (KIVMP3_get_file_size(hFile, &ullFileSize) != NO_ERROR ||
        !KIVMP3_read_file(hFile, abyContents, sizeof abyContents, &dwBytesRead) ||
        dwBytesRead != std::min<uint64_t>(ullFileSize, sizeof abyContents)) {
        return false;
    }
    *pKind_p = kind_of_marker(pszSoundPath_p, abyContents, dwBytesRead, pRecord_p);
    return true;
}

// Opens what the driver may keep beside a sound file. Null if it is not there; throws for a file
// that can't be opened, or that the driver must not touch.
HANDLE open_companion(LPCSTR pszPath_p, LPCSTR pszSoundPath_p, DWORD dwShareMode_p) {
    DWORD dwError = NO_ERROR;
    HANDLE const hFile =
        KIVMP3_open_companion(pszPath_p, pszSoundPath_p, &dwError, GENERIC_READ, dwShareMode_p);
    if (dwError != NO_ERROR && dwError != ERROR_FILE_NOT_FOUND && dwError != ERROR_PATH_NOT_FOUND) {
        TRACE_ERROR(dwError, "GetLastError() after CreateFile()");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return hFile;
}

// The size of an open file, which is closed then; false for a null handle. A file that can't be
// asked throws.
bool take_size(HANDLE hFile, uint64_t* pullFileSize_p) {
    if (hFile == nullptr) {
        return false;
    }
    DWORD const dwError = KIVMP3_get_file_size(hFile, pullFileSize_p);
    KIVMP3_release_file(&hFile);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "file can not be looked at");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return true;
}

// Opens the sound file to look at it; null if there is none.
HANDLE open_sound_file(LPCSTR pszSoundPath_p) {
    DWORD dwError = NO_ERROR;
    HANDLE const hFile =
        KIVMP3_open_existing_file(pszSoundPath_p, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  FILE_ATTRIBUTE_NORMAL, &dwError);
    if (dwError != NO_ERROR && dwError != ERROR_FILE_NOT_FOUND) {
        TRACE_ERROR(dwError, "file can not be looked at");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return hFile;
}

// Whether a file is the rebuilt one of a marker. After an edit that only moves bytes both files
// have one size, and the contents decide.
bool is_rebuilt_file(LPCSTR pszPath_p, uint64_t ullFileSize_p, CloseMarkerRecord const& rRecord_p) {
    if (ullFileSize_p != rRecord_p.dwNewSize || rRecord_p.dwNewSize != rRecord_p.dwOldSize) {
        return ullFileSize_p == rRecord_p.dwNewSize;
    }
    HANDLE hFile = open_sound_file(pszPath_p);
    uint64_t ullFingerprint = 0;
    FFDError const ffdError =
        hFile == nullptr ? FFD_FILE_IO_ERROR : KIVMP3_fingerprint_file(hFile, &ullFingerprint);
    if (hFile != nullptr) {
        KIVMP3_release_file(&hFile);
    }
    if (ffdError != FFD_NOERROR) {
        throw FFDError{ffdError};
    }
    return ullFingerprint == rRecord_p.ullNewFingerprint;
}

void delete_file(LPCSTR pszPath_p) {
    DWORD const dwError = KIVMP3_delete_file(pszPath_p);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(.)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void set_directory_aside(LPCSTR pszDirPath_p, bool bDir_p) {
    if (bDir_p && !KIVMP3_set_file_aside(pszDirPath_p)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Whether the .DIR file is as the close flushed it. A loss of power may have kept it from the disk.
bool holds_directory(LPCSTR pszDirPath_p, LPCSTR pszSoundPath_p,
                     CloseMarkerRecord const& rRecord_p) {
    HANDLE hFile = open_companion(pszDirPath_p, pszSoundPath_p, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (hFile == nullptr) {
        return false;
    }
    uint64_t ullFingerprint = 0;
    FFDError const ffdError = KIVMP3_fingerprint_file(hFile, &ullFingerprint);
    KIVMP3_release_file(&hFile);
    if (ffdError != FFD_NOERROR) {
        throw FFDError{ffdError};
    }
    return folded(ullFingerprint) == rRecord_p.dwDirFingerprint;
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
    constexpr DWORD dwShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
    uint64_t ullSoundSize = 0;
    uint64_t ullRebuiltSize = 0;
    uint64_t ullDirSize = 0;
    bool const bSound = take_size(open_sound_file(szSoundPath), &ullSoundSize);
    bool const bRebuilt =
        take_size(open_companion(szRebuiltPath, szSoundPath, dwShare), &ullRebuiltSize);
    bool const bDir = take_size(open_companion(szDirPath, szSoundPath, dwShare), &ullDirSize);

    bool const bRebuiltWhole = bRebuilt && ullRebuiltSize == rRecord_p.dwNewSize;
    bool bReplace = bRebuiltWhole && !bSound;
    if (bRebuiltWhole && bSound && ullSoundSize == rRecord_p.dwOldSize &&
        rRecord_p.dwDirFingerprint != 0 && !holds_directory(szDirPath, szSoundPath, rRecord_p)) {
        // The rebuilt file, which was flushed before the marker, is what holds every edit.
        TRACE_INFO("interrupted close: the directory has not reached the disk");
        delete_file(szSoundPath);
        bReplace = true;
    }
    if (bReplace) {
        TRACE_INFO("interrupted close: give the rebuilt file its name");
        DWORD const dwError = KIVMP3_move_file(szRebuiltPath, szSoundPath);
        if (dwError != NO_ERROR) {
            TRACE_ERROR(dwError, "GetLastError() after MoveFile(..)");
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        delete_file(szDirPath);
    } else if (bSound && bRebuilt) {
        // Nothing was removed yet: the old file and its directory still hold every edit. A sound
        // file of another size was put there by somebody else: the rebuilt file is kept then, and
        // the directory belongs to neither.
        TRACE_INFO("interrupted close: forget the rebuilt file");
        if (ullSoundSize != rRecord_p.dwOldSize) {
            set_directory_aside(szDirPath, bDir);
        } else if (bRebuiltWhole) {
            delete_file(szRebuiltPath);
        }
    } else if (bSound && is_rebuilt_file(szSoundPath, ullSoundSize, rRecord_p)) {
        TRACE_INFO("interrupted close: remove the directory of the old file");
        delete_file(szDirPath);
    } else if (bSound && ullSoundSize != rRecord_p.dwOldSize) {
        TRACE_INFO("interrupted close: the directory belongs to another file");
        set_directory_aside(szDirPath, bDir);
    } else if (!bSound) {
        // Nothing here can be opened; everything stays for whoever looks into it.
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Frees the name of the marker from a file that is none. One of another sound file with the same
// stem is what its next open needs.
bool set_foreign_file_aside(LPCSTR pszMarkerPath_p, LPCSTR pszSoundPath_p) {
    try {
        HANDLE hFile = open_companion(pszMarkerPath_p, pszSoundPath_p, 0);
        if (hFile == nullptr) {
            return true;
        }
        Kind kind = Kind::OtherSound;
        CloseMarkerRecord record;
        bool const bRead = read_marker(hFile, pszSoundPath_p, &kind, &record);
        KIVMP3_release_file(&hFile);
        return bRead && kind != Kind::OtherSound && KIVMP3_set_file_aside(pszMarkerPath_p) != 0;
    } catch (FFDError) {
        return false;
    }
}

} // namespace

FFDError CCloseMarker::write(CloseMarkerFiles const& rFiles_p) {
    TRACE_ENTRY("-----CCloseMarker::write(.)");
    CloseMarkerRecord record = {};
    memcpy(record.szMagic, MARKER_MAGIC, sizeof record.szMagic);
    record.dwOldSize = rFiles_p.dwOldSize;
    record.dwDirFingerprint = folded(rFiles_p.ullDirFingerprint);
    record.dwNewSize = rFiles_p.dwNewSize;
    if (!copy_file_name(rFiles_p.pszSoundPath, record.szSoundName) ||
        !copy_file_name(rFiles_p.pszRebuiltPath, record.szRebuiltName)) {
        return FFD_INVALID_PATH;
    }
    if (record.dwOldSize == record.dwNewSize) {
        FFDError const ffdError =
            KIVMP3_fingerprint_file(rFiles_p.hRebuiltFile, &record.ullNewFingerprint);
        if (ffdError != FFD_NOERROR) {
            return ffdError;
        }
    }
    record.dwCheck = check_of(record);

    char szMarkerPath[MAX_PATH];
    FFDError const ffdError =
        KIVMP3_make_sibling_path(rFiles_p.pszSoundPath, MARKER_EXTENSION, szMarkerPath);
    if (ffdError != FFD_NOERROR) {
        return ffdError;
    }
    DWORD dwError = create_file(szMarkerPath, rFiles_p.hSoundFile);
    if ((dwError == ERROR_FILE_EXISTS || dwError == ERROR_ALREADY_EXISTS) &&
        set_foreign_file_aside(szMarkerPath, rFiles_p.pszSoundPath)) {
        dwError = create_file(szMarkerPath, rFiles_p.hSoundFile);
    }
    if (dwError == NO_ERROR) {
        memcpy(m_szMarkerPath, szMarkerPath, sizeof szMarkerPath);
        dwError = write_record(rFiles_p.hSoundFile, record);
        if (dwError == NO_ERROR) {
            return FFD_NOERROR;
        }
        remove();
    }
    return dwError == ERROR_DISK_FULL ? FFD_ERR_NOT_ENOUGH_DSPACE : FFD_FILE_IO_ERROR;
}

// The error number, 0 on success.
DWORD CCloseMarker::create_file(LPCSTR pszMarkerPath_p, HANDLE hSoundFile_p) {
    DWORD dwError = NO_ERROR;
    CPatience oPatience; // with the name of the last marker
    do {
        m_hMarkerFile = KIVMP3_create_private_file(pszMarkerPath_p, &dwError,
                                                   GENERIC_READ | GENERIC_WRITE, 0, hSoundFile_p);
    } while (dwError != ERROR_SHARING_VIOLATION && oPatience.wait_for(pszMarkerPath_p, dwError));
    return dwError;
}

// The error number, 0 on success. Whoever may edit the sound file may finish its close.
DWORD CCloseMarker::write_record(HANDLE hSoundFile_p, CloseMarkerRecord const& rRecord_p) {
    if (!PlatformCopyPermissions(hSoundFile_p, m_hMarkerFile, true)) {
        TRACE_ERROR(GetLastError(), "GetLastError() after PlatformCopyPermissions(..)");
    }
    DWORD dwBytesWritten = 0;
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_write_file(m_hMarkerFile, &rRecord_p, sizeof rRecord_p, &dwBytesWritten,
                           &dwError)) {
        return dwError;
    }
    if (dwBytesWritten != sizeof rRecord_p) {
        return ERROR_DISK_FULL;
    }
    return FlushFileBuffers(m_hMarkerFile) ? NO_ERROR : GetLastError();
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
    FFDError ffdError = KIVMP3_make_sibling_path(pszSoundPath_p, MARKER_EXTENSION, szMarkerPath);
    if (ffdError == FFD_NOERROR) {
        // The open is going to refuse such a name: no file may change for its sake.
        ffdError = KIVMP3_make_sibling_path(pszSoundPath_p, ".DIR", szDirPath);
    }
    if (ffdError != FFD_NOERROR) {
        throw FFDError{TRACED_ERROR(ffdError, "by KIVMP3_make_sibling_path(...)")};
    }
    HANDLE hMarkerFile = open_companion(szMarkerPath, pszSoundPath_p, 0);
    if (hMarkerFile == nullptr) {
        return;
    }
    Kind kind = Kind::Foreign;
    CloseMarkerRecord record;
    FFDError ffdSettled = FFD_NOERROR;
    if (!read_marker(hMarkerFile, pszSoundPath_p, &kind, &record) || kind == Kind::OtherSound) {
        ffdSettled = FFD_FILE_IO_ERROR;
    } else if (kind == Kind::Marker) {
        try {
            settle_files(szMarkerPath, record);
        } catch (FFDError ffdThrown) {
            ffdSettled = ffdThrown;
        }
    }
    KIVMP3_release_file(&hMarkerFile);
    if (ffdSettled != FFD_NOERROR) {
        throw FFDError{TRACED_ERROR(ffdSettled, "interrupted close can not be settled")};
    }
    // A torn one is left of a crash before every other step of its close.
    if (kind == Kind::Marker || kind == Kind::Empty) {
        delete_file(szMarkerPath);
    } else if (kind == Kind::Torn && !KIVMP3_set_file_aside(szMarkerPath)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void CCloseMarker::refuse_close_in_progress(LPCSTR pszSoundPath_p) {
    char szMarkerPath[MAX_PATH];
    Kind kind = Kind::Marker;
    CloseMarkerRecord record;
    if (KIVMP3_make_sibling_path(pszSoundPath_p, MARKER_EXTENSION, szMarkerPath) == FFD_NOERROR) {
        HANDLE hMarkerFile =
            open_companion(szMarkerPath, pszSoundPath_p, FILE_SHARE_READ | FILE_SHARE_WRITE);
        if (hMarkerFile == nullptr) {
            return;
        }
        bool const bRead = read_marker(hMarkerFile, pszSoundPath_p, &kind, &record);
        KIVMP3_release_file(&hMarkerFile);
        if (bRead && kind == Kind::Foreign) {
            return;
        }
    }
    throw FFDError{TRACED_ERROR(FFD_FILE_IO_ERROR, "close in progress -> FFD_FILE_IO_ERROR")};
}
