/* Compiled as strict C11 and again as C++: a host can be written in either. */
#include "ffd.h"

#include <ffd.h> /* a second inclusion changes nothing */

typedef struct Slots {
    FFDGetCurrentPosProc getCurrentPos;
    FFDGetDictationFileSizeProc getDictationFileSize;
    FFDGetGranularitySizeProc getGranularitySize;
    FFDGetAudioInfoProc getAudioInfo;
    FFDGetSizeOfDataProc getSizeOfData;
    FFDGetFileNameProc getFileName;
    FFDGetFilePathProc getFilePath;
    FFDGetSoundDataLengthProc getSoundDataLength;
    FFDSetDiskspaceWarningTimeProc setDiskspaceWarningTime;
    FFDSetCallbackAddressProc setCallbackAddress;
    FFDAudioSeekProc audioSeek;
    FFDSaveAsProc saveAs;
    FFDCloseProc close;
    FFDCreateFileProc createFile;
    FFDReadDataProc readData;
    FFDWriteDataProc writeData;
    FFDDeleteDataProc deleteData;
    FFDUndoLastProc undoLast;
    FFDStoreActualFileStatusProc storeActualFileStatus;
    FFDRestoreFileStatusProc restoreFileStatus;
    FFDGetWfxProc getWfx;
    FFDGetDownloadLengthProc getDownloadLength;
    void* reserved;
    FFDGetDSSEncryptedProc getDSSEncrypted;
} Slots;

FFD_ASSERT_LAYOUT(sizeof(Slots) == 24 * sizeof(void*));
FFD_ASSERT_LAYOUT(offsetof(Slots, createFile) == FFD_SLOT_CREATE_FILE * sizeof(void*));
FFD_ASSERT_LAYOUT(offsetof(Slots, getDSSEncrypted) == FFD_SLOT_GET_DSS_ENCRYPTED * sizeof(void*));
FFD_ASSERT_LAYOUT(sizeof(FFDError) == 8 && FFD_TAG_VERSION_UNKNOWN == 42);

/* The arguments of an open and a read, as a C host writes them. */
FFDError ffd_header_read(Slots const* slots, char const* path, uint8_t* bytes, uint32_t size);

FFDError ffd_header_read(Slots const* slots, char const* path, uint8_t* bytes, uint32_t size) {
    FFDCallbackParams callback = {0, 0, 0, 0, 0};
    FFDReadHandle* readHandle = NULL;
    FFDError status = FFD_NOERROR;
    FFDHandle file;
    callback.hDriver = &callback;
    file =
        slots->createFile(path, FFD_ACCESS_READ, FFD_OPEN_EXISTING, NULL, callback, &status, NULL);
    if (status == FFD_NOERROR) {
        status = slots->getSizeOfData(file, size, &readHandle);
        if (status == FFD_NOERROR) {
            status = slots->readData(file, readHandle, size, bytes);
        }
        slots->close(file);
    }
    return status;
}
