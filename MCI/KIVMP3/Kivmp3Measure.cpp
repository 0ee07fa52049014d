// Counting audio: the search for a frame header, the walk over all frames at open, and the
// conversions between bytes and milliseconds.

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "MCI/KIVMP3/ReadAhead.h"

#include <algorithm>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

constexpr DWORD SEARCH_BLOCK_SIZE = 1024;

// The first place at or behind pbyBegin_p that holds 0xFF; null if there is none in front of
// pbyEnd_p. A walk comes here for each frame, and as a rule finds it at once.
BYTE const* find_ff(BYTE const* pbyBegin_p, BYTE const* pbyEnd_p) {
    if (pbyBegin_p < pbyEnd_p && *pbyBegin_p == 0xFF) {
        return pbyBegin_p;
    }
    return static_cast<BYTE const*>(
        memchr(pbyBegin_p, 0xFF, static_cast<size_t>(pbyEnd_p - pbyBegin_p)));
}

// What KIVMP3_read_file does and traces, through the blocks that were read ahead.
[[gnu::always_inline]] inline int read_file(CReadAhead& rFile_p, BYTE const** ppbyData,
                                            DWORD dwBytesToRead_p, DWORD* pdwBytesRead) {
    TRACE_ENTRY("-----KIVMP3_read_file(...)");
    TRACE_PARAM("dwBytesToRead_p", "%lu", dwBytesToRead_p);
    return rFile_p.read(ppbyData, dwBytesToRead_p, pdwBytesRead);
}

} // namespace

