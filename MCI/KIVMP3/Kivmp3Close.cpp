// The close: decides whether the file as it lies is the dictation, and rebuilds it if it is not.
// The rebuild puts the dictation together in a temporary file beside the MP3 file
// (Kivmp3Rebuild.cpp), which then takes the place of the old one.

#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"

#include <cstdio>
#include <cstdlib>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// How long a close waits for a name of the temporary file, in seconds.
constexpr DWORD MOST_SECONDS_FOR_NAME = 10;

} // namespace

FFDError CKivmp3::FFDClose() {
    TRACE_ENTRY("-----CKivmp3::FFDClose()");
    FFDError const ffdError = final_closing_work();
    if (m_szFileStatusPath[0] != '\0') {
        if (DeleteFileA(m_szFileStatusPath)) {
            m_szFileStatusPath[0] = '\0';
        } else {
            TRACE_ERROR(GetLastError(), "GetLastError() after DeleteFile(m_szFileStatusPath)");
        }
    }
    return ffdError;
}

FFDError CKivmp3::final_closing_work() {
    TRACE_ENTRY("-----CKivmp3::final_closing_work()");
    FFDError ffdError = FFD_NOERROR;
    if (m_oDirFile.is_read_only()) {
        KIVMP3_release_file(&m_hMp3File);
        m_oDirFile.close_dir_memory_mapping();
    } else {
        ffdError = close_written_file();
    }
    free(m_pWfx);
    m_pWfx = nullptr;
    if (m_hStatusFile != nullptr) {
        DWORD const dwError = KIVMP3_release_file(&m_hStatusFile);
        if (dwError != NO_ERROR) {
            TRACE_ERROR(dwError, "GetLastError() after CloseHandle(m_hStatusFile)");
        }
    }
    return ffdError;
}

FFDError CKivmp3::close_written_file() {
    log_member_variables();
    m_oDirFile.log_dir_entries("Log at begin final_closing_work()");
    DWORD const dwFileSize = m_dwFileSize - m_dwFirstFrame;
    int nKindOfClose = 0;
    m_oDirFile.get_kind_of_close(dwFileSize, &nKindOfClose);
    FFDError ffdError = FFD_NOERROR;
    // Whatever ends or fails from here on, the next open must find the directory as it is now.
    // Without the .DIR file in hand nothing is replaced: whoever has it may edit the file by then.
    if (!m_oDirFile.flush_before_close()) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "dir file is held by somebody else -> FFD_FILE_IO_ERROR");
        ffdError = FFD_FILE_IO_ERROR;
        KIVMP3_release_file(&m_hMp3File);
    } else if (nKindOfClose == KIVMP3_CLOSE_REBUILD) {
        ffdError = rebuild_and_close_wav_file();
        if (ffdError != FFD_NOERROR) {
            TRACE_ERROR(ffdError, "by rebuild_and_close_wav_file()");
        }
    } else {
        KIVMP3_release_file(&m_hMp3File);
    }
    // Only the directory knows now what the dictation is: the .DIR file holds it for the next open.
    bool const bKeepDirFile = ffdError != FFD_NOERROR;
    // A .DIR file that was lost may be in use elsewhere, or gone with a close there.
    if (bKeepDirFile && m_oDirFile.is_held()) {
        m_oDirFile.flush_dir_file();
    }
    FFDError const ffdReleased = m_oDirFile.close_dir_memory_mapping();
    if (ffdReleased != FFD_NOERROR) {
        TRACE_ERROR(ffdReleased, "by close_dir_memory_mapping()");
    }
    FFDError ffdRemoved = ffdReleased;
    if (!bKeepDirFile && ffdReleased == FFD_NOERROR) {
        ffdRemoved = m_oDirFile.delete_directory_file();
        if (ffdRemoved != FFD_NOERROR) {
            TRACE_ERROR(ffdRemoved, "by delete_directory_file()");
        }
    }
    // A .DIR file that is still there must not be applied to the rebuilt file: the marker stays.
    if (!bKeepDirFile && ffdRemoved == FFD_NOERROR) {
        ffdRemoved = m_oCloseMarker.remove();
    } else {
        m_oCloseMarker.leave();
    }
    return ffdError != FFD_NOERROR ? ffdError : ffdRemoved;
}

