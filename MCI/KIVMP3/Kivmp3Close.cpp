// The close: decides whether the file as it lies is the dictation, and rebuilds it if it is not.
// The rebuild puts the dictation together in a temporary file beside the MP3 file
// (Kivmp3Rebuild.cpp), which then takes the place of the old one.

#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "MCI/KIVMP3/Patience.h"

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
    FFDError const ffdError = settle_mp3_file();
    release_mp3_file();
    return settle_dir_file(ffdError);
}

// Makes the MP3 file the dictation.
FFDError CKivmp3::settle_mp3_file() {
    int nKindOfClose = 0;
    m_oDirFile.get_kind_of_close(m_dwFileSize - m_dwFirstFrame, &nKindOfClose);
    bool const bRebuild = nKindOfClose == KIVMP3_CLOSE_REBUILD;
    // Whatever ends or fails from here on, the next open must find the directory as it is now.
    // Without the .DIR file in hand nothing is replaced: whoever has it may edit the file by then.
    if (!m_oDirFile.flush_before_close()) {
        return TRACED_ERROR(FFD_FILE_IO_ERROR,
                            "dir file is held by somebody else -> FFD_FILE_IO_ERROR");
    }
    bool const bEdited = m_oDirFile.is_changed() || m_oDirFile.is_adopted();
    if (!bRebuild && !bEdited) {
        return FFD_NOERROR;
    }
    try {
        // What no name leads to vanishes with its handle, and any edit with it.
        bool const bNeeded = look_at_name() == NameLeads::Here ? bRebuild : bEdited;
        if (!bNeeded) {
            return FFD_NOERROR;
        }
    } catch (FFDError ffdThrown) {
        return ffdThrown;
    }
    FFDError const ffdError = rebuild_and_close_wav_file(!bRebuild);
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by rebuild_and_close_wav_file()");
    }
    return ffdError;
}

void CKivmp3::release_mp3_file() {
    m_oDirFile.set_sound_file(nullptr);
    if (m_hMp3File != nullptr) {
        KIVMP3_release_file(&m_hMp3File);
    }
}

// Removes the .DIR file of a finished close, and leaves it behind a failed one. The status of the
// close.
FFDError CKivmp3::settle_dir_file(FFDError ffdSettled_p) {
    // Only the directory knows now what the dictation is: the .DIR file holds it for the next open.
    bool const bKeepDirFile = ffdSettled_p != FFD_NOERROR;
    // A .DIR file that was lost may be in use elsewhere, or gone with a close there.
    if (bKeepDirFile && m_oDirFile.is_held()) {
        m_oDirFile.flush_dir_file();
    }
    FFDError const ffdReleased = m_oDirFile.close_dir_memory_mapping();
    if (ffdReleased != FFD_NOERROR) {
        TRACE_ERROR(ffdReleased, "by close_dir_memory_mapping()");
    }
    FFDError ffdRemoved = ffdReleased;
    if (bKeepDirFile && m_bNameLost) {
        // It describes neither the file that has the name now, nor the one that will.
        m_oDirFile.set_directory_file_aside();
    } else if (!bKeepDirFile && ffdReleased == FFD_NOERROR) {
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
    return ffdSettled_p != FFD_NOERROR ? ffdSettled_p : ffdRemoved;
}

// Whether the name of the MP3 file still leads to it: somebody may have replaced it since the open,
// or removed it.
CKivmp3::NameLeads CKivmp3::look_at_name() {
    PlatformFileIdentity found = {};
    DWORD dwError = NO_ERROR;
    if (m_hMp3File != nullptr && !PlatformGetFileIdentity(m_hMp3File, &m_Mp3Identity)) {
        dwError = GetLastError();
    } else if (!PlatformGetNameIdentity(m_szFilePath, &found)) {
        dwError = GetLastError();
        if (dwError == ERROR_FILE_NOT_FOUND) {
            m_bNameLost = true;
            return NameLeads::Nowhere;
        }
    }
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "file can not be looked at");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    m_bNameLost = found != m_Mp3Identity;
    return m_bNameLost ? NameLeads::Elsewhere : NameLeads::Here;
}

// Puts the dictation together in a temporary file, by the directory or as the file lies, and gives
// that the name of the MP3 file.
FFDError CKivmp3::rebuild_and_close_wav_file(bool bAsItLies_p) {
    TRACE_ENTRY("-----CKivmp3::rebuild_and_close_wav_file()");
    FFDError ffdError = FFD_NOERROR;
    HANDLE hNewFile = nullptr;
    try {
        check_rebuild_space();
        char szTmpPath[MAX_PATH];
        hNewFile = create_temp_file(szTmpPath);
        if (bAsItLies_p) {
            copy_as_it_lies(hNewFile);
        } else {
            reorganize(hNewFile);
        }
        DWORD const dwNewFileSize = finish_temp_file(hNewFile);
        if (look_at_name() == NameLeads::Elsewhere) {
            leave_temp_file(szTmpPath);
        }
        write_close_marker(szTmpPath, &hNewFile, dwNewFileSize);
        release_mp3_file();
        KIVMP3_release_file(&hNewFile);
        replace_mp3_file(szTmpPath);
    } catch (FFDError ffdThrown) {
        TRACE_ERROR(ffdThrown, "catched in rebuild_file()");
        ffdError = ffdThrown;
    }
    release_mp3_file();
    if (hNewFile != nullptr) {
        KIVMP3_release_file(&hNewFile);
    }
    return ffdError;
}

