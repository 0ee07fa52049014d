// The calls of the driver that is linked in, typed as a host's header types them, and what tests
// make of several.
#pragma once

#include "ffd.h"
#include "platform/platform.h"

#include <cstdlib>
#include <string>
#include <vector>

extern "C" void* FFD_Function_Table[24];

// The slots, typed as the host's header types them.
struct Slots {
    FFDGetCurrentPosProc GetCurrentPos;
    FFDGetDictationFileSizeProc GetDictationFileSize;
    FFDGetGranularitySizeProc GetGranularitySize;
    FFDGetAudioInfoProc GetAudioInfo;
    FFDGetSizeOfDataProc GetSizeOfData;
    FFDGetFileNameProc GetFileName;
    FFDGetFilePathProc GetFilePath;
    FFDGetSoundDataLengthProc GetSoundDataLength;
    FFDSetDiskspaceWarningTimeProc SetDiskspaceWarningTime;
    FFDSetCallbackAddressProc SetCallbackAddress;
    FFDAudioSeekProc AudioSeek;
    FFDSaveAsProc SaveAs;
    FFDCloseProc Close;
    FFDCreateFileProc CreateFile;
    FFDReadDataProc ReadData;
    FFDWriteDataProc WriteData;
    FFDDeleteDataProc DeleteData;
    FFDUndoLastProc UndoLast;
    FFDStoreActualFileStatusProc StoreActualFileStatus;
    FFDRestoreFileStatusProc RestoreFileStatus;
    FFDGetWfxProc GetWfx;
    FFDGetDownloadLengthProc GetDownloadLength;
    void* pReserved;
    FFDGetDSSEncryptedProc GetDSSEncrypted;
};
static_assert(sizeof(Slots) == 24 * sizeof(void*));

// The table, filled. The first call attaches the driver, as a loader would.
inline Slots const& driver() {
    static BOOL const bAttached = DllMain(nullptr, 1, nullptr);
    if (!bAttached) {
        abort();
    }
    return *reinterpret_cast<Slots const*>(FFD_Function_Table);
}

// An entry of a .DIR file.
struct Entry {
    uint32_t nStatus;
    uint32_t nStartpos;
    uint32_t nEndpos;
};

inline std::string little_endian(uint32_t nValue) {
    std::string bytes(4, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(nValue);
        nValue >>= 8;
    }
    return bytes;
}

// The bytes of a .DIR file with these entries: 65536, or the size asked for.
inline std::string dir_image(std::vector<Entry> const& entries, size_t nBytes = 65536) {
    std::string image;
    for (Entry const& entry : entries) {
        image += little_endian(entry.nStatus) + little_endian(entry.nStartpos) +
                 little_endian(entry.nEndpos);
    }
    image.resize(nBytes);
    return image;
}

// Opens for writing, or reading; null with the status.
inline FFDHandle open_sound(std::string const& path, FFDDesiredAccess access, FFDError& status) {
    FFDCallbackParams callback = {};
    callback.hDriver = &callback;
    status = 0xDEADDEADDEADDEAD;
    return driver().CreateFile(path.c_str(), access, 2, nullptr, callback, &status, nullptr);
}

inline uint32_t seek(FFDHandle handle, uint32_t position) {
    uint32_t nReached = 0;
    return driver().AudioSeek(handle, position, &nReached) == 0 ? nReached : 0xDEADDEAD;
}

inline uint32_t position(FFDHandle handle) {
    uint32_t nPosition = 0;
    return driver().GetCurrentPos(handle, &nPosition) == 0 ? nPosition : 0xDEADDEAD;
}

// By a seek to the end and back.
inline uint32_t length(FFDHandle handle) {
    uint32_t const nPosition = position(handle);
    uint32_t const nLength = seek(handle, 0xFFFFFFFF);
    seek(handle, nPosition);
    return nLength;
}

// What one read from the position on delivers of so many bytes; the buffer is no larger.
inline std::string read_on(FFDHandle handle, uint32_t nBytes, FFDError& status) {
    uint32_t const nBefore = position(handle);
    FFDReadHandle* pRead = nullptr;
    status = driver().GetSizeOfData(handle, nBytes, &pRead);
    if (status != 0 || pRead->RealSizeInBytes > nBytes || pRead->RealStartPos != nBefore) {
        abort();
    }
    uint32_t const nSize = pRead->RealSizeInBytes;
    std::string bytes(nSize, '\0');
    status = driver().ReadData(handle, pRead, nSize, reinterpret_cast<uint8_t*>(bytes.data()));
    bytes.resize(position(handle) - nBefore);
    return bytes;
}

// At the position.
inline FFDError write_at(FFDHandle handle, FFDMethod method, std::string bytes) {
    return driver().WriteData(handle, method, static_cast<uint32_t>(bytes.size()),
                              reinterpret_cast<uint8_t*>(bytes.data()));
}

inline FFDError insert(FFDHandle handle, uint32_t nAt, std::string const& bytes) {
    seek(handle, nAt);
    return write_at(handle, FFD_METHOD_INSERT, bytes);
}

inline FFDError overwrite(FFDHandle handle, uint32_t nAt, std::string const& bytes) {
    seek(handle, nAt);
    return write_at(handle, FFD_METHOD_OVERWRITE, bytes);
}

inline FFDError erase(FFDHandle handle, uint32_t nAt, uint32_t nBytes) {
    seek(handle, nAt);
    return driver().DeleteData(handle, nBytes);
}
