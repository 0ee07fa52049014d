// The edits: writing, deleting, taking back, and the watch over the disk space while writing.
//
// New audio goes behind the end of the file, whatever position the host wants it at, and is on the
// disk before the directory names it. A delete touches only the directory. An
// overwrite is an insert followed by a delete.

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"

#include <algorithm>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

FFDError CKivmp3::FFDWriteData(FFDMethod ffdMethod, uint32_t ffdBufferSize, uint8_t* lpffdBuffer) {
    TRACE_ENTRY("-----CKivmp3::FFDWriteData(...)");
    TRACE_PARAM("ffdMethod", "%u", ffdMethod);
    TRACE_PARAM("ffdBufferSize", "%u", ffdBufferSize);
    if (m_oDirFile.is_read_only()) {
        return TRACED_ERROR(FFD_ERROR_READ_ONLY,
                            "FFD_ERROR_READ_ONLY WriteData CKivmp3::FFDWriteData()");
    }
    if (ffdBufferSize == 0) {
        return FFD_NOERROR;
    }
    if (ffdBufferSize % m_ffdSampinfo.wBlockAlign != 0) {
        return TRACED_ERROR(
            FFD_GRANULARITY_ERROR,
            "FFD_GRANULARITY_ERROR (ffdBufferSize % m_ffdSampinfo.wBlockAlign) != 0");
    }
    FFDError ffdError = FFD_NOERROR;
    try {
        write_data(ffdMethod, ffdBufferSize, lpffdBuffer);
    } catch (FFDError ffdThrown) {
        TRACE_ERROR(ffdThrown, "catched in FFDWriteData()");
        ffdError = ffdThrown;
    }
    m_oDirFile.log_dir_entries("Log at End of FFDWriteData()");
    return ffdError;
}

void CKivmp3::write_data(FFDMethod ffdMethod, uint32_t ffdBufferSize, uint8_t const* lpffdBuffer) {
    m_oDirFile.log_dir_entries("Log at begin of FFDWriteData()");
    int32_t nCheck = check_diskspace_send_warning(ffdBufferSize);
    if (nCheck != 0) {
        TRACE_ERROR(nCheck, "by check_diskspace_send_warning() before writing");
    }
    DirInsertPlan const plan =
        append_to_file(lpffdBuffer, ffdBufferSize, ffdMethod == FFD_METHOD_OVERWRITE);

    DirEntry dirEntryNew = {};
    dirEntryNew.Status = DIR_STATUS_LIVE;
    dirEntryNew.Endpos = m_dwFileSize - m_dwFirstFrame;
    dirEntryNew.Startpos = dirEntryNew.Endpos - ffdBufferSize;
    if (m_ffdCurrentPosInBy > dirEntryNew.Startpos) {
        m_ffdCurrentPosInBy = dirEntryNew.Startpos;
        TRACE_INFO("m_ffdCurrentPosInBy corrected");
    }
    m_oDirFile.insert_data(&dirEntryNew, plan);
    ascertain_data_length();
    m_ffdCurrentPosInBy += ffdBufferSize;

    // At the end of the dictation there is nothing to replace: the write was an append.
    if (ffdMethod == FFD_METHOD_OVERWRITE && m_ffdCurrentPosInBy < m_oDirFile.get_data_length()) {
        FFDError const ffdError = m_oDirFile.delete_data(ffdBufferSize, m_ffdCurrentPosInBy, 0);
        if (ffdError != FFD_NOERROR) {
            throw FFDError{TRACED_ERROR(ffdError, "by delete_data(..)")};
        }
        compute_length_in_ms();
    }
    // The edit is valid in memory: a flush that fails costs only the protection against a crash.
    m_oDirFile.flush_dir_file();
    nCheck = check_diskspace_send_warning(0);
    if (nCheck != 0) {
        TRACE_ERROR(nCheck, "by check_diskspace_send_warning() after writing");
    }
}

