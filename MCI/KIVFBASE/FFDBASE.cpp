#include "MCI/KIVFBASE/FFDBASE.h"

#include "MCI/KIVFBASE/INTERNAL.h"

#include <cstring>

#define TRACE_MODULE "XKIVFBASE"
#include "log/trace.h"

namespace {

// Appends a text to a path as far as the path's buffer goes.
void append_bounded(char (&szPath_p)[MAX_PATH], char const* pszText_p) {
    size_t const nLength = strnlen(szPath_p, MAX_PATH - 1);
    size_t const nText = strnlen(pszText_p, MAX_PATH - 1 - nLength);
    memcpy(szPath_p + nLength, pszText_p, nText);
    szPath_p[nLength + nText] = '\0';
}

FFDError copy_name(std::string const& cstrName_p, char* lpffdBuffer, uint32_t ffdBufferSize) {
    DWORD const dwLen = static_cast<DWORD>(cstrName_p.length());
    TRACE_VALUE("dwLen", "%ld", dwLen);
    if (dwLen >= ffdBufferSize) {
        return TRACED_ERROR(FFD_BUFFER_OVERFLOW, "FFD_BUFFER_OVERFLOW");
    }
    memcpy(lpffdBuffer, cstrName_p.c_str(), dwLen + 1);
    TRACE_VALUE("lpffdBuffer", "%s", lpffdBuffer);
    return FFD_NOERROR;
}

} // namespace

FFDBaseClass::FFDBaseClass() {
    char szIniPath[MAX_PATH] = "";
    UINT const nLength = GetSystemDirectoryA(szIniPath, MAX_PATH);
    if (nLength == 0 || nLength >= MAX_PATH) {
        szIniPath[0] = '\0';
    }
    append_bounded(szIniPath, "\\");
    append_bounded(szIniPath, "XKIVFBASE.INI");
    TRACE_INIT(szIniPath);
    TRACE_ENTRY("-----FFDBaseClass::FFDBaseClass()");
}

FFDBaseClass::~FFDBaseClass() {
    TRACE_ENTRY("-----FFDBaseClass::~FFDBaseClass()");
}

