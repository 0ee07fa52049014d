// Reading the dictation: one range of it becomes a run of ranges of the MP3 file, copied one after
// the other into the host's buffer.

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"

#include <algorithm>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

FFDError CKivmp3::FFDReadData(FFDReadHandle const* lpcffdReadHandle, uint32_t ffdBufferSize,
                              uint8_t* lpffdBuffer) {
    TRACE_ENTRY("-----CKivmp3::FFDReadData(...)");
    TRACE_PARAM("lpcffdReadHandle", "%Fp", static_cast<void const*>(lpcffdReadHandle));
    TRACE_PARAM("ffdBufferSize", "%u", ffdBufferSize);
    TRACE_PARAM("lpffdBuffer", "%Fp", static_cast<void*>(lpffdBuffer));
    FFDError ffdError = check_read(lpcffdReadHandle, ffdBufferSize, lpffdBuffer);
    if (ffdError != FFD_NOERROR) {
        return ffdError;
    }
    DWORD const dwStartPosBytes = lpcffdReadHandle->RealStartPos;
    DWORD const dwTotalBytesToRead = lpcffdReadHandle->RealSizeInBytes;
    DWORD dwDirEntryStartPosBytes = 0;
    DirEntry const* const pdirFirst =
        m_oDirFile.get_dir_entry(dwStartPosBytes, &dwDirEntryStartPosBytes);
    if (pdirFirst == nullptr) {
        TRACE_ERROR(0, "Directory entry with dwStartPosBytes not found. -> FFD_INTERNAL_ERROR");
        return FFD_INTERNAL_ERROR;
    }

    DWORD dwBytesWereRead = 0;
    // The range starts inside the first block only.
    DWORD dwOffsetInBlock = dwStartPosBytes - dwDirEntryStartPosBytes;
    for (DirEntry const* pEntry = pdirFirst;
         pEntry->Status != 0 && dwBytesWereRead < dwTotalBytesToRead; ++pEntry) {
        if (pEntry->is_deleted()) {
            continue;
        }
        DWORD const dwStartPos = pEntry->Startpos + dwOffsetInBlock;
        DWORD const dwBytesToRead =
            std::min(pEntry->size() - dwOffsetInBlock, dwTotalBytesToRead - dwBytesWereRead);
        dwOffsetInBlock = 0;
        if (dwBytesToRead == 0) {
            continue;
        }
        DWORD dwBytesRead = 0;
        ffdError = read_data_from_mp3_file(dwStartPos, dwBytesToRead, lpffdBuffer + dwBytesWereRead,
                                           &dwBytesRead);
        dwBytesWereRead += dwBytesRead;
        if (ffdError != FFD_NOERROR) {
            TRACE_ERROR(FFD_FILE_IO_ERROR, "by read_data_from_wav_file(...)");
            break;
        }
        if (dwBytesRead != dwBytesToRead) {
            TRACE_ERROR(dwBytesRead, "Bytes actually read less than expected");
            break;
        }
    }
    m_ffdCurrentPosInBy += dwBytesWereRead;
    TRACE_VALUE("m_ffdCurrentPosInBy", "%u", m_ffdCurrentPosInBy);
    return ffdError;
}

FFDError CKivmp3::check_read(FFDReadHandle const* lpcffdReadHandle, uint32_t ffdBufferSize,
                             uint8_t const* lpffdBuffer) const {
    if (lpcffdReadHandle == nullptr) {
        return TRACED_ERROR(FFD_INVALID_READ_HANDLE, "FFD_INVALID_READ_HANDLE");
    }
    if (lpcffdReadHandle->RealSizeInBytes > ffdBufferSize) {
        return TRACED_ERROR(FFD_BUFFER_OVERFLOW,
                            "FFD_BUFFER_OVERFLOW RealSizeInBytes > ffdBufferSize");
    }
    if (lpffdBuffer == nullptr) {
        return TRACED_ERROR(FFD_INVALID_PARAMETER, "FFD_INVALID_PARAMETER lpffdBuffer == NULL");
    }
    // The milliseconds are only for the trace.
    DWORD msStartPos = 0;
    FFDError ffdError = get_ms_from_bytes(lpcffdReadHandle->RealStartPos, &msStartPos);
    if (ffdError != FFD_NOERROR) {
        return TRACED_ERROR(ffdError, "by get_ms_from_bytes()");
    }
    if (lpcffdReadHandle->RealStartPos != m_ffdCurrentPosInBy) {
        return TRACED_ERROR(FFD_INVALID_POSITION,
                            "FFD_INVALID_POSITION RealStartPos != m_msCurrentPos");
    }
    DWORD msEndPos = 0;
    ffdError = get_ms_from_bytes(lpcffdReadHandle->RealEndPos, &msEndPos);
    if (ffdError != FFD_NOERROR) {
        return TRACED_ERROR(ffdError, "by get_ms_from_bytes()");
    }
    TRACE_VALUE("msToRead", "%u", msEndPos - msStartPos);
    return FFD_NOERROR;
}

FFDError CKivmp3::read_data_from_mp3_file(DWORD dwStartPos_p, DWORD dwBytesToRead_p,
                                          BYTE* pbyTarget_p, DWORD* pdwBytesRead_p) {
    TRACE_ENTRY("-----CKivmp3::read_data_from_mp3_file(...)");
    TRACE_PARAM("dwStartPos_p", "%u", dwStartPos_p);
    TRACE_PARAM("dwBytesToRead_p", "%u", dwBytesToRead_p);
    *pdwBytesRead_p = 0;
    // A directory that was taken over may name bytes far behind the end of the file.
    uint64_t const ullFileOffset = uint64_t{m_dwFirstFrame} + dwStartPos_p;
    if (ullFileOffset > 0xFFFFFFFFu) {
        return FFD_NOERROR;
    }
    if (!KIVMP3_set_file_pointer(m_hMp3File, static_cast<DWORD>(ullFileOffset))) {
        return FFD_FILE_IO_ERROR;
    }
    if (!ReadFile(m_hMp3File, pbyTarget_p, dwBytesToRead_p, pdwBytesRead_p, nullptr)) {
        *pdwBytesRead_p = 0;
        TRACE_ERROR(GetLastError(), "GetLastError() after ReadFile()");
        return FFD_FILE_IO_ERROR;
    }
    return FFD_NOERROR;
}
