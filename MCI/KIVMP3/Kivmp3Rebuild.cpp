// The copy of a rebuild: head, blocks and trailing bytes of the MP3 file into the new one. Edits
// cut blocks anywhere; here, and nowhere else, they are brought back to whole frames.

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "MCI/KIVMP3/ReadAhead.h"

#include <algorithm>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// The transfers ignore counts, but a copy that came out short must not replace the old file.
void check_size(HANDLE hNewFile, uint64_t ullCopied_p) {
    uint64_t ullNewFileSize = 0;
    if (KIVMP3_get_file_size(hNewFile, &ullNewFileSize) != NO_ERROR ||
        ullNewFileSize != ullCopied_p) {
        TRACE_ERROR(FFD_FILE_IO_ERROR, "rebuilt file is not whole -> FFD_FILE_IO_ERROR");
        throw FFDError{FFD_FILE_IO_ERROR};
    }
}

BYTE* checked(CHeapBlock const& rBuffer_p) {
    if (rBuffer_p.get() == nullptr) {
        TRACE_ERROR(0, "by malloc(KIVMP3_TRANSFER_BUFFER_SIZE) -> FFD_ERROR_OUTOFMEMORY");
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    return rBuffer_p.get();
}

} // namespace

void CKivmp3::reorganize(HANDLE hNewFile) {
    TRACE_ENTRY("-----CKivmp3::reorganize(.)");
    TRACE_PARAM("hNewFile", "%p", hNewFile);
    CHeapBlock const buffer(KIVMP3_TRANSFER_BUFFER_SIZE);
    BYTE* const pcBuffer = checked(buffer);
    uint64_t ullCopied =
        copy_range(hNewFile, 0, m_dwFirstFrame, pcBuffer, "by KIVMP3_transfer_wave_data(...)");
    for (DirEntry const* pEntry = m_oDirFile.get_dir_header(); pEntry->Status != 0; ++pEntry) {
        // A block smaller than a frame is dropped from the file.
        if (!pEntry->is_deleted() && pEntry->size() >= m_pWfx->nBlockSize) {
            ullCopied += copy_block(hNewFile, *pEntry, pcBuffer);
        }
    }
    if (m_dwTrailingEnd > m_dwTrailingBegin) {
        ullCopied += copy_range(hNewFile, m_dwTrailingBegin, m_dwTrailingEnd - m_dwTrailingBegin,
                                pcBuffer, "by KIVMP3_transfer_wave_data(...)");
    }
    check_size(hNewFile, ullCopied);
}