void CKivmp3::check_rebuild_space() {
    DWORD dwFreeBytes = 0;
    TELL_NEED(m_dwFileSize);
    if (KIVMP3_get_disk_free_space_ex(m_cstrWorkPath.c_str(), &dwFreeBytes) != NO_ERROR ||
        m_dwFileSize > dwFreeBytes) {
        TRACE_ERROR(FFD_ERR_NOT_ENOUGH_DSPACE, "FFD_ERR_NOT_ENOUGH_DSPACE for Rebuild");
        throw FFDError{FFD_ERR_NOT_ENOUGH_DSPACE};
    }
}

HANDLE CKivmp3::create_temp_file(char (&szTmpPath_p)[MAX_PATH]) {
    CClockName oName(m_cstrWorkPath.c_str(), REBUILT_FILE_EXTENSION, MOST_SECONDS_FOR_NAME, true);
    DWORD dwError = NO_ERROR;
    do {
        if (!oName.form(szTmpPath_p)) {
            break;
        }
        HANDLE const hNewFile =
            KIVMP3_create_private_file(szTmpPath_p, &dwError, GENERIC_READ | GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, m_hMp3File);
        if (hNewFile != nullptr) {
            if (!PlatformCopyPermissions(m_hMp3File, hNewFile, false)) {
                TRACE_ERROR(GetLastError(), "GetLastError() after PlatformCopyPermissions(..)");
            }
            return hNewFile;
        }
    } while (oName.wait_if_taken(szTmpPath_p, dwError));
    throw FFDError{TRACED_ERROR(FFD_FILE_IO_ERROR, "FFD_FILE_IO_ERROR: cannot create temp file")};
}

// The size of the temporary file, which is on the disk then: not before that the old file goes.
DWORD CKivmp3::finish_temp_file(HANDLE hNewFile) {
    uint64_t ullNewFileSize = 0;
    DWORD dwError = FlushFileBuffers(hNewFile) ? NO_ERROR : GetLastError();
    if (dwError == NO_ERROR) {
        dwError = KIVMP3_get_file_size(hNewFile, &ullNewFileSize);
    }
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after FlushFileBuffers(.)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return static_cast<DWORD>(ullNewFileSize);
}

// From here on the next open for writing knows what to finish or to forget. The MP3 file is still
// held: whoever waits for it to come free can't get in between and make the close fail.
void CKivmp3::write_close_marker(LPCSTR pszTmpPath_p, HANDLE* phNewFile_p, DWORD dwNewFileSize_p) {
    FFDError const ffdError =
        m_oCloseMarker.write({m_szFilePath, m_hMp3File, m_dwFileSize, m_oDirFile.fingerprint(),
                              pszTmpPath_p, *phNewFile_p, dwNewFileSize_p});
    if (ffdError == FFD_NOERROR) {
        return;
    }
    TRACE_ERROR(ffdError, "by CCloseMarker::write(.)");
    // On a full disk it would be in the way for good.
    KIVMP3_release_file(phNewFile_p);
    DWORD const dwError = KIVMP3_delete_file(pszTmpPath_p);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(.)");
    }
    throw FFDError{ffdError == FFD_ERR_NOT_ENOUGH_DSPACE ? ffdError : FFD_FILE_IO_ERROR};
}

// Removes the MP3 file, and nothing that has taken its name meanwhile.
void CKivmp3::remove_mp3_file(LPCSTR pszTmpPath_p) {
    DWORD dwError = NO_ERROR;
    CPatience oPatience;
    do {
        if (look_at_name() == NameLeads::Elsewhere) {
            leave_temp_file(pszTmpPath_p);
        }
        dwError = DeleteFileA(m_szFilePath) ? NO_ERROR : GetLastError();
    } while (oPatience.wait_for(m_szFilePath, dwError));
    if (dwError != NO_ERROR && dwError != ERROR_FILE_NOT_FOUND) {
        TRACE_ERROR(dwError, "GetLastError() after DeleteFile(.)");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Lets the finished temporary file take the place of the MP3 file.
void CKivmp3::replace_mp3_file(LPCSTR pszTmpPath_p) {
    bool const bReadOnly = PlatformIsReadOnly(m_szFilePath); // since the open
    try {
        remove_mp3_file(pszTmpPath_p);
    } catch (FFDError) {
        m_oCloseMarker.remove();
        throw;
    }
    m_bNameLost = false;
    DWORD const dwError = KIVMP3_move_file(pszTmpPath_p, m_szFilePath);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after MoveFile(..) Tmp to Current Wave file.");
        if (dwError == ERROR_ALREADY_EXISTS || dwError == ERROR_FILE_EXISTS) {
            m_bNameLost = true;
            m_oCloseMarker.remove();
            leave_temp_file(pszTmpPath_p);
        }
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (bReadOnly) { // last, for such a file can't be removed
        PlatformSetReadOnly(m_szFilePath);
    }
}

// Tells where the dictation is, whose name another file has, and ends the close.
void CKivmp3::leave_temp_file(LPCSTR pszTmpPath_p) {
    char szText[MAX_PATH + 64];
    snprintf(szText, sizeof szText, "file was replaced while it was open; the dictation is in %s",
             pszTmpPath_p);
    TRACE_ERROR(FFD_FILE_IO_ERROR, szText);
    throw FFDError{FFD_FILE_IO_ERROR};
}