FFDError CKivmp3::rebuild_and_close_wav_file() {
    TRACE_ENTRY("-----CKivmp3::rebuild_and_close_wav_file()");
    FFDError ffdError = FFD_NOERROR;
    HANDLE hNewFile = nullptr;
    try {
        check_rebuild_space();
        char szTmpPath[MAX_PATH];
        hNewFile = create_temp_file(szTmpPath);
        reorganize(hNewFile);
        if (!PlatformCopyPermissions(m_hMp3File, hNewFile)) {
            TRACE_ERROR(GetLastError(), "GetLastError() after PlatformCopyPermissions(..)");
        }
        // The old file goes only when the new one is on the disk.
        uint64_t ullNewFileSize = 0;
        if (!FlushFileBuffers(hNewFile) ||
            KIVMP3_get_file_size(hNewFile, &ullNewFileSize) != NO_ERROR) {
            TRACE_ERROR(GetLastError(), "GetLastError() after FlushFileBuffers(.)");
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        KIVMP3_release_file(&m_hMp3File);
        KIVMP3_release_file(&hNewFile);
        replace_mp3_file(szTmpPath, static_cast<DWORD>(ullNewFileSize));
    } catch (FFDError ffdThrown) {
        TRACE_ERROR(ffdThrown, "catched in rebuild_file()");
        ffdError = ffdThrown;
    }
    if (m_hMp3File != nullptr) {
        KIVMP3_release_file(&m_hMp3File);
    }
    if (hNewFile != nullptr) {
        KIVMP3_release_file(&hNewFile);
    }
    return ffdError;
}

void CKivmp3::check_rebuild_space() {
    DWORD dwFreeBytes = 0;
    if (KIVMP3_get_disk_free_space_ex(m_cstrWorkPath.c_str(), &dwFreeBytes) != NO_ERROR ||
        m_dwFileSize > dwFreeBytes) {
        TRACE_ERROR(FFD_ERR_NOT_ENOUGH_DSPACE, "FFD_ERR_NOT_ENOUGH_DSPACE for Rebuild");
        throw FFDError{FFD_ERR_NOT_ENOUGH_DSPACE};
    }
}

HANDLE CKivmp3::create_temp_file(char (&szTmpPath_p)[MAX_PATH]) {
    CClockName oName(m_cstrWorkPath.c_str(), ".MP3", MOST_SECONDS_FOR_NAME, true);
    DWORD dwError = NO_ERROR;
    do {
        if (!oName.form(szTmpPath_p)) {
            break;
        }
        HANDLE const hNewFile =
            KIVMP3_create_private_file(szTmpPath_p, &dwError, GENERIC_READ | GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, m_hMp3File);
        if (hNewFile != nullptr) {
            return hNewFile;
        }
    } while (oName.wait_if_taken(szTmpPath_p, dwError));
    TRACE_ERROR(FFD_FILE_IO_ERROR, "FFD_FILE_IO_ERROR: cannot create temp file");
    throw FFDError{FFD_FILE_IO_ERROR};
}

// Lets the finished temporary file take the place of the MP3 file, under the protection of the
// marker: from its writing on, the next open for writing knows what to finish or to forget.
void CKivmp3::replace_mp3_file(LPCSTR pszTmpPath_p, DWORD dwNewFileSize_p) {
    FFDError const ffdError =
        m_oCloseMarker.write(m_szFilePath, pszTmpPath_p, m_dwFileSize, dwNewFileSize_p);
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by CCloseMarker::write(...)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    bool const bReadOnly = PlatformIsReadOnly(m_szFilePath); // since the open
    DWORD dwError = KIVMP3_delete_file(m_szFilePath);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(.)");
        m_oCloseMarker.remove();
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    dwError = KIVMP3_move_file(pszTmpPath_p, m_szFilePath);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after MoveFile(..) Tmp to Current Wave file.");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (bReadOnly) { // last, for such a file can't be removed
        PlatformSetReadOnly(m_szFilePath);
    }
}