// For a file that already is the dictation, and has lost its name.
void CKivmp3::copy_as_it_lies(HANDLE hNewFile) {
    CHeapBlock const buffer(KIVMP3_TRANSFER_BUFFER_SIZE);
    check_size(hNewFile, copy_range(hNewFile, 0, m_dwFileSize, checked(buffer),
                                    "by KIVMP3_transfer_mp3_data(...)"));
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

// Copies one block, moved forward so that it begins with a frame header, and widened to the end of
// the frame that its end has cut. The result is the count of bytes that the new file got.
//
// A block in front of the trailing bytes never reaches into what stands behind its audio. One that
// an append has widened beyond that place is itself what stands there: moved forward it takes no
// bytes behind its own end but those of the frame that the end has cut.
uint64_t CKivmp3::copy_block(HANDLE hNewFile, DirEntry const& rEntry_p, BYTE* pcBuffer_p) {
    uint64_t const ullWantedOffset = uint64_t{m_dwFirstFrame} + rEntry_p.Startpos;
    uint64_t const ullBlockEnd = uint64_t{m_dwFirstFrame} + rEntry_p.Endpos;
    bool const bBeginsInFront = ullWantedOffset < m_dwBlockLimit;
    bool const bEndsInFront = bBeginsInFront && ullBlockEnd <= m_dwBlockLimit;
    uint64_t const ullLimit = bEndsInFront ? std::min(m_dwBlockLimit, m_dwFileSize) : m_dwFileSize;

    DWORD dwSkippedAtStart = 0;
    bool bFollowed = false;
    if (search_block_frame(ullWantedOffset, pcBuffer_p, &dwSkippedAtStart, &bFollowed) !=
        FFD_NOERROR) {
        TRACE_ERROR(FFD_NO_MORE_FRAMES, "block without a frame header is left out");
        return 0;
    }
    uint64_t const ullStartOffset = ullWantedOffset + dwSkippedAtStart;
    uint64_t const ullMostEnd = bBeginsInFront && !bEndsInFront ? ullBlockEnd : ullLimit;
    if (ullStartOffset >= ullMostEnd) {
        TRACE_INFO("block whose first frame lies behind the audio is left out");
        return 0;
    }
    uint64_t const ullBytes = std::min<uint64_t>(rEntry_p.size(), ullMostEnd - ullStartOffset);
    DWORD const dwHeaderBytes = static_cast<DWORD>(std::min<uint64_t>(ullBytes, FRAME_HEADER_SIZE));
    if (!KIVMP3_write_file(hNewFile, m_byFrameHeader, dwHeaderBytes, nullptr)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    uint64_t ullCopied = dwHeaderBytes;
    ullCopied += copy_range(hNewFile, ullStartOffset + dwHeaderBytes, ullBytes - dwHeaderBytes,
                            pcBuffer_p, "by KIVMP3_transfer_mp3_data(...)");

    // What ends where the frames of the file did at open ends with a whole frame.
    uint64_t const ullEndOffset = ullStartOffset + ullBytes;
    if (ullEndOffset == m_dwLastFrame || ullEndOffset >= ullLimit) {
        return ullCopied;
    }
    DWORD dwSkippedAtEnd = 0;
    FFDError const ffdError =
        search_block_frame(ullEndOffset, pcBuffer_p, &dwSkippedAtEnd, &bFollowed);
    uint64_t ullRest = ullLimit - ullEndOffset;
    // The last frame of the audio has no header behind it.
    if (bFollowed || ullRest > m_pWfx->nBlockSize) {
        ullRest = ffdError == FFD_NOERROR ? std::min<uint64_t>(ullRest, dwSkippedAtEnd) : 0;
    }
    if (ullRest > 0) {
        ullCopied += copy_range(hNewFile, ullEndOffset, ullRest, pcBuffer_p,
                                "by KIVMP3_transfer_mp3_data(...)");
    }
    return ullCopied;
}

// Finds the first frame at or behind a file offset, at which a copy may be cut; its header is in
// m_byFrameHeader then, and *pdwSkipped_p the bytes to it. *pbFollowed_p says whether it is more
// than four bytes that look like a header; of another bitrate than the file's it must be that, or
// the copy could never be opened again. FFD_NO_MORE_FRAMES at the end of the file.
FFDError CKivmp3::search_block_frame(uint64_t ullFileOffset_p, BYTE* pcBuffer_p,
                                     DWORD* pdwSkipped_p, bool* pbFollowed_p) {
    CReadAhead file(m_hMp3File, pcBuffer_p, SEARCH_READ_AHEAD_SIZE);
    *pbFollowed_p = false;
    for (uint64_t ullFrom = ullFileOffset_p;;) {
        if (!file.set_file_pointer(ullFrom)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        DWORD dwBytesRead = 0;
        FFDError const ffdError = search_frame_sync(file, false, dwBytesRead, *pdwSkipped_p);
        if (ffdError != FFD_NOERROR) {
            return ffdError;
        }
        uint64_t ullFound = ullFrom + *pdwSkipped_p;
        // The first frame of the file is one whatever follows: the open has measured from there.
        *pbFollowed_p =
            ullFound == m_dwFirstFrame || pass_over_chance_header(file, false, &ullFound);
        *pdwSkipped_p = static_cast<DWORD>(ullFound - ullFileOffset_p);
        if (*pbFollowed_p || ffd_frame_bitrate(m_byFrameHeader) == m_wLowestBitrate) {
            return FFD_NOERROR;
        }
        ullFrom = ullFound + 1;
    }
}