FFDError CKivmp3::search_frame_sync(CReadAhead& rFile_p, bool bFirstFrame_p, DWORD& dwBytesRead,
                                    DWORD& dwBytesSkipped) {
    TRACE_ENTRY("-----CKivmp3::search_frame_sync(...)");
    dwBytesRead = 0;
    dwBytesSkipped = 0;
    TRACE_INFO("searching for frame sync");
    // The last four bytes of the block before, so that a header across two blocks is seen whole.
    DWORD dwCarry = 0;
    do {
        uint64_t const ullBlockOffset = rFile_p.get_file_pointer();
        BYTE const* pbyBlock = nullptr;
        if (!read_file(rFile_p, &pbyBlock, SEARCH_BLOCK_SIZE, &dwBytesRead)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        if (dwBytesRead < FRAME_HEADER_SIZE) {
            return FFD_NO_MORE_FRAMES;
        }
        LONG lFound = 0;
        FFDError const ffdFound =
            scan_block(pbyBlock, dwBytesRead, dwCarry, bFirstFrame_p, &lFound);
        if (ffdFound == FFD_NO_MORE_FRAMES) {
            dwBytesRead = 0;
        }
        bool const bFound = ffdFound == FFD_NOERROR;
        DWORD const dwPassed = bFound ? static_cast<DWORD>(lFound) : dwBytesRead;
        if (bFirstFrame_p) {
            m_dwFirstFrame += dwPassed;
        }
        dwBytesSkipped += dwPassed;
        if (bFound) {
            TRACE_VALUE("dwBytesSkipped", "%ld", dwBytesSkipped);
            if (!rFile_p.set_file_pointer(ullBlockOffset +
                                          static_cast<uint64_t>(int64_t{lFound}))) {
                throw FFDError{FFD_FILE_IO_ERROR};
            }
            BYTE const* pbyHeader = nullptr;
            DWORD dwHeaderBytes = 0;
            if (!read_file(rFile_p, &pbyHeader, FRAME_HEADER_SIZE, &dwHeaderBytes) ||
                dwHeaderBytes < FRAME_HEADER_SIZE) {
                throw FFDError{FFD_FILE_IO_ERROR};
            }
            memcpy(m_byFrameHeader, pbyHeader, FRAME_HEADER_SIZE);
            return FFD_NOERROR;
        }
        if (dwBytesRead > 0) {
            dwCarry = ffd_frame_header_word(pbyBlock + dwBytesRead - FRAME_HEADER_SIZE);
        }
    } while (dwBytesRead > 0);
    TRACE_ERROR(0, "at end of file and no frame header found");
    return FFD_NO_MORE_FRAMES;
}

// Whether four bytes are the header that a search looks for: FFD_NOERROR, FFD_NO_MORE_FRAMES at a
// tag, FFD_INVALID_FORMAT for all else.
[[gnu::always_inline]] inline FFDError CKivmp3::judge_header(BYTE const* pbyHeader_p,
                                                             bool bFirstFrame_p) {
    bool const bCandidate = bFirstFrame_p
                                ? ffd_frame_has_sync(pbyHeader_p) != 0
                                : ((ffd_frame_header_word(pbyHeader_p) ^ m_dwReferenceHeader) &
                                   FFD_FRAME_KIND_MASK) == 0;
    if (!bCandidate) {
        return FFD_INVALID_FORMAT;
    }
    FFDError const ffdError = check_frame_header(pbyHeader_p);
    if (ffdError == FFD_NOERROR && bFirstFrame_p) {
        m_dwReferenceHeader = ffd_frame_header_word(pbyHeader_p);
    }
    return ffdError;
}

// Looks for a header that begins from 4 bytes in front of the block (in the carry bytes) up to 5
// bytes in front of its end; the last four places are the carry of the next block. The result is
// that of judge_header, FFD_NOERROR with the place.
[[gnu::always_inline]] inline FFDError CKivmp3::scan_block(BYTE const* pbyBlock_p,
                                                           DWORD dwBytesRead_p, DWORD dwCarry_p,
                                                           bool bFirstFrame_p, LONG* plFound_p) {
    if (dwCarry_p != 0) {
        FFDError const ffdError = scan_border(pbyBlock_p, dwCarry_p, bFirstFrame_p, plFound_p);
        if (ffdError != FFD_INVALID_FORMAT) {
            return ffdError;
        }
    }
    // Both tests want a first byte of 0xFF.
    BYTE const* const pbyEnd = pbyBlock_p + (dwBytesRead_p - FRAME_HEADER_SIZE);
    for (BYTE const* pbyHeader = pbyBlock_p; (pbyHeader = find_ff(pbyHeader, pbyEnd)) != nullptr;
         ++pbyHeader) {
        FFDError const ffdError = judge_header(pbyHeader, bFirstFrame_p);
        if (ffdError != FFD_INVALID_FORMAT) {
            *plFound_p = static_cast<LONG>(pbyHeader - pbyBlock_p);
            return ffdError;
        }
    }
    return FFD_INVALID_FORMAT;
}

FFDError CKivmp3::scan_border(BYTE const* pbyBlock_p, DWORD dwCarry_p, bool bFirstFrame_p,
                              LONG* plFound_p) {
    BYTE abyBorder[2 * FRAME_HEADER_SIZE];
    for (DWORD dwPlace = 0; dwPlace < FRAME_HEADER_SIZE; ++dwPlace) {
        abyBorder[dwPlace] = static_cast<BYTE>(dwCarry_p >> 8 * dwPlace & 0xFF);
    }
    memcpy(abyBorder + FRAME_HEADER_SIZE, pbyBlock_p, FRAME_HEADER_SIZE);
    for (DWORD dwPlace = 0; dwPlace < FRAME_HEADER_SIZE; ++dwPlace) {
        FFDError const ffdError = judge_header(abyBorder + dwPlace, bFirstFrame_p);
        if (ffdError != FFD_INVALID_FORMAT) {
            *plFound_p = static_cast<LONG>(dwPlace) - static_cast<LONG>(FRAME_HEADER_SIZE);
            return ffdError;
        }
    }
    return FFD_INVALID_FORMAT;
}

// Whether a frame found at a file offset, with its header, ends where one of the same kind begins,
// or where the audio does: at the end of the file, of the frames or in front of the trailing bytes.
// If the bitrate counts, that one must end so in turn, and some more: of frames that are all the
// same, as in silence, each has the bytes that look like a header at the same place.
bool CKivmp3::is_followed_by_frame(CReadAhead& rFile_p, uint64_t ullFileOffset_p,
                                   bool bAnyBitrate_p) {
    BYTE abyHeader[FRAME_HEADER_SIZE];
    memcpy(abyHeader, m_byFrameHeader, FRAME_HEADER_SIZE);
    WORD const wBitrate = ffd_frame_bitrate(abyHeader);
    for (int nFollowing = bAnyBitrate_p ? 1 : 4; nFollowing > 0; --nFollowing) {
        ullFileOffset_p += ffd_frame_length(abyHeader);
        if (ullFileOffset_p == m_dwFileSize || ullFileOffset_p == m_dwLastFrame ||
            ullFileOffset_p == m_dwTrailingBegin) {
            return true;
        }
        BYTE const* pbyNext = nullptr;
        DWORD dwBytesRead = 0;
        if (!rFile_p.set_file_pointer(ullFileOffset_p) ||
            !read_file(rFile_p, &pbyNext, FRAME_HEADER_SIZE, &dwBytesRead)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        if (dwBytesRead < FRAME_HEADER_SIZE ||
            ((ffd_frame_header_word(pbyNext) ^ m_dwReferenceHeader) & FFD_FRAME_KIND_MASK) != 0 ||
            check_frame_header(pbyNext) != FFD_NOERROR ||
            !(bAnyBitrate_p || ffd_frame_bitrate(pbyNext) == wBitrate)) {
            return false;
        }
        memcpy(abyHeader, pbyNext, FRAME_HEADER_SIZE);
    }
    return true;
}

bool CKivmp3::pass_over_chance_header(CReadAhead& rFile_p, bool bAnyBitrate_p,
                                      uint64_t* pullFileOffset_p) {
    if (is_followed_by_frame(rFile_p, *pullFileOffset_p, bAnyBitrate_p)) {
        return true;
    }
    BYTE abyFirstHeader[FRAME_HEADER_SIZE];
    memcpy(abyFirstHeader, m_byFrameHeader, FRAME_HEADER_SIZE);
    uint64_t ullFound = *pullFileOffset_p;
    uint64_t const ullMostOffset = ullFound + m_pWfx->nBlockSize + 1; // one byte of padding
    while (ullFound < ullMostOffset) {
        DWORD dwBytesRead = 0;
        DWORD dwSkipped = 0;
        if (!rFile_p.set_file_pointer(ullFound + 1)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        if (search_frame_sync(rFile_p, false, dwBytesRead, dwSkipped) != FFD_NOERROR) {
            break;
        }
        ullFound += 1 + dwSkipped;
        if (ullFound <= ullMostOffset && ffd_frame_bitrate(m_byFrameHeader) == m_wLowestBitrate &&
            is_followed_by_frame(rFile_p, ullFound, bAnyBitrate_p)) {
            TRACE_INFO("bytes that look like a frame header are passed over");
            *pullFileOffset_p = ullFound;
            return true;
        }
    }
    memcpy(m_byFrameHeader, abyFirstHeader, FRAME_HEADER_SIZE);
    return false;
}

void CKivmp3::ascertain_data_length_from_file(BYTE* pbyReadAhead_p) {
    TRACE_ENTRY("-----CKivmp3::ascertain_data_length_from_file()");
    CReadAhead file(m_hMp3File, pbyReadAhead_p, READ_AHEAD_SIZE);
    BYTE const* pbyHeader = nullptr;
    DWORD dwHeaderBytes = 0;
    if (!file.set_file_pointer(m_dwFirstFrame) ||
        !read_file(file, &pbyHeader, FRAME_HEADER_SIZE, &dwHeaderBytes)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    memcpy(m_byFrameHeader, pbyHeader, dwHeaderBytes);
    // Another process may have changed the file since the first frame was found.
    if (dwHeaderBytes < FRAME_HEADER_SIZE || check_frame_header(m_byFrameHeader) != FFD_NOERROR) {
        throw FFDError{FFD_INTERNAL_ERROR};
    }

    bool const bMpeg1 = ffd_frame_is_mpeg1(m_byFrameHeader) != 0;
    DWORD const dwSamplingRate = ffd_frame_sampling_rate(m_byFrameHeader);
    DWORD const dwFactor = ffd_frame_length_factor(bMpeg1);
    m_wLowestBitrate = ffd_frame_bitrate(m_byFrameHeader);
    DWORD const dwMostPosition = 0xFFFFFFFFu - m_dwFirstFrame;
    DWORD dwActualPosition = 0; // audio position behind the present frame
    DWORD dwBytesSkipped = 0;
    uint64_t ullNextPosition = 0;
    do {
        WORD const wBitrate = ffd_bitrate(bMpeg1, ffd_frame_bitrate_index(m_byFrameHeader));
        if (wBitrate != m_wLowestBitrate) {
            note_bitrate(wBitrate, dwActualPosition);
        }
        ullNextPosition = uint64_t{dwActualPosition} + dwBytesSkipped +
                          ffd_frame_length_of(wBitrate, dwFactor, dwSamplingRate,
                                              ffd_frame_padding(m_byFrameHeader));
        [[maybe_unused]] DWORD const dwFrame = m_dwFirstFrame + dwActualPosition + dwBytesSkipped;
        // Beyond it only for a last frame that the end of the file cuts short, just under 4 GiB.
        dwActualPosition = static_cast<DWORD>(std::min<uint64_t>(ullNextPosition, dwMostPosition));
        TELL_FRAME(dwFrame, m_dwFirstFrame + dwActualPosition, m_byFrameHeader);
    } while (ullNextPosition <= dwMostPosition &&
             search_walked_frame(file, m_dwFirstFrame + dwActualPosition, &dwBytesSkipped));
    m_dwLastFrame = m_dwFirstFrame + dwActualPosition;
    if (m_bVBR) {
        lower_rate_of_variable_bitrate(dwFactor);
    }
}

// Finds the next frame of the walk at or behind a file offset, and the bytes to it. Whether there
// is one.
//
// Where audio was cut inside its frames, the walk lands in the middle of one, and what looks like a
// header of another bitrate there must not pass for a variable bitrate. If no header follows it, it
// is noise; but not if it begins where the frame in front ends, as every frame of a file with a
// variable bitrate does, the last one in front of a tag too.
bool CKivmp3::search_walked_frame(CReadAhead& rFile_p, DWORD dwFileOffset_p,
                                  DWORD* pdwBytesSkipped_p) {
    for (uint64_t ullFrom = dwFileOffset_p;; ++ullFrom) {
        DWORD dwBytesRead = 0;
        DWORD dwSkipped = 0;
        if (!rFile_p.set_file_pointer(ullFrom) ||
            search_frame_sync(rFile_p, false, dwBytesRead, dwSkipped) != FFD_NOERROR) {
            return false;
        }
        ullFrom += dwSkipped;
        if (ffd_frame_bitrate(m_byFrameHeader) == m_wLowestBitrate || m_bVBR ||
            pass_over_chance_header(rFile_p, true, &ullFrom) || ullFrom == dwFileOffset_p) {
            *pdwBytesSkipped_p = static_cast<DWORD>(ullFrom - dwFileOffset_p);
            return true;
        }
    }
}

void CKivmp3::note_bitrate(WORD wBitrate_p, DWORD dwActualPosition_p) {
    TRACE_INFO("VBR detected");
    TRACE_VALUE("m_wLowestBitrate", "%u", DWORD{m_wLowestBitrate});
    TRACE_VALUE("wBitrate", "%u", DWORD{wBitrate_p});
    TRACE_VALUE("dwActualPosition", "%u", dwActualPosition_p);
    m_bVBR = TRUE;
    if (wBitrate_p < m_wLowestBitrate) {
        m_wLowestBitrate = wBitrate_p;
    }
}

// Seen in the trace of the open only, which ends with FFD_NOT_SUPPORTED.
void CKivmp3::lower_rate_of_variable_bitrate(DWORD dwFactor_p) {
    m_ffdSampinfo.nAvgBytesPerSec = frame_bytes_per_second(m_wLowestBitrate);
    m_pWfx->wfx.nAvgBytesPerSec = m_ffdSampinfo.nAvgBytesPerSec;
    m_pWfx->nBlockSize =
        static_cast<WORD>(m_wLowestBitrate * dwFactor_p / m_ffdSampinfo.dwSamplingRate & 0xFFFF);
}

void CKivmp3::ascertain_data_length() {
    m_oDirFile.ascertain_data_length();
    compute_length_in_ms();
}

void CKivmp3::compute_length_in_ms() {
    m_msLength = 0;
    if (m_ffdSampinfo.nAvgBytesPerSec != 0) {
        get_ms_from_bytes(m_oDirFile.get_data_length(), &m_msLength);
    }
    TRACE_VALUE("ascertain_data_length(): m_msLength", "%u", m_msLength);
}

// The order of the operations is part of both conversions, and neither is the other's inverse: each
// cuts off up to one unit.
FFDError CKivmp3::get_ms_from_bytes(DWORD dwBytes_p, DWORD* pmsResult_p) const {
    TRACE_ENTRY("-----CKivmp3::get_ms_from_bytes(..)");
    if (m_ffdSampinfo.wBlockAlign == 0) {
        TRACE_ERROR(FFD_GRANULARITY_ERROR, "Block align must not be 0 -> FFD_GRANULARITY_ERROR");
        return FFD_GRANULARITY_ERROR;
    }
    double const dSeconds =
        static_cast<double>(dwBytes_p) / static_cast<double>(m_ffdSampinfo.nAvgBytesPerSec);
    *pmsResult_p = static_cast<DWORD>(static_cast<uint64_t>(dSeconds * 1000.0) & 0xFFFFFFFFu);
    return FFD_NOERROR;
}

DWORD CKivmp3::get_bytes_from_ms(DWORD dwMillisec_p) const {
    TRACE_ENTRY("-----CKivmp3::get_bytes_from_ms(.)");
    double const dProduct =
        static_cast<double>(m_ffdSampinfo.nAvgBytesPerSec) * static_cast<double>(dwMillisec_p);
    return static_cast<DWORD>(static_cast<uint64_t>(dProduct / 1000.0) & 0xFFFFFFFFu);
}
