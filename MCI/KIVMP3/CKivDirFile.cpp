// The storage of the edit directory: where the .DIR file lies, how the buffer is obtained, how it
// is committed and released.

#include "MCI/KIVMP3/CKivDirFile.h"

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Patience.h"

#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

void CKivDirFile::create_directory_file(LPCSTR pszFilePath_p, FFDCreation ffdCreation_p,
                                        FFDDesiredAccess ffdDesiredAccess_p) {
    TRACE_ENTRY("-----CKivDirFile::create_directory_file(...)");
    TRACE_PARAM("pszFilePath_p", "%s", pszFilePath_p);
    m_szDirFilePath[0] = '\0';
    m_pszSoundPath = pszFilePath_p;
    m_bReadOnly = ffdDesiredAccess_p == FFD_ACCESS_READWRITE ? FALSE : TRUE;
    TRACE_INFO(m_bReadOnly ? "Desired Access: READ ONLY" : "Desired Access: READ/WRITE");
    if (!m_bReadOnly) {
        FFDError const ffdError = KIVMP3_make_sibling_path(pszFilePath_p, ".DIR", m_szDirFilePath);
        if (ffdError != FFD_NOERROR) {
            m_szDirFilePath[0] = '\0';
            TRACE_ERROR(ffdError, ffdError == FFD_INVALID_PATH
                                      ? "no path for DIR-file -> FFD_INVALID_PATH"
                                      : "no filename for DIR-file -> FFD_FILE_IO_ERROR");
            throw FFDError{ffdError};
        }
    }
    create_directory_mapping(m_szDirFilePath, ffdCreation_p);
    if (ffdCreation_p == FFD_CREATE_NEW) {
        TRACE_INFO("Reset dir file");
        set_first_entry(0);
    }
}

void CKivDirFile::create_directory_mapping(LPCSTR pszFilePath_p, FFDCreation ffdCreation_p) {
    TRACE_ENTRY("-----CKivDirFile::create_directory_mapping(..)");
    TRACE_PARAM("pszFilePath_p", "%s", pszFilePath_p);
    m_dwDirSize = DIR_FILE_SIZE;
    if (m_bReadOnly) {
        map_buffer();
        return;
    }
    DWORD dwFileSize = 0;
    if (ffdCreation_p == FFD_OPEN_EXISTING && open_existing_file(&dwFileSize)) {
        m_dwDirSize = get_buffer_size(dwFileSize);
        allocate_buffer(dwFileSize);
        if (!is_damaged(dwFileSize)) {
            clear_behind_end();
            m_bAdopted = !is_new_directory();
            return;
        }
        KIVMP3_free_block(m_psDirHeader);
        m_psDirHeader = nullptr;
        m_dwDirSize = DIR_FILE_SIZE;
        set_damaged_file_aside();
    }
    if (m_hDirFile == nullptr) {
        open_new_file();
    }
    allocate_buffer(0);
}

// Opens the .DIR file; if it may be made and is not there, makes it. The error number, 0 on
// success. A file that another process has made in between is opened as it is: it would hold its
// edits. One that is not known to be the directory's has to be looked at before anything else is
// done with it.
DWORD CKivDirFile::open_dir_file(bool bMake_p, bool* pbMade_p) {
    constexpr int nMostTries = 10;
    DWORD dwError = ERROR_FILE_NOT_FOUND;
    *pbMade_p = false;
    for (int nTry = 0; nTry < nMostTries; ++nTry) {
        m_hDirFile = KIVMP3_open_existing_file(
            m_szDirFilePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, &dwError);
        if (dwError != ERROR_FILE_NOT_FOUND || !bMake_p) {
            return dwError;
        }
        m_hDirFile = PlatformCreatePrivateFile(m_szDirFilePath, GENERIC_READ | GENERIC_WRITE,
                                               FILE_SHARE_READ, nullptr);
        if (m_hDirFile != INVALID_HANDLE_VALUE) {
            *pbMade_p = true;
            m_bPermissionsDue = true;
            give_permissions();
            return NO_ERROR;
        }
        dwError = GetLastError();
        m_hDirFile = nullptr;
        if (dwError != ERROR_FILE_EXISTS && dwError != ERROR_ALREADY_EXISTS) {
            return dwError;
        }
    }
    return dwError;
}

// The same for the first time: whatever file it is becomes the directory's.
DWORD CKivDirFile::take_dir_file(bool bMake_p) {
    bool bMade = false;
    DWORD dwError = open_dir_file(bMake_p, &bMade);
    if (dwError == NO_ERROR &&
        ((!bMade && !PlatformTestCompanion(m_hDirFile, m_szDirFilePath, m_pszSoundPath)) ||
         !PlatformGetFileIdentity(m_hDirFile, &m_DirIdentity))) {
        dwError = GetLastError();
        close_dir_file();
    }
    return dwError;
}

