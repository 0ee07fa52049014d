// The close: decides whether the file as it lies is the dictation, and rebuilds it if it is not.
// The rebuild copies what the directory names into a temporary file beside the MP3 file, block by
// block in playing order, each brought back to whole frames; that file then takes the place of the
// old.

#include "MCI/KIVMP3/ClockName.h"
#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "MCI/KIVMP3/ReadAhead.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
                                       FILE_SHARE_READ | FILE_SHARE_WRITE);
        if (hNewFile != nullptr) {
            return hNewFile;
        }
    } while (oName.wait_if_taken(dwError));
    TRACE_ERROR(FFD_FILE_IO_ERROR, "FFD_FILE_IO_ERROR: cannot create temp file");
    throw FFDError{FFD_FILE_IO_ERROR};
}

void CKivmp3::reorganize(HANDLE hNewFile) {
    TRACE_ENTRY("-----CKivmp3::reorganize(.)");
    TRACE_PARAM("hNewFile", "%p", hNewFile);
    CHeapBlock const buffer(KIVMP3_TRANSFER_BUFFER_SIZE);
    if (buffer.get() == nullptr) {
        TRACE_ERROR(0, "by malloc(KIVMP3_TRANSFER_BUFFER_SIZE) -> FFD_ERROR_OUTOFMEMORY");
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    uint64_t ullCopied =
        copy_range(hNewFile, 0, m_dwFirstFrame, buffer.get(), "by KIVMP3_transfer_wave_data(...)");
    for (DirEntry const* pEntry = m_oDirFile.get_dir_header(); pEntry->Status != 0; ++pEntry) {
        // A block smaller than a frame is dropped from the file.
        if (!pEntry->is_deleted() && pEntry->size() >= m_pWfx->nBlockSize) {
            ullCopied += copy_block(hNewFile, *pEntry, buffer.get());
        }
    }
    if (m_dwTrailingEnd > m_dwTrailingBegin) {
        ullCopied += copy_range(hNewFile, m_dwTrailingBegin, m_dwTrailingEnd - m_dwTrailingBegin,
                                buffer.get(), "by KIVMP3_transfer_wave_data(...)");
    }
    // The transfers look at no counts: what came out short must not replace the old file.
    uint64_t ullNewFileSize = 0;
    if (KIVMP3_get_file_size(hNewFile, &ullNewFileSize) != NO_ERROR ||
        ullNewFileSize != ullCopied) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "rebuilt file is not whole -> FFD_FILE_IO_ERROR");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

// Copies bytes from a file offset of the MP3 file to the file pointer of the new one. The result is
// how many of them the MP3 file holds.
uint64_t CKivmp3::copy_range(HANDLE hNewFile, uint64_t ullFileOffset_p, uint64_t ullBytes_p,
                             BYTE* pcBuffer_p, LPCSTR pszFailed_p) {
    if (ullFileOffset_p >= m_dwFileSize) {
        return 0;
    }
    if (!KIVMP3_set_file_pointer(m_hMp3File, static_cast<DWORD>(ullFileOffset_p))) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    uint64_t const ullExpected = std::min(ullBytes_p, m_dwFileSize - ullFileOffset_p);
    // The transfer counts in signed 32 bits.
    constexpr uint64_t ullMostBytes = uint64_t{KIVMP3_TRANSFER_BUFFER_SIZE} * 16384;
    for (uint64_t ullLeft = ullExpected; ullLeft > 0;) {
        uint64_t const ullBytes = std::min(ullLeft, ullMostBytes);
        FFDError const ffdError =
            KIVMP3_transfer_mp3_data(m_hMp3File, hNewFile, static_cast<LONG>(ullBytes), pcBuffer_p,
                                     KIVMP3_TRANSFER_BUFFER_SIZE);
        if (ffdError != FFD_NOERROR) {
            TRACE_ERROR(ffdError, pszFailed_p);
            throw FFDError{ffdError};
        }
        ullLeft -= ullBytes;
    }
    return ullExpected;
}

// Finds the first frame at or behind a file offset, at which a copy may be cut; its header is in
// m_byFrameHeader then, and *pdwSkipped_p the bytes to it.
//
// A search that begins inside a frame can meet four bytes of audio that look like a header, of
// another bitrate as a rule. A file cut there would be refused at its next open. So a header that
// no second one follows gives way to one that has one, if that is of the file's bitrate and comes
// within the length of a frame: where the first one lies inside a true frame, the next does.
FFDError CKivmp3::search_block_frame(uint64_t ullFileOffset_p, BYTE* pcBuffer_p,
                                     DWORD* pdwSkipped_p) {
    CReadAhead file(m_hMp3File, pcBuffer_p, SEARCH_READ_AHEAD_SIZE);
    if (!file.set_file_pointer(ullFileOffset_p)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    DWORD dwBytesRead = 0;
    FFDError const ffdError = search_frame_sync(file, false, dwBytesRead, *pdwSkipped_p);
    uint64_t ullFound = ullFileOffset_p + *pdwSkipped_p;
    // The first frame of the file is one whatever follows: the open has measured from there.
    if (ffdError != FFD_NOERROR || ullFound == m_dwFirstFrame ||
        is_followed_by_frame(file, ullFound)) {
        return ffdError;
    }
    BYTE abyFirstHeader[FRAME_HEADER_SIZE];
    memcpy(abyFirstHeader, m_byFrameHeader, FRAME_HEADER_SIZE);
    uint64_t const ullMostOffset = ullFound + m_pWfx->nBlockSize + 1; // one byte of padding
    while (ullFound < ullMostOffset) {
        DWORD dwSkipped = 0;
        if (!file.set_file_pointer(ullFound + 1)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        if (search_frame_sync(file, false, dwBytesRead, dwSkipped) != FFD_NOERROR) {
            break;
        }
        ullFound += 1 + dwSkipped;
        if (ullFound <= ullMostOffset && frame_bitrate(m_byFrameHeader) == m_wLowestBitrate &&
            is_followed_by_frame(file, ullFound)) {
            TRACE_INFO("bytes that look like a frame header are passed over");
            *pdwSkipped_p = static_cast<DWORD>(ullFound - ullFileOffset_p);
            return FFD_NOERROR;
        }
    }
    memcpy(m_byFrameHeader, abyFirstHeader, FRAME_HEADER_SIZE);
    return FFD_NOERROR;
}

// Whether the frame whose header is in m_byFrameHeader ends where one of the same kind and bitrate
// begins, or where the audio ends.
bool CKivmp3::is_followed_by_frame(CReadAhead& rFile_p, uint64_t ullFileOffset_p) {
    uint64_t const ullNext = ullFileOffset_p + frame_length(frame_bitrate(m_byFrameHeader),
                                                            frame_length_factor(m_byFrameHeader),
                                                            frame_sampling_rate(m_byFrameHeader),
                                                            frame_padding(m_byFrameHeader));
    if (ullNext == m_dwLastFrame || ullNext == m_dwFileSize) {
        return true;
    }
    BYTE const* pbyHeader = nullptr;
    DWORD dwBytesRead = 0;
    if (!rFile_p.set_file_pointer(ullNext) ||
        !KIVMP3_read_file(rFile_p, &pbyHeader, FRAME_HEADER_SIZE, &dwBytesRead)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    return dwBytesRead == FRAME_HEADER_SIZE &&
           ((frame_header_word(pbyHeader) ^ m_dwReferenceHeader) & FRAME_REFERENCE_MASK) == 0 &&
           check_frame_header(pbyHeader) == FFD_NOERROR &&
           frame_bitrate(pbyHeader) == frame_bitrate(m_byFrameHeader);
}

// Copies one block, moved forward so that it begins with a frame header, and widened to the end of
// the frame that its end has cut. The result is the count of bytes that the new file got.
uint64_t CKivmp3::copy_block(HANDLE hNewFile, DirEntry const& rEntry_p, BYTE* pcBuffer_p) {
    uint64_t const ullWantedOffset = uint64_t{m_dwFirstFrame} + rEntry_p.Startpos;
    // What an append has widened the block by is its own, also behind the frames found at open.
    uint64_t const ullLimit =
        ullWantedOffset < m_dwBlockLimit
            ? std::max<uint64_t>(m_dwBlockLimit, uint64_t{m_dwFirstFrame} + rEntry_p.Endpos)
            : 0x100000000u;
    DWORD dwSkippedAtStart = 0;
    if (search_block_frame(ullWantedOffset, pcBuffer_p, &dwSkippedAtStart) != FFD_NOERROR) {
        TRACE_ERROR(FFD_NO_MORE_FRAMES, "block without a frame header is left out");
        return 0;
    }
    uint64_t const ullStartOffset = ullWantedOffset + dwSkippedAtStart;
    if (ullStartOffset >= ullLimit) {
        TRACE_INFO("block whose first frame lies behind the audio is left out");
        return 0;
    }
    uint64_t const ullBytes = std::min<uint64_t>(rEntry_p.size(), ullLimit - ullStartOffset);
    DWORD const dwHeaderBytes = static_cast<DWORD>(std::min<uint64_t>(ullBytes, FRAME_HEADER_SIZE));
    if (!KIVMP3_write_file(hNewFile, m_byFrameHeader, dwHeaderBytes, nullptr)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    uint64_t ullCopied = dwHeaderBytes;
    ullCopied += copy_range(hNewFile, ullStartOffset + dwHeaderBytes, ullBytes - dwHeaderBytes,
                            pcBuffer_p, "by KIVMP3_transfer_mp3_data(...)");

    // A block that ends where the frames of the file did at open ends with a whole frame.
    uint64_t const ullEndOffset = ullStartOffset + ullBytes;
    if (rEntry_p.Endpos == m_dwLastFrame - m_dwFirstFrame || ullEndOffset >= ullLimit) {
        return ullCopied;
    }
    DWORD dwSkippedAtEnd = 0;
    if (search_block_frame(ullEndOffset, pcBuffer_p, &dwSkippedAtEnd) == FFD_NOERROR &&
        dwSkippedAtEnd != 0) {
        ullCopied += copy_range(hNewFile, ullEndOffset,
                                std::min<uint64_t>(dwSkippedAtEnd, ullLimit - ullEndOffset),
                                pcBuffer_p, "by KIVMP3_transfer_mp3_data(...)");
    }
    return ullCopied;
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
    if (!DeleteFileA(m_szFilePath)) {
        TRACE_ERROR(GetLastError(), "GetLastError() after DeleteFile(.)");
        m_oCloseMarker.remove();
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (!MoveFileA(pszTmpPath_p, m_szFilePath)) {
        TRACE_ERROR(GetLastError(), "GetLastError() after MoveFile(..) Tmp to Current Wave file.");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}
