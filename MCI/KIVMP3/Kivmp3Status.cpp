// The snapshot of the edit state: stored in a ".csf" file in the temporary directory, which stays
// open, and belongs to this object, until the next store or the close. Audio is never changed in
// place, so the directory of an earlier moment still describes the file.
//
// The file: the count of entries, the entries, then m_ffdCreateTime (64 bits), m_ffdCurrentPosInBy,
// m_ffdDataLengthInBy and m_msLength (32 bits each), without any gap; docs/formats.md shows one.

#include "MCI/convert.h"
#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"

#include <cstring>
#include <ctime>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// How long a store waits for a name, in seconds.
constexpr DWORD MOST_SECONDS_FOR_NAME = 3;

void write_field(HANDLE hFile_p, void const* pvField_p, DWORD dwBytes_p, LPCSTR pszFailed_p) {
    DWORD dwBytesWritten = 0;
    if (!KIVMP3_write_file(hFile_p, pvField_p, dwBytes_p, &dwBytesWritten) ||
        dwBytesWritten != dwBytes_p) {
        if (pszFailed_p != nullptr) {
            TRACE_ERROR(0, pszFailed_p);
        }
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

void read_field(HANDLE hFile_p, void* pvField_p, DWORD dwBytes_p, LPCSTR pszFailed_p) {
    DWORD dwBytesRead = 0;
    if (!KIVMP3_read_file(hFile_p, pvField_p, dwBytes_p, &dwBytesRead) ||
        dwBytesRead != dwBytes_p) {
        if (pszFailed_p != nullptr) {
            TRACE_ERROR(FFD_FILE_IO_ERROR, pszFailed_p);
        }
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

} // namespace

FFDError CKivmp3::FFDStoreActualFileStatus() {
    TRACE_ENTRY("-----CKivmp3::FFDStoreActualFileStatus()");
    if (m_oDirFile.is_read_only()) {
        return TRACED_ERROR(FFD_ERROR_READ_ONLY, "FFD_ERROR_READ_ONLY StoreActualFileStatus");
    }
    try {
        drop_stored_status();
        cut_entries_to_file();
        create_status_file();
        write_status();
    } catch (FFDError ffdThrown) {
        TRACE_ERROR(ffdThrown, "catched in FFDStoreActualFileStatus()");
        // A file that is not whole must not be taken for a stored status.
        drop_stored_status();
        return ffdThrown;
    }
    return FFD_NOERROR;
}

// Closes and removes the .csf file, if there is one; failures are traced and the rest goes on.
void CKivmp3::drop_stored_status() {
    if (m_hStatusFile != nullptr) {
        DWORD const dwError = KIVMP3_release_file(&m_hStatusFile);
        if (dwError != NO_ERROR) {
            TRACE_ERROR(dwError, "GetLastError() after CloseHandle(m_hStatusFile)");
        }
        m_hStatusFile = nullptr;
    }
    if (m_szFileStatusPath[0] != '\0') {
        if (!DeleteFileA(m_szFileStatusPath)) {
            TRACE_ERROR(GetLastError(), "GetLastError() after DeleteFile(m_szFileStatusPath)");
        }
        m_szFileStatusPath[0] = '\0';
    }
}

// A snapshot must not lay claim to bytes behind the end of the file: a later write puts its own
// there.
void CKivmp3::cut_entries_to_file() {
    uint64_t ullEndOfFile = 0;
    if (KIVMP3_get_file_size(m_hMp3File, &ullEndOfFile) == NO_ERROR &&
        ullEndOfFile >= m_dwFirstFrame && ullEndOfFile <= 0xFFFFFFFFu) {
        cut_entries_behind(ullEndOfFile);
    }
}

void CKivmp3::create_status_file() {
    char szTmpPath[MAX_PATH];
    if (!KIVMP3_get_system_temp_path(szTmpPath, MAX_PATH)) {
        TRACE_ERROR(0, "KIVWAVE_get_system_temp_path(szTmpPath, _MAX_PATH)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    // The host may change the working directory while the status is stored.
    char szFullPath[MAX_PATH];
    DWORD dwDirectoryLength = 0;
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_get_full_path(szTmpPath, szFullPath, &dwDirectoryLength, &dwError)) {
        if (dwError == ERROR_FILENAME_EXCED_RANGE) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        memcpy(szFullPath, szTmpPath, sizeof szFullPath);
    }
    CClockName oName(szFullPath, ".csf", MOST_SECONDS_FOR_NAME, false);
    do {
        if (!oName.form(m_szFileStatusPath)) {
            break;
        }
        m_hStatusFile =
            PlatformCreatePrivateFile(m_szFileStatusPath, GENERIC_READ | GENERIC_WRITE, 0, nullptr);
        if (m_hStatusFile != INVALID_HANDLE_VALUE) {
            return;
        }
        dwError = GetLastError();
        TRACE_ERROR(dwError, "GetLastError() after CreateFile(...) Filestatus file");
        m_hStatusFile = nullptr;
    } while (oName.wait_if_taken(m_szFileStatusPath, dwError));
    m_szFileStatusPath[0] = '\0'; // the name belongs to somebody else
    throw FFDError{FFD_FILE_IO_ERROR};
}

void CKivmp3::write_status() {
    DirEntry const* const psHeader = m_oDirFile.get_dir_header();
    DirEntry const* const psEnd = psHeader + m_oDirFile.count_entries();
    DWORD const dwSizeOfEntries = PtrdiffTToDWord(reinterpret_cast<BYTE const*>(psEnd) -
                                                  reinterpret_cast<BYTE const*>(psHeader));
    DWORD const dwNrOfEntries = dwSizeOfEntries / static_cast<DWORD>(sizeof(DirEntry));
    TRACE_VALUE("dwNrOfEntries", "%lu", dwNrOfEntries);
    write_field(m_hStatusFile, &dwNrOfEntries, sizeof dwNrOfEntries,
                "by KIVMP3_write_file(...) dwNrOfEntries -> FFD_FILE_IO_ERROR");
    write_field(m_hStatusFile, psHeader, dwSizeOfEntries,
                "by KIVMP3_write_file(...) m_oDirFile.get_dir_header()-> FFD_FILE_IO_ERROR");
    write_field(m_hStatusFile, &m_ffdCreateTime, sizeof m_ffdCreateTime, nullptr);
    write_field(m_hStatusFile, &m_ffdCurrentPosInBy, sizeof m_ffdCurrentPosInBy, nullptr);
    write_field(m_hStatusFile, &m_ffdDataLengthInBy, sizeof m_ffdDataLengthInBy, nullptr);
    write_field(m_hStatusFile, &m_msLength, sizeof m_msLength, nullptr);
    if (m_oDirFile.is_changed()) {
        m_ffdModTime = time(nullptr);
    }
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_set_file_pointer(m_hStatusFile, 0, &dwError)) {
        TRACE_ERROR(dwError, "GetLastError() after SetFilePointer() file status file");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

FFDError CKivmp3::FFDRestoreFileStatus() {
    TRACE_ENTRY("-----CKivmp3::FFDRestoreFileStatus()");
    if (m_oDirFile.is_read_only()) {
        return TRACED_ERROR(FFD_ERROR_READ_ONLY, "FFD_ERROR_READ_ONLY RestoreFileStatus");
    }
    try {
        if (m_szFileStatusPath[0] == '\0' || m_hStatusFile == nullptr) {
            throw FFDError{TRACED_ERROR(FFD_NO_STORED_FILE_STATUS, "FFD_NO_STORED_FILE_STATUS")};
        }
        read_status();
    } catch (FFDError ffdThrown) {
        return TRACED_ERROR(ffdThrown, "catched in FFDRestoreFileStatus()");
    }
    return FFD_NOERROR;
}

// Reads the whole file before anything changes, so that a failure leaves all as it was.
void CKivmp3::read_status() {
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_set_file_pointer(m_hStatusFile, 0, &dwError)) {
        TRACE_ERROR(dwError, "GetLastError() after SetFilePointer() filestatus file");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    constexpr LPCSTR pszEntriesFailed =
        "by KIVMP3_read_file(...) directory entries -> FFD_FILE_IO_ERROR";
    DWORD dwNrOfEntries = 0;
    read_field(m_hStatusFile, &dwNrOfEntries, sizeof dwNrOfEntries,
               "by KIVMP3_read_file(...) dwNrOfEntries -> FFD_FILE_IO_ERROR");
    DWORD const dwDirSize = m_oDirFile.get_dir_size();
    CHeapBlock const entries(dwDirSize);
    if (entries.get() == nullptr || dwNrOfEntries > m_oDirFile.get_capacity()) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, pszEntriesFailed);
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    memset(entries.get(), 0, dwDirSize);
    read_field(m_hStatusFile, entries.get(), dwNrOfEntries * static_cast<DWORD>(sizeof(DirEntry)),
               pszEntriesFailed);
    int64_t ffdCreateTime = 0;
    DWORD ffdCurrentPosInBy = 0;
    DWORD ffdDataLengthInBy = 0;
    DWORD msLength = 0;
    read_field(m_hStatusFile, &ffdCreateTime, sizeof ffdCreateTime, nullptr);
    read_field(m_hStatusFile, &ffdCurrentPosInBy, sizeof ffdCurrentPosInBy, nullptr);
    read_field(m_hStatusFile, &ffdDataLengthInBy, sizeof ffdDataLengthInBy, nullptr);
    read_field(m_hStatusFile, &msLength, sizeof msLength, nullptr);
    check_status(reinterpret_cast<DirEntry const*>(entries.get()), dwNrOfEntries,
                 ffdCurrentPosInBy);

    m_oDirFile.replace_entries(entries.get());
    m_ffdCreateTime = ffdCreateTime;
    m_ffdCurrentPosInBy = ffdCurrentPosInBy;
    m_ffdDataLengthInBy = ffdDataLengthInBy;
    m_msLength = msLength;
    m_oDirFile.ascertain_data_length();
}

// Nobody else can open the file while it counts, but what it holds is about to become the
// directory.
void CKivmp3::check_status(DirEntry const* psEntries_p, DWORD dwNrOfEntries_p,
                           DWORD dwCurrentPosInBy_p) {
    constexpr DWORD dwSizeOfFields = 24;
    uint64_t ullFileSize = 0;
    bool bWhole = KIVMP3_get_file_size(m_hStatusFile, &ullFileSize) == NO_ERROR &&
                  ullFileSize == dwSizeOfFields + uint64_t{dwNrOfEntries_p} * sizeof(DirEntry) &&
                  CKivDirFile::check_entries(psEntries_p, dwNrOfEntries_p) == FFD_NOERROR;
    uint64_t ullLength = 0;
    for (DWORD dwEntry = 0; bWhole && dwEntry < dwNrOfEntries_p; ++dwEntry) {
        ullLength += psEntries_p[dwEntry].live_size();
    }
    if (!bWhole || dwCurrentPosInBy_p > ullLength) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "file status file is damaged -> FFD_FILE_IO_ERROR");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}
