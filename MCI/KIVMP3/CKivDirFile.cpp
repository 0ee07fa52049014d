// The storage of the edit directory: where the .DIR file lies, how the buffer is obtained, how it
// is committed and released.

#include "MCI/KIVMP3/CKivDirFile.h"

#include "MCI/KIVMP3/INTERNAL.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// How long a close tries to get the .DIR file back, in seconds.
constexpr int64_t MOST_SECONDS_FOR_FLUSH = 3;

} // namespace

void CKivDirFile::create_directory_file(LPCSTR pszFilePath_p, FFDCreation ffdCreation_p,
                                        FFDDesiredAccess ffdDesiredAccess_p) {
    TRACE_ENTRY("-----CKivDirFile::create_directory_file(...)");
    TRACE_PARAM("pszFilePath_p", "%s", pszFilePath_p);
    m_szDirFilePath[0] = '\0';
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
    if (ffdCreation_p == FFD_OPEN_EXISTING && open_existing_file(pszFilePath_p, &dwFileSize)) {
        m_dwDirSize = std::max(dwFileSize, DIR_FILE_SIZE);
        allocate_buffer(dwFileSize);
        if (!is_damaged(dwFileSize)) {
            clear_behind_end();
            return;
        }
        KIVMP3_free_block(m_psDirHeader);
        m_psDirHeader = nullptr;
        m_dwDirSize = DIR_FILE_SIZE;
        set_file_aside(pszFilePath_p);
    }
    if (m_hDirFile == nullptr) {
        open_new_file(pszFilePath_p);
    }
    allocate_buffer(0);
}

// Whether there is a .DIR file with contents, open then, with its size in bytes. An empty one,
// which never saw a flush, is open too: made anew, it could be another process's by then.
bool CKivDirFile::open_existing_file(LPCSTR pszFilePath_p, DWORD* pdwFileSize_p) {
    DWORD dwError = NO_ERROR;
    m_hDirFile = KIVMP3_open_existing_file(pszFilePath_p, GENERIC_READ | GENERIC_WRITE,
                                           FILE_SHARE_READ, &dwError);
    if (m_hDirFile == nullptr) {
        if (dwError == ERROR_FILE_NOT_FOUND) {
            TRACE_INFO("dir file does not exist");
            return false;
        }
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
        set_file_aside(pszFilePath_p);
        return false;
    }
    if (ullFileSize == 0) {
        return false;
    }
    *pdwFileSize_p = static_cast<DWORD>(ullFileSize);
    return true;
}

void CKivDirFile::set_file_aside(LPCSTR pszFilePath_p) {
    KIVMP3_release_file(&m_hDirFile);
    m_hDirFile = nullptr;
    if (!KIVMP3_set_file_aside(pszFilePath_p)) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "by KIVMP3_set_file_aside(.)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Leaves alone what a file of that name holds: it would be the edits of another process that came
// in between.
void CKivDirFile::open_new_file(LPCSTR pszFilePath_p) {
    m_hDirFile = CreateFileA(pszFilePath_p, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                             OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_hDirFile == INVALID_HANDLE_VALUE) {
        m_hDirFile = nullptr;
        TRACE_ERROR(GetLastError(), "GetLastError() after CreateFile(...)");
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
        TRACE_ERROR(dwError, "GetLastError() after WriteFile(..) -> FFD_FILE_IO_ERROR");
        return dwError;
    }
    // Closing and opening again is the commit.
    if (!CloseHandle(m_hDirFile)) {
        dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after CloseHandle(..) -> FFD_FILE_IO_ERROR");
        return dwError;
    }
    m_bOnDisk = true;
    m_hDirFile = CreateFileA(m_szDirFilePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                             nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_hDirFile == INVALID_HANDLE_VALUE) {
        dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after CreateFile(..) -> FFD_FILE_IO_ERROR");
        return dwError;
    }
    m_bFlushPending = false;
    return NO_ERROR;
}

bool CKivDirFile::flush_before_close() {
    if (!m_bFlushPending) {
        return true;
    }
    bool const bOnDisk = m_bOnDisk;
    // Another process that finds the .DIR file let go holds it until it sees that it comes second.
    int64_t const llBegin = time(nullptr);
    int64_t llNow = llBegin;
    bool bHeldElsewhere = true;
    while (bHeldElsewhere && llNow >= llBegin && llNow - llBegin <= MOST_SECONDS_FOR_FLUSH) {
        DWORD dwError = NO_ERROR;
        bHeldElsewhere = flush_dir_file(&dwError) != FFD_NOERROR && !is_held() &&
                         dwError == ERROR_SHARING_VIOLATION;
        llNow = time(nullptr);
    }
    return !(bHeldElsewhere && (bOnDisk || m_bOnDisk));
}

bool CKivDirFile::is_held() const {
    return m_hDirFile != INVALID_HANDLE_VALUE && m_hDirFile != nullptr;
}

// Gets the .DIR file back that an earlier flush wrote but could not open again. The error number, 0
// on success.
DWORD CKivDirFile::reopen_lost_file() {
    if (is_held()) {
        return NO_ERROR;
    }
    m_hDirFile = CreateFileA(m_szDirFilePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                             nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_hDirFile == INVALID_HANDLE_VALUE) {
        DWORD const dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after CreateFile(..) -> FFD_FILE_IO_ERROR");
        return dwError;
    }
    return NO_ERROR;
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

FFDError CKivDirFile::delete_directory_file() {
    TRACE_ENTRY("-----CKivDirFile::delete_directory_file()");
    FFDError ffdError = close_dir_file();
    if (!m_bReadOnly && m_szDirFilePath[0] != '\0') {
        DWORD const dwError = KIVMP3_delete_file(m_szDirFilePath);
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

bool CKivDirFile::is_new_directory() const {
    return m_psDirHeader[0].Status == 0 ||
           (m_psDirHeader[0].Endpos == 0 && m_psDirHeader[1].Status == 0);
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
