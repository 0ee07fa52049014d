// The small operations through which the host asks for lengths, position and format and moves the
// position. None of them touches the file.

#include "MCI/KIVMP3/Kivmp3.h"

#include <algorithm>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

FFDError CKivmp3::FFDGetCurrentPos(uint32_t* lpffdCurrentPos) {
    TRACE_ENTRY("-----CKivmp3::FFDGetCurrentPos(.)");
    *lpffdCurrentPos = m_ffdCurrentPosInBy;
    TRACE_VALUE("*lpffdCurrentPos", "%u", *lpffdCurrentPos);
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDGetDictationFileSize(uint32_t* lpffdFileSize) {
    TRACE_ENTRY("-----CKivmp3::FFDGetDictationFileSize(.)");
    *lpffdFileSize = m_dwFileSize;
    TRACE_VALUE("*lpffdFileSize", "%u", *lpffdFileSize);
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDGetGranularitySize(void* /*lpffdGranuInfo*/) {
    TRACE_ENTRY("-----CKivmp3::FFDGetGranularitySize(.)");
    return TRACED_ERROR(FFD_NOT_SUPPORTED, "FFDGetGranularitySize() returns FFD_NOT_SUPPORTED");
}

FFDError CKivmp3::FFDGetAudioInfo(FFDAudioInfo* lpAudioInfo, uint32_t ffdBufferSize) {
    TRACE_ENTRY("-----CKivmp3::FFDGetAudioInfo(..)");
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    // Field by field: the rest of the record is the host's, and may end behind the last one.
    lpAudioInfo->wChannels = m_ffdSampinfo.wChannels;
    lpAudioInfo->wBitsPerSample = m_ffdSampinfo.wBitsPerSample;
    lpAudioInfo->dwSamplingRate = m_ffdSampinfo.dwSamplingRate;
    lpAudioInfo->wBlockAlign = m_ffdSampinfo.wBlockAlign;
    lpAudioInfo->bySource = m_bySource;
    lpAudioInfo->wCodtype = m_byCodtype;
    lpAudioInfo->byCodver = m_byCodver;
    lpAudioInfo->byClosing = 0;
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDGetSizeOfData(uint32_t ffdLength, FFDReadHandle** lplpffdReadHandle) {
    TRACE_ENTRY("-----CKivmp3::FFDGetSizeOfData(..)");
    TRACE_PARAM("ffdLength", "%u", ffdLength);
    DWORD const dwLength = m_oDirFile.get_data_length();
    DWORD const dwLeft = dwLength - std::min(m_ffdCurrentPosInBy, dwLength);
    DWORD const dwSizeInBytes = std::min<DWORD>(ffdLength, dwLeft);
    m_ReadInfo.RealStartPos = m_ffdCurrentPosInBy;
    m_ReadInfo.RealSizeInBytes = dwSizeInBytes;
    m_ReadInfo.ValidSizeInBytes = dwSizeInBytes;
    m_ReadInfo.RealEndPos = m_ffdCurrentPosInBy + dwSizeInBytes;
    TRACE_VALUE("m_ReadInfo.RealSizeInBytes", "%u", m_ReadInfo.RealSizeInBytes);
    *lplpffdReadHandle = &m_ReadInfo;
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDGetSoundDataLength(uint32_t* lpffdSoundDataLength) {
    TRACE_ENTRY("-----CKivmp3::FFDGetSoundDataLength(.)");
    *lpffdSoundDataLength = get_bytes_from_ms(m_msLength);
    TRACE_VALUE("*lpffdSoundDataLength", "%u", *lpffdSoundDataLength);
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDAudioSeek(uint32_t ffdSeekPos, uint32_t* lpffdRealPos) {
    TRACE_ENTRY("-----CKivmp3::FFDAudioSeek(..)");
    TRACE_PARAM("ffdSeekPos", "%u", ffdSeekPos);
    m_ffdCurrentPosInBy = std::min<DWORD>(ffdSeekPos, m_oDirFile.get_data_length());
    *lpffdRealPos = m_ffdCurrentPosInBy;
    TRACE_VALUE("m_ffdCurrentPosInBy", "%u", m_ffdCurrentPosInBy);
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDSaveAs(FFDHandle /*ffdHandle*/, char const* lpInputString) {
    TRACE_ENTRY("-----CKivmp3::FFDSaveAs(..)");
    TRACE_PARAM("lpInputString", "%s", lpInputString);
    return FFD_NOERROR;
}

FFDError CKivmp3::FFDGetDownloadLength(void* /*lpffdDownloadLen*/) {
    TRACE_ENTRY("-----CKivmp3::FFDGetDownloadLength(.)");
    return FFD_NOERROR;
}

void CKivmp3::log_member_variables() {
    TRACE_ENTRY("-----CKivmp3::log_member_variables()");
    TRACE_VALUE("m_ffdCreateTime", "%lu", static_cast<DWORD>(m_ffdCreateTime & 0xFFFFFFFF));
    TRACE_VALUE("m_ffdModTime", "%lu", static_cast<DWORD>(m_ffdModTime & 0xFFFFFFFF));
    TRACE_VALUE("m_ffdSampinfo.wChannels", "%d", int{m_ffdSampinfo.wChannels});
    TRACE_VALUE("m_ffdSampinfo.wBitsPerSample", "%d", int{m_ffdSampinfo.wBitsPerSample});
    TRACE_VALUE("m_ffdSampinfo.nAvgBytesPerSec", "%u", m_ffdSampinfo.nAvgBytesPerSec);
    TRACE_VALUE("m_ffdSampinfo.dwSamplingRate", "%u", m_ffdSampinfo.dwSamplingRate);
    TRACE_VALUE("m_ffdSampinfo.wBlockAlign", "%d", int{m_ffdSampinfo.wBlockAlign});
    TRACE_VALUE("m_bySource", "%d", int{m_bySource});
    TRACE_VALUE("m_byCodtype", "%d", int{m_byCodtype});
    TRACE_VALUE("m_byCodver", "%d", int{m_byCodver});
    TRACE_VALUE("m_msLength", "%u", m_msLength);
    TRACE_VALUE("m_dwDiskspaceWarningBytes", "%u", m_dwDiskspaceWarningBytes);
    TRACE_VALUE("m_ReadInfo.RealSizeInBytes", "%u", m_ReadInfo.RealSizeInBytes);
    TRACE_VALUE("m_ReadInfo.RealStartPos", "%u", m_ReadInfo.RealStartPos);
    TRACE_VALUE("m_ReadInfo.RealEndPos", "%u", m_ReadInfo.RealEndPos);
}