// Puts the audio behind the end of the file. The result is how the directory will take it in: all
// that can refuse comes before the write.
DirInsertPlan CKivmp3::append_to_file(uint8_t const* lpffdBuffer, DWORD dwBufferSize_p,
                                      bool bOverwrite_p) {
    TRACE_ENTRY("-----CKivmp3::append_to_file(..)");
    uint64_t ullEndOfFile = 0;
    if (!KIVMP3_seek_to_end(m_hMp3File, &ullEndOfFile)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (ullEndOfFile + dwBufferSize_p > 0xFFFFFFFFu || ullEndOfFile < m_dwFirstFrame) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "end of file out of range -> FFD_FILE_IO_ERROR");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    cut_entries_behind(ullEndOfFile);
    DWORD const dwNewStartpos = static_cast<DWORD>(ullEndOfFile) - m_dwFirstFrame;
    DirInsertPlan const plan = m_oDirFile.plan_insert(std::min(m_ffdCurrentPosInBy, dwNewStartpos),
                                                      dwNewStartpos, dwBufferSize_p, bOverwrite_p);
    if (!m_oDirFile.has_room_for(plan.dwNewEntries)) {
        TRACE_ERROR(FFD_ERROR_OUTOFMEMORY, "directory is full -> FFD_ERROR_OUTOFMEMORY");
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    // The positions of the new block rest on m_dwFileSize being the true end.
    m_dwFileSize = static_cast<DWORD>(ullEndOfFile);

    DWORD dwBytesWritten = 0;
    DWORD dwError = NO_ERROR;
    if (!KIVMP3_write_file(m_hMp3File, lpffdBuffer, dwBufferSize_p, &dwBytesWritten, &dwError) ||
        dwBytesWritten != dwBufferSize_p) {
        TRACE_ERROR(dwError, "GetLastError() after WriteFile(..) -> FFD_FILE_IO_ERROR");
        take_back_append(m_dwFileSize);
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    FlushFileBuffers(m_hMp3File);
    m_dwFileSize += dwBytesWritten;
    return plan;
}

// Entries that reach behind the end of the file, as for a last frame that it cuts short, would lay
// claim to the bytes of the next write. What they lose was never in the file, and the position
// stays in front of the audio that the host has heard there.
void CKivmp3::cut_entries_behind(uint64_t ullEndOfFile_p) {
    DWORD const dwEndOfFile = static_cast<DWORD>(ullEndOfFile_p) - m_dwFirstFrame;
    if (m_oDirFile.cut_entries(dwEndOfFile, &m_ffdCurrentPosInBy)) {
        ascertain_data_length();
        m_ffdCurrentPosInBy = std::min(m_ffdCurrentPosInBy, m_oDirFile.get_data_length());
    }
}

// Cuts the file back to its size before a write that failed.
void CKivmp3::take_back_append(DWORD dwOldFileSize_p) {
    DWORD dwError = NO_ERROR;
    if (KIVMP3_set_file_pointer(m_hMp3File, dwOldFileSize_p, &dwError)) {
        if (SetEndOfFile(m_hMp3File)) {
            return;
        }
        dwError = GetLastError();
    }
    TRACE_ERROR(dwError, "GetLastError() after SetEndOfFile()");
    uint64_t ullFileSize = 0;
    if (KIVMP3_get_file_size(m_hMp3File, &ullFileSize) == NO_ERROR && ullFileSize <= 0xFFFFFFFFu) {
        m_dwFileSize = static_cast<DWORD>(ullFileSize);
    }
}

FFDError CKivmp3::FFDDeleteData(uint32_t ffdLength) {
    TRACE_ENTRY("-----CKivmp3::FFDDeleteData(.)");
    TRACE_PARAM("ffdLength", "%u", ffdLength);
    if (m_oDirFile.is_read_only()) {
        return TRACED_ERROR(FFD_ERROR_READ_ONLY,
                            "FFD_ERROR_READ_ONLY DeleteData CKivmp3::FFDDeleteData()");
    }
    m_oDirFile.log_dir_entries("Log delete_data()");
    FFDError const ffdError = delete_data(ffdLength, 1);
    if (ffdError == FFD_NOERROR) {
        m_oDirFile.flush_dir_file();
    } else {
        TRACE_ERROR(ffdError, "by delete_data()");
    }
    m_oDirFile.set_changed();
    m_oDirFile.log_dir_entries("Log at end of FFDDeleteData()");
    return ffdError;
}

FFDError CKivmp3::delete_data(DWORD ffdLength_p, int bPureDelete_p) {
    TRACE_ENTRY("-----CKivmp3::delete_data(..)");
    TRACE_PARAM("ffdLength_p", "%u", ffdLength_p);
    // In a dictation shorter than a frame the difference wraps, and the test lets everything
    // through.
    if (m_ffdCurrentPosInBy > m_oDirFile.get_data_length() - m_pWfx->nBlockSize) {
        TRACE_INFO("m_ffdCurrentPosInBy == m_ffdDataLengthInBy, return FFD_NOERROR");
        return FFD_NOERROR;
    }
    FFDError const ffdError =
        m_oDirFile.delete_data(ffdLength_p, m_ffdCurrentPosInBy, bPureDelete_p);
    if (ffdError == FFD_NOERROR) {
        compute_length_in_ms();
    }
    return ffdError;
}

FFDError CKivmp3::FFDUndoLast() {
    TRACE_ENTRY("---CKivmp3::FFDUndoLast()");
    if (m_oDirFile.is_read_only()) {
        return TRACED_ERROR(FFD_ERROR_READ_ONLY, "FFD_ERROR_READ_ONLY UndoLast");
    }
    FFDError const ffdError = m_oDirFile.undo_last();
    if (ffdError == FFD_NOERROR) {
        compute_length_in_ms();
    }
    return ffdError;
}

// Compares the free space with twice the file and the directory's blocks, plus a reserve, and warns
// the host if it runs low: once until there is enough again, and at each run if there is none left.
// 0 if the check was made, -1 without a callback, -2 if the free space could not be found out.
int32_t CKivmp3::check_diskspace_send_warning(DWORD dwBytesToWrite_p) {
    TRACE_ENTRY("-----CKivmp3::check_diskspace_send_warning(.)");
    TRACE_PARAM("dwBytesToWrite_p", "%u", dwBytesToWrite_p);
    if (m_ffdCallbackParams.dwCallback == 0) {
        TRACE_ERROR(-1, "No callback parameter is existing in check_diskspace_send_warning()");
        return -1;
    }
    DWORD dwFreeDiskSpaceBytes = 0;
    DWORD const dwError =
        KIVMP3_get_disk_free_space_ex(m_cstrWorkPath.c_str(), &dwFreeDiskSpaceBytes);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "by KIVWAVE_get_disk_free_space_ex(..)");
        TRACE_ERROR(-2, "check_diskspace_send_warning() no free diskspace possible");
        return -2;
    }
    constexpr uint64_t ullMostSum = 0xFFFFFFFE;
    DWORD const dwBasicNeededBytes = needed_disk_space(dwBytesToWrite_p);
    DWORD const dwTotalWarningBytes =
        static_cast<DWORD>(std::min(uint64_t{m_dwDiskspaceWarningBytes} * 3, ullMostSum));
    DWORD const dwWarningEdge = static_cast<DWORD>(
        std::min(uint64_t{dwBasicNeededBytes} + dwTotalWarningBytes, ullMostSum));
    auto const send = [this](DWORD dwMessage_p, DWORD dwParam_p) {
        return DriverCallback(static_cast<DWORD_PTR>(m_ffdCallbackParams.dwCallback), DCB_FUNCTION,
                              static_cast<HDRVR>(m_ffdCallbackParams.hDriver), dwMessage_p,
                              static_cast<DWORD_PTR>(m_ffdCallbackParams.dwUser), dwParam_p, 0);
    };

    if (dwFreeDiskSpaceBytes <= dwBasicNeededBytes) {
        TRACE_INFO("Call DriverCallback with FIDM_OUT_OF_DISKSPACE");
        if (!send(FIDM_OUT_OF_DISKSPACE, m_dwDiskspaceWarningBytes)) {
            TRACE_ERROR(0, "by DriverCallback(...) FIDM_OUT_OF_DISKSPACE");
        }
    } else if (dwFreeDiskSpaceBytes < dwWarningEdge && !m_bDiskspaceWarned) {
        DWORD const dwRestSpaceBytes = (dwFreeDiskSpaceBytes - dwBasicNeededBytes) / 3;
        TRACE_INFO("Call DriverCallback with FIDM_DISKSPACE_WARNING");
        if (!send(FIDM_DISKSPACE_WARNING, dwRestSpaceBytes)) {
            TRACE_ERROR(0, "by DriverCallback(...) FIDM_DISKSPACE_WARNING");
        }
        m_bDiskspaceWarned = TRUE;
    }
    if (dwFreeDiskSpaceBytes > dwWarningEdge) {
        m_bDiskspaceWarned = FALSE;
    }
    return 0;
}

// Sums at and above 4 GiB stop just below the value that stands for that much free space.
DWORD CKivmp3::needed_disk_space(DWORD dwBytesToWrite_p) {
    uint64_t ullSum = ffd_basic_need(0);
    uint32_t dwDictationFileSize = 0;
    FFDError const ffdError = FFDGetDictationFileSize(&dwDictationFileSize);
    if (ffdError == FFD_NOERROR) {
        ullSum = uint64_t{dwDictationFileSize} + m_oDirFile.calc_data_size() + dwBytesToWrite_p;
    } else {
        TRACE_ERROR(ffdError, "by FFDGetDictationFileSize(.)");
    }
    return static_cast<DWORD>(std::min<uint64_t>(ffd_basic_need(ullSum), 0xFFFFFFFE));
}