// The same for the file that was let go after a flush: a file of another identity and with other
// bytes than were written is let go again, untouched, with error 1006.
DWORD CKivDirFile::reopen_dir_file(bool bMake_p) {
    bool bMade = false;
    DWORD dwError = open_dir_file(bMake_p, &bMade);
    PlatformFileIdentity found = {};
    if (dwError == NO_ERROR && !PlatformGetFileIdentity(m_hDirFile, &found)) {
        dwError = GetLastError();
    }
    bool bOwn = dwError == NO_ERROR && (bMade || found == m_DirIdentity);
    if (dwError == NO_ERROR && !bOwn) {
        if (PlatformTestCompanion(m_hDirFile, m_szDirFilePath, m_pszSoundPath)) {
            bOwn = holds_bytes_of_last_flush();
        } else {
            dwError = GetLastError();
        }
    }
    if (bOwn) {
        m_DirIdentity = found;
        m_bLost = false;
        return NO_ERROR;
    }
    note_lost();
    if (is_held()) {
        KIVMP3_release_file(&m_hDirFile);
    }
    return dwError == NO_ERROR ? ERROR_FILE_INVALID : dwError;
}

// Keeps in mind what the .DIR file holds, as long as that is still in the buffer.
void CKivDirFile::note_lost() {
    if (!m_bLost) {
        m_bLost = true;
        m_ullLostFingerprint = fingerprint();
    }
}

uint64_t CKivDirFile::fingerprint() const {
    CFingerprint oFingerprint;
    oFingerprint.add(reinterpret_cast<BYTE const*>(m_psDirHeader), m_dwDirSize);
    return oFingerprint.get();
}

// Of the file that is open now; its identity may have changed, as it does on some file systems.
bool CKivDirFile::holds_bytes_of_last_flush() {
    note_lost();
    uint64_t ullFingerprint = 0;
    return KIVMP3_fingerprint_file(m_hDirFile, &ullFingerprint) == FFD_NOERROR &&
           ullFingerprint == m_ullLostFingerprint;
}

void CKivDirFile::set_sound_file(HANDLE hSoundFile_p) {
    m_hSoundFile = hSoundFile_p;
    give_permissions();
}

void CKivDirFile::give_permissions() {
    if (m_bPermissionsDue && m_hSoundFile != nullptr && is_held()) {
        m_bPermissionsDue = false;
        if (!PlatformCopyPermissions(m_hSoundFile, m_hDirFile, true)) {
            TRACE_ERROR(GetLastError(), "GetLastError() after PlatformCopyPermissions(..)");
        }
    }
}

// Whether there is a .DIR file with contents, open then, with its size in bytes. An empty one,
// which never saw a flush, is open too: made anew, it could be another process's by then.
bool CKivDirFile::open_existing_file(DWORD* pdwFileSize_p) {
    DWORD dwError = take_dir_file(false);
    if (dwError == ERROR_FILE_NOT_FOUND) {
        TRACE_INFO("dir file does not exist");
        return false;
    }
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after CreateFile()");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    TRACE_INFO("Existing directory file");
    uint64_t ullFileSize = 0;
    dwError = KIVMP3_get_file_size(m_hDirFile, &ullFileSize);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after GetFileSize(..)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (ullFileSize > DIR_FILE_SIZE_MOST) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "dir file is damaged: too large");
        set_damaged_file_aside();
        return false;
    }
    if (ullFileSize == 0) {
        m_bPermissionsDue = true; // a crash may have come first
        return false;
    }
    *pdwFileSize_p = static_cast<DWORD>(ullFileSize);
    return true;
}

void CKivDirFile::set_damaged_file_aside() {
    KIVMP3_release_file(&m_hDirFile);
    m_hDirFile = nullptr;
    if (!KIVMP3_set_file_aside(m_szDirFilePath)) {
        throw FFDError{TRACED_ERROR(FFD_FILE_IO_ERROR, "by KIVMP3_set_file_aside(.)")};
    }
}

