// The base class of a sound file driver: what a driver for any format holds, and an answer to every
// operation of the function table. Status codes and boundary records come from the host's header.
#pragma once

#include "ffd.h"
#include "platform/platform.h"

#include <cstdint>
#include <string>

// The format of the open file, held by the driver; not handed out as a record.
struct FFDSampleInfo {
    uint16_t wChannels = 0;       // 1 or 2
    uint16_t wBitsPerSample = 0;  // 0 for MP3
    uint32_t nAvgBytesPerSec = 0; // bytes per second of the stream
    uint32_t dwSamplingRate = 0;  // samples per second
    uint16_t wBlockAlign = 0;     // 1 for MP3; sizes of writes are multiples of it
};

// An operation that a format does not override answers FFD_NOT_SUPPORTED and touches no argument.
// ffd.h says what the operations and their arguments mean. The virtual operations are declared in
// the order that the classes are built with; the table has an order of its own.
//
// A driver object is always destroyed as the class that it was made as, so no destructor needs to
// be virtual. Handles are released by FFDClose, never by a destructor.
class FFDBaseClass {
public:
    FFDBaseClass(FFDBaseClass const&) = delete;
    FFDBaseClass& operator=(FFDBaseClass const&) = delete;

    virtual FFDError FFDGetDSSEncrypted(void* lpffdBool);
    virtual FFDError FFDGetCurrentPos(uint32_t* lpffdCurrentPos);
    virtual FFDError FFDGetDictationFileSize(uint32_t* lpffdFileSize);
    virtual FFDError FFDGetGranularitySize(void* lpffdGranuInfo);
    virtual FFDError FFDGetAudioInfo(FFDAudioInfo* lpAudioInfo, uint32_t ffdBufferSize);
    virtual FFDError FFDGetSizeOfData(uint32_t ffdLength, FFDReadHandle** lplpffdReadHandle);
    virtual FFDError FFDGetFileName(char* lpffdBuffer, uint32_t ffdBufferSize);
    virtual FFDError FFDGetFilePath(char* lpffdBuffer, uint32_t ffdBufferSize);
    virtual FFDError FFDGetSoundDataLength(uint32_t* lpffdSoundDataLength);
    virtual FFDError FFDSetDiskspaceWarningTime(uint32_t ffdWarningUnit);
    virtual FFDError FFDSetCallbackAddress(uint32_t ffdCallbackAddress);
    virtual FFDError FFDAudioSeek(uint32_t ffdSeekPos, uint32_t* lpffdRealPos);
    virtual FFDError FFDSaveAs(FFDHandle ffdHandle, char const* lpInputString) = 0;
    virtual FFDError FFDClose() = 0;
    virtual FFDError FFDCreateFile(char const* lpFileName, FFDDesiredAccess ffdDesiredAccess,
                                   FFDCreation ffdCreation, void* lpddiOpenInfo,
                                   FFDCallbackParams const* ffdCallbackParams, FFDError* lpffdError,
                                   void* pffdOpenInfoEx) = 0;
    virtual FFDError FFDReadData(FFDReadHandle const* lpcffdReadHandle, uint32_t ffdBufferSize,
                                 uint8_t* lpffdBuffer);
    virtual FFDError FFDWriteData(FFDMethod ffdMethod, uint32_t ffdBufferSize,
                                  uint8_t* lpffdBuffer);
    virtual FFDError FFDDeleteData(uint32_t ffdLength);
    virtual FFDError FFDUndoLast();
    virtual FFDError FFDStoreActualFileStatus();
    virtual FFDError FFDRestoreFileStatus();
    virtual FFDError FFDGetWfx(void* lpWfx, uint32_t ffdBufferSize);
    virtual FFDError FFDGetDownloadLength(void* lpffdDownloadLen);

    // Finds out whether a file could be opened or made with these rights, without keeping it open
    // and without harm to a file that exists. The platform's error number, 0 for success, goes to
    // *lpdwLastError_p, and the result is that number as a status.
    virtual FFDError test_create_file(char const* lpszFilepath_p, DWORD* lpdwLastError_p,
                                      DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                                      DWORD dwCreationDistribution_p, DWORD dwFlagsAndAttributes_p);

    // The status for a platform error number; FFD_FILE_IO_ERROR for those without one of their own.
    virtual FFDError map_last_error_to_FFDError(DWORD dwLastError_p);

protected:
    FFDBaseClass();
    ~FFDBaseClass();

    int64_t m_ffdCreateTime = 0; // seconds since 1970
    int64_t m_ffdModTime = 0;    // seconds since 1970
    std::string m_cstrFilename;  // the file name with its extension, no directory
    std::string m_cstrFilepath;  // drive and directory, ending in the separator
    FFDSampleInfo m_ffdSampinfo;
    uint8_t m_bySource = 0;
    uint16_t m_byCodtype = 0;
    uint8_t m_byCodver = 0;
    FFDCallbackParams m_ffdCallbackParams = {};
    DWORD m_ffdCurrentPosInBy = 0;          // dictation position of the next read or edit
    DWORD m_ffdDataLengthInBy = 0;          // for drivers that keep no directory
    DWORD m_dwDiskspaceWarningBytes = 0;    // as the host set it
    DWORD m_msLength = 0;                   // length of the dictation in milliseconds
    MPEGLAYER3WAVEFORMAT* m_pWfx = nullptr; // by malloc, freed by the derived class; null for none
};