#define NOT_SUPPORTED_WITH_TEXT(operation, arguments, entryText, errorText)                        \
    FFDError FFDBaseClass::operation arguments {                                                   \
        TRACE_ENTRY("-----FFDBaseClass::" #operation entryText);                                   \
        TRACE_ERROR(FFD_NOT_SUPPORTED, errorText);                                                 \
        return FFD_NOT_SUPPORTED;                                                                  \
    }
#define NOT_SUPPORTED_BY_DEFAULT(operation, arguments, entryText)                                  \
    NOT_SUPPORTED_WITH_TEXT(operation, arguments, entryText, "FFD_NOT_SUPPORTED " #operation "()")

NOT_SUPPORTED_BY_DEFAULT(FFDGetDSSEncrypted, (void*), "(.)")
NOT_SUPPORTED_BY_DEFAULT(FFDGetCurrentPos, (uint32_t*), "(.)")
NOT_SUPPORTED_BY_DEFAULT(FFDGetDictationFileSize, (uint32_t*), "(.)")
NOT_SUPPORTED_WITH_TEXT(FFDGetGranularitySize, (void*), "(.)",
                        "FFDGetGranularitySize() FFD_NOT_SUPPORTED")
NOT_SUPPORTED_BY_DEFAULT(FFDGetAudioInfo, (FFDAudioInfo*, uint32_t), "(..)")
NOT_SUPPORTED_BY_DEFAULT(FFDGetSizeOfData, (uint32_t, FFDReadHandle**), "(..)")
NOT_SUPPORTED_BY_DEFAULT(FFDAudioSeek, (uint32_t, uint32_t*), "(..)")
NOT_SUPPORTED_BY_DEFAULT(FFDReadData, (FFDReadHandle const*, uint32_t, uint8_t*), "(...)")
NOT_SUPPORTED_BY_DEFAULT(FFDWriteData, (FFDMethod, uint32_t, uint8_t*), "(...)")
NOT_SUPPORTED_BY_DEFAULT(FFDDeleteData, (uint32_t), "(.)")
NOT_SUPPORTED_BY_DEFAULT(FFDUndoLast, (), "()")
NOT_SUPPORTED_BY_DEFAULT(FFDStoreActualFileStatus, (), "()")
NOT_SUPPORTED_BY_DEFAULT(FFDRestoreFileStatus, (), "()")
NOT_SUPPORTED_BY_DEFAULT(FFDGetDownloadLength, (void*), "(.)")

#undef NOT_SUPPORTED_WITH_TEXT
#undef NOT_SUPPORTED_BY_DEFAULT

FFDError FFDBaseClass::FFDGetFileName(char* lpffdBuffer, uint32_t ffdBufferSize) {
    TRACE_ENTRY("-----FFDBaseClass::FFDGetFileName(..)");
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    return copy_name(m_cstrFilename, lpffdBuffer, ffdBufferSize);
}

FFDError FFDBaseClass::FFDGetFilePath(char* lpffdBuffer, uint32_t ffdBufferSize) {
    TRACE_ENTRY("-----FFDBaseClass::FFDGetFilePath(..)");
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    return copy_name(m_cstrFilepath, lpffdBuffer, ffdBufferSize);
}

FFDError FFDBaseClass::FFDGetSoundDataLength(uint32_t* lpffdSoundDataLength) {
    TRACE_ENTRY("-----FFDBaseClass::FFDGetSoundDataLength(.)");
    *lpffdSoundDataLength = m_ffdDataLengthInBy;
    return FFD_NOERROR;
}

FFDError FFDBaseClass::FFDSetDiskspaceWarningTime(uint32_t ffdWarningUnit) {
    TRACE_ENTRY("-----FFDBaseClass::FFDSetDiskspaceWarningTime(.)");
    TRACE_PARAM("ffdWarningUnit", "%lu", ffdWarningUnit);
    m_dwDiskspaceWarningBytes = ffdWarningUnit;
    return FFD_NOERROR;
}

FFDError FFDBaseClass::FFDSetCallbackAddress(uint32_t ffdCallbackAddress) {
    TRACE_ENTRY("-----FFDBaseClass::FFDSetCallbackAddress(.)");
    TRACE_PARAM("ffdCallbackAddress", "%lu", ffdCallbackAddress);
    m_ffdCallbackParams.dwCallback = ffdCallbackAddress;
    return FFD_NOERROR;
}

FFDError FFDBaseClass::FFDGetWfx(void* lpWfx, uint32_t ffdBufferSize) {
    TRACE_ENTRY("-----FFDBaseClass::FFDGetWfx(..)");
    TRACE_PARAM("lpWfx", "%p", lpWfx);
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    if (m_pWfx == nullptr) {
        return TRACED_ERROR(FFD_INTERNAL_ERROR, "FFD_INTERNAL_ERROR");
    }
    // cbSize counts the bytes behind the 18 of the common head.
    size_t const nBlockBytes = size_t{m_pWfx->wfx.cbSize} + sizeof(WAVEFORMATEX);
    if (ffdBufferSize < nBlockBytes) {
        return TRACED_ERROR(FFD_BUFFER_OVERFLOW, "FFD_BUFFER_OVERFLOW");
    }
    memcpy(lpWfx, m_pWfx, nBlockBytes);
    TRACE_VALUE("lpWfx -> wFormatTag", "%u", DWORD{m_pWfx->wfx.wFormatTag});
    return FFD_NOERROR;
}

FFDError FFDBaseClass::test_create_file(char const* lpszFilepath_p, DWORD* lpdwLastError_p,
                                        DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                                        DWORD dwCreationDistribution_p,
                                        DWORD dwFlagsAndAttributes_p) {
    TRACE_ENTRY("-----FFDBaseClass::test_create_file(...)");
    *lpdwLastError_p = KIVFBASE_test_create_file(lpszFilepath_p, dwDesiredAccess_p, dwShareMode_p,
                                                 dwCreationDistribution_p, dwFlagsAndAttributes_p);
    return map_last_error_to_FFDError(*lpdwLastError_p);
}

FFDError FFDBaseClass::map_last_error_to_FFDError(DWORD dwLastError_p) {
    TRACE_ENTRY("-----FFDBaseClass::map_last_error_to_FFDError(.)");
    struct Row {
        DWORD dwError;
        FFDError ffdError;
        char const* pszText;
    };
    static constexpr Row aRows[] = {
        {ERROR_FILE_NOT_FOUND, FFD_FILE_NOT_FOUND, "ERROR_FILE_NOT_FOUND -> FFD_FILE_NOT_FOUND"},
        {ERROR_PATH_NOT_FOUND, FFD_INVALID_PATH, "ERROR_PATH_NOT_FOUND -> FFD_INVALID_PATH"},
        {ERROR_ACCESS_DENIED, FFD_ERROR_ACCESS_DENIED,
         "ERROR_ACCESS_DENIED -> FFD_ERROR_ACCESS_DENIED"},
        {ERROR_INVALID_DRIVE, FFD_INVALID_PATH, "ERROR_INVALID_DRIVE -> FFD_INVALID_PATH"},
        {ERROR_WRITE_PROTECT, FFD_ERROR_WRITE_PROTECT,
         "ERROR_WRITE_PROTECT -> FFD_ERROR_WRITE_PROTECT"},
        {ERROR_SHARING_VIOLATION, FFD_ERROR_ACCESS_DENIED,
         "ERROR_SHARING_VIOLATION -> FFD_ERROR_ACCESS_DENIED"},
        {ERROR_BAD_NETPATH, FFD_INVALID_PATH, "ERROR_BAD_NETPATH -> FFD_INVALID_PATH"},
        {ERROR_NETWORK_ACCESS_DENIED, FFD_ERROR_ACCESS_DENIED,
         "ERROR_NETWORK_ACCESS_DENIED -> FFD_ERROR_ACCESS_DENIED"},
        {ERROR_FILE_EXISTS, FFD_FILE_ALREADY_EXISTS,
         "ERROR_FILE_EXISTS -> FFD_FILE_ALREADY_EXISTS"},
        {ERROR_BAD_PATHNAME, FFD_INVALID_PATH, "ERROR_BAD_PATHNAME -> FFD_INVALID_PATH"},
    };
    if (dwLastError_p == NO_ERROR) {
        TRACE_INFO("NO_ERROR - > FFD_NOERROR");
        return FFD_NOERROR;
    }
    for (Row const& rRow : aRows) {
        if (rRow.dwError == dwLastError_p) {
            TRACE_ERROR(dwLastError_p, rRow.pszText);
            return rRow.ffdError;
        }
    }
    TRACE_ERROR(dwLastError_p, "default GetLastError() -> FFD_FILE_IO_ERROR");
    return FFD_FILE_IO_ERROR;
}