void CKivDirFile::open_new_file() {
    DWORD const dwError = take_dir_file(true);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after CreateFile(...)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void CKivDirFile::map_buffer() {
    m_hDirFileMapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, m_dwDirSize, nullptr);
    if (m_hDirFileMapping == nullptr) {
        TRACE_ERROR(GetLastError(), "GetLastError() after CreateFileMapping(...)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    m_psDirHeader =
        static_cast<DirEntry*>(MapViewOfFile(m_hDirFileMapping, FILE_MAP_WRITE, 0, 0, m_dwDirSize));
    m_bMapped = TRUE;
    if (m_psDirHeader == nullptr) {
        TRACE_ERROR(GetLastError(), "GetLastError() after MapViewOfFile(...)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// A zeroed buffer of m_dwDirSize bytes with the dwFileSize_p bytes of the file in it;
// FFD_FILE_IO_ERROR if the file holds fewer or more.
void CKivDirFile::allocate_buffer(DWORD dwFileSize_p) {
    HANDLE const hHeap = GetProcessHeap();
    void* pvBuffer = HeapAlloc(hHeap, HEAP_ZERO_MEMORY, m_dwDirSize);
    DWORD dwError = NO_ERROR;
    if (pvBuffer == nullptr) {
        dwError = GetLastError();
    } else {
        DWORD dwBytesRead = 0;
        bool const bRead =
            ReadFile(m_hDirFile, pvBuffer, m_dwDirSize, &dwBytesRead, nullptr) != FALSE;
        // A read that stops short of the size just asked for would pass for a shorter directory.
        if (!bRead || dwBytesRead != dwFileSize_p) {
            dwError = bRead ? ERROR_HANDLE_EOF : GetLastError();
            KIVMP3_free_block(pvBuffer);
            pvBuffer = nullptr;
        }
    }
    m_psDirHeader = static_cast<DirEntry*>(pvBuffer);
    m_bMapped = FALSE;
    if (m_psDirHeader == nullptr) {
        TRACE_ERROR(dwError, "GetLastError() after MapViewOfFile(...)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

FFDError CKivDirFile::flush_dir_file(DWORD* pdwError_p) {
    TRACE_ENTRY("-----CKivDirFile::flush_dir_file()");
    set_flush_pending();
    DWORD dwError = reopen_lost_file();
    if (dwError == NO_ERROR) {
        dwError = write_dir_file();
    }
    if (pdwError_p != nullptr) {
        *pdwError_p = dwError;
    }
    return dwError == NO_ERROR ? FFD_NOERROR : FFD_FILE_IO_ERROR;
}

// The error number of what failed, 0 on success.
DWORD CKivDirFile::write_dir_file() {
    DWORD dwError = NO_ERROR;
    DWORD dwBytesWritten = 0;
    if (KIVMP3_set_file_pointer(m_hDirFile, 0, &dwError)) {
        if (!WriteFile(m_hDirFile, m_psDirHeader, m_dwDirSize, &dwBytesWritten, nullptr)) {
            dwError = GetLastError();
        } else if (dwBytesWritten != m_dwDirSize) {
            dwError = ERROR_DISK_FULL;
        }
    }
    if (dwError != NO_ERROR) {
        return TRACED_ERROR(dwError, "GetLastError() after WriteFile(..) -> FFD_FILE_IO_ERROR");
    }
    // Closing and opening again is the commit.
    if (!CloseHandle(m_hDirFile)) {
        dwError = GetLastError();
        return TRACED_ERROR(dwError, "GetLastError() after CloseHandle(..) -> FFD_FILE_IO_ERROR");
    }
    m_bOnDisk = true;
    m_hDirFile = nullptr;
    m_bLost = false;
    dwError = reopen_dir_file(false);
    if (dwError != NO_ERROR) {
        return TRACED_ERROR(dwError, "GetLastError() after CreateFile(..) -> FFD_FILE_IO_ERROR");
    }
    m_bFlushPending = false;
    return NO_ERROR;
}

bool CKivDirFile::flush_before_close() {
    if (is_held() && !is_under_its_name()) {
        KIVMP3_release_file(&m_hDirFile);
        set_flush_pending();
        TRACE_ERROR(ERROR_FILE_INVALID, "dir file is another file by now");
        if (!set_other_file_aside()) {
            return false;
        }
    }
    if (!m_bFlushPending) {
        return true;
    }
    bool const bOnDisk = m_bOnDisk;
    // Another process that finds the .DIR file let go holds it until it sees that it comes second.
    DWORD dwError = NO_ERROR;
    CPatience oPatience;
    do {
        flush_dir_file(&dwError);
    } while (!is_held() && dwError == ERROR_SHARING_VIOLATION &&
             oPatience.wait_for(m_szDirFilePath, dwError));
    if (dwError == ERROR_FILE_INVALID) {
        return set_other_file_aside() && flush_dir_file() == FFD_NOERROR;
    }
    bool const bHeldElsewhere = !is_held() && dwError == ERROR_SHARING_VIOLATION;
    return dwError != ERROR_CANT_ACCESS_FILE && !(bHeldElsewhere && (bOnDisk || m_bOnDisk));
}

// Renames the file that has come under the .DIR file's name to ".bad", unless somebody holds it or
// it is none that this driver may touch. Whether the name is free.
bool CKivDirFile::set_other_file_aside() {
    DWORD dwError = NO_ERROR;
    HANDLE hFile =
        KIVMP3_open_companion(m_szDirFilePath, m_pszSoundPath, &dwError, GENERIC_READ, 0);
    if (hFile != nullptr) {
        KIVMP3_release_file(&hFile);
        return KIVMP3_set_file_aside(m_szDirFilePath) != 0;
    }
    return dwError == ERROR_FILE_NOT_FOUND;
}

bool CKivDirFile::is_held() const {
    return m_hDirFile != INVALID_HANDLE_VALUE && m_hDirFile != nullptr;
}

// Gets the .DIR file back that an earlier flush wrote but could not open again, or makes it. The
// error number, 0 on success.
DWORD CKivDirFile::reopen_lost_file() {
    if (is_held()) {
        return NO_ERROR;
    }
    DWORD const dwError = reopen_dir_file(true);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after CreateFile(..) -> FFD_FILE_IO_ERROR");
    }
    return dwError;
}

FFDError CKivDirFile::close_dir_file() {
    if (m_hDirFile == INVALID_HANDLE_VALUE) {
        m_hDirFile = nullptr;
    }
    if (m_hDirFile == nullptr) {
        return FFD_NOERROR;
    }
    DWORD const dwError = KIVMP3_release_file(&m_hDirFile);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after CloseHandle(m_hDirFile)");
        return FFD_FILE_IO_ERROR;
    }
    return FFD_NOERROR;
}

FFDError CKivDirFile::close_dir_memory_mapping() {
    TRACE_ENTRY("-----CKivDirFile::close_dir_memory_mapping()");
    FFDError ffdError = FFD_NOERROR;
    if (m_psDirHeader != nullptr) {
        BOOL const bReleased =
            m_bMapped ? UnmapViewOfFile(m_psDirHeader) || UnmapViewOfFile(m_psDirHeader)
                      : KIVMP3_free_block(m_psDirHeader);
        if (bReleased) {
            m_psDirHeader = nullptr;
        } else {
            TRACE_ERROR(GetLastError(), m_bMapped
                                            ? "GetLastError() after UnmapViewOfFile(m_psDirHeader)"
                                            : "GetLastError() after HeapFree(GetProcessHeap(), 0, "
                                              "m_psDirHeader)");
            ffdError = FFD_FILE_IO_ERROR;
        }
    }
    if (m_bMapped) {
        if (m_hDirFileMapping != nullptr) {
            DWORD const dwError = KIVMP3_release_file(&m_hDirFileMapping);
            if (dwError != NO_ERROR) {
                TRACE_ERROR(dwError, "GetLastError() after CloseHandle(m_hDirFileMapping)");
                ffdError = FFD_FILE_IO_ERROR;
            }
        }
        m_bMapped = FALSE;
    }
    return close_dir_file() != FFD_NOERROR ? FFD_FILE_IO_ERROR : ffdError;
}

// Whether the name of the .DIR file still leads to it. A name that is gone counts as such.
bool CKivDirFile::is_under_its_name() {
    PlatformFileIdentity found = {};
    if (is_held()) { // the present one: on some file systems it changes
        PlatformGetFileIdentity(m_hDirFile, &m_DirIdentity);
    }
    return !PlatformGetNameIdentity(m_szDirFilePath, &found) || found == m_DirIdentity;
}

FFDError CKivDirFile::delete_directory_file() {
    TRACE_ENTRY("-----CKivDirFile::delete_directory_file()");
    FFDError ffdError = close_dir_file();
    if (!m_bReadOnly && m_szDirFilePath[0] != '\0') {
        DWORD dwError = NO_ERROR;
        if (is_under_its_name()) {
            dwError = KIVMP3_delete_file(m_szDirFilePath);
        } else if (!set_other_file_aside()) {
            dwError = ERROR_FILE_INVALID;
        }
        if (dwError != NO_ERROR) {
            TRACE_ERROR(dwError, "GetLastError() after DeleteFile(m_szDirFilePath)");
            ffdError = FFD_FILE_IO_ERROR;
        }
    }
    m_dwDataLengthInBy = 0;
    m_psDirHeader = nullptr;
    m_dwDirSize = 0;
    m_bReadOnly = FALSE;
    m_szDirFilePath[0] = '\0';
    return ffdError;
}

FFDError CKivDirFile::set_directory_file_aside() {
    FFDError const ffdError = close_dir_file();
    return set_other_file_aside() ? ffdError : FFD_FILE_IO_ERROR;
}

void CKivDirFile::set_first_entry(DWORD dwEndpos_p) {
    memset(m_psDirHeader, 0, m_dwDirSize);
    m_psDirHeader[0].Status = DIR_STATUS_LIVE;
    m_psDirHeader[0].Endpos = dwEndpos_p;
}

void CKivDirFile::replace_entries(void const* pvEntries_p) {
    memcpy(m_psDirHeader, pvEntries_p, m_dwDirSize);
    set_flush_pending();
}
