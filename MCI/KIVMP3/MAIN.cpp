// The driver's boundary: the entry point, the exported table, the list of open files, and the plain
// functions behind the slots. Each of these turns the host's handle into a driver object and calls
// the operation of the same name.

#include "MCI/KIVMP3/Kivmp3.h"

#include <algorithm>
#include <list>
#include <new>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

// All zero in the loaded image: process attach fills it.
extern "C" {
extern PLATFORM_EXPORT void* FFD_Function_Table[FFD_SLOT_COUNT];
PLATFORM_EXPORT void* FFD_Function_Table[FFD_SLOT_COUNT];
}

namespace {

// The open files. The list owns its elements and not the objects; a handle is an object's address,
// and one that is not on the list is never followed.
std::list<CKivmp3*> SoundfileList;
DWORD g_dwForksOfList = 0;

// The files that are open when a child is forked are its parent's: the child must not close them,
// which could remove or replace what the parent goes on with. Their objects stay, without an owner.
void forget_files_of_parent() {
    DWORD const dwForks = PlatformForks();
    if (dwForks != g_dwForksOfList) {
        SoundfileList.clear();
        g_dwForksOfList = dwForks;
    }
}

DWORD low_half(FFDHandle ffdHandle) {
    return static_cast<DWORD>(reinterpret_cast<DWORD_PTR>(ffdHandle) & 0xFFFFFFFFu);
}

// A driver object's handle is the address of its base.
FFDHandle handle_of(CKivmp3* pKivmp3_p) {
    return static_cast<FFDBaseClass*>(pKivmp3_p);
}

// The open file behind a handle, or null.
CKivmp3* KIVMP3_get_ckivmp3_object(FFDHandle ffdHandle) {
    TRACE_ENTRY("-----KIVMP3_get_ckivmp3_object(.)");
    forget_files_of_parent();
    auto const itFound =
        std::find_if(SoundfileList.begin(), SoundfileList.end(),
                     [&](CKivmp3* pKivmp3) { return handle_of(pKivmp3) == ffdHandle; });
    if (itFound == SoundfileList.end()) {
        TRACE_ERROR(low_half(ffdHandle), " not found in SoundfileList");
        return nullptr;
    }
    return *itFound;
}

// What every slot of an open file begins with.
#define ENTER(text)                                                                                \
    TRACE_ENTRY("-----" text);                                                                     \
    TRACE_PARAM("ffdHandle", "%p", ffdHandle)

// What every slot but three does once its arguments are traced.
#define FORWARD(operation, ...)                                                                    \
    CKivmp3* const pKivmp3 = KIVMP3_get_ckivmp3_object(ffdHandle);                                 \
    if (pKivmp3 == nullptr) {                                                                      \
        TRACE_ERROR(FFD_INVALID_HANDLE, "FFD_INVALID_HANDLE from KIVMP3_get_ckivmp3_object()");    \
        return FFD_INVALID_HANDLE;                                                                 \
    }                                                                                              \
    FFDError const ffdError = pKivmp3->operation(__VA_ARGS__);                                     \
    if (ffdError != FFD_NOERROR) {                                                                 \
        TRACE_ERROR(ffdError, "by pKivmp3->" #operation "()");                                     \
    }                                                                                              \
    return ffdError

FFDError FFDGetCurrentPos(FFDHandle ffdHandle, uint32_t* lpffdCurrentPos) {
    ENTER("FFDGetCurrentPos(..)");
    FORWARD(FFDGetCurrentPos, lpffdCurrentPos);
}

FFDError FFDGetDictationFileSize(FFDHandle ffdHandle, uint32_t* lpffdFileSize) {
    ENTER("FFDGetDictationFileSize(..)");
    FORWARD(FFDGetDictationFileSize, lpffdFileSize);
}

FFDError FFDGetGranularitySize(FFDHandle ffdHandle, void* lpffdGranuInfo) {
    ENTER("FFDGetGranularitySize(..)");
    TRACE_PARAM("lpffdGranuInfo", "%p", lpffdGranuInfo);
    FORWARD(FFDGetGranularitySize, lpffdGranuInfo);
}

FFDError FFDGetAudioInfo(FFDHandle ffdHandle, FFDAudioInfo* lpAudioInfo, uint32_t ffdBufferSize) {
    ENTER("FFDGetAudioInfo(...)");
    TRACE_PARAM("lpAudioInfo", "%p", static_cast<void*>(lpAudioInfo));
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    FORWARD(FFDGetAudioInfo, lpAudioInfo, ffdBufferSize);
}

FFDError FFDGetSizeOfData(FFDHandle ffdHandle, uint32_t ffdLength,
                          FFDReadHandle** lplpffdReadHandle) {
    ENTER("FFDGetSizeOfData(...)");
    TRACE_PARAM("ffdLength", "%lu", ffdLength);
    FORWARD(FFDGetSizeOfData, ffdLength, lplpffdReadHandle);
}

FFDError FFDGetFileName(FFDHandle ffdHandle, char* lpffdBuffer, uint32_t ffdBufferSize) {
    ENTER("FFDGetFileName(...)");
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    FORWARD(FFDGetFileName, lpffdBuffer, ffdBufferSize);
}

FFDError FFDGetFilePath(FFDHandle ffdHandle, char* lpffdBuffer, uint32_t ffdBufferSize) {
    ENTER("FFDGetFilePath(...)");
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    FORWARD(FFDGetFilePath, lpffdBuffer, ffdBufferSize);
}

FFDError FFDGetSoundDataLength(FFDHandle ffdHandle, uint32_t* lpffdSoundDataLength) {
    ENTER("FFDGetSoundDataLength(..)");
    TRACE_PARAM("lpffdSoundDataLength", "%p", static_cast<void*>(lpffdSoundDataLength));
    FORWARD(FFDGetSoundDataLength, lpffdSoundDataLength);
}

FFDError FFDSetDiskspaceWarningTime(FFDHandle ffdHandle, uint32_t ffdWarningUnit) {
    ENTER("FFDSetDiskspaceWarningTime(..)");
    TRACE_PARAM("ffdWarningUnit", "%lu", ffdWarningUnit);
    FORWARD(FFDSetDiskspaceWarningTime, ffdWarningUnit);
}

FFDError FFDSetCallbackAddress(FFDHandle ffdHandle, uint32_t ffdCallbackAddress) {
    ENTER("FFDSetCallbackAddress(..)");
    TRACE_PARAM("ffdCallbackAddress", "%p", reinterpret_cast<void*>(DWORD_PTR{ffdCallbackAddress}));
    FORWARD(FFDSetCallbackAddress, ffdCallbackAddress);
}

FFDError FFDAudioSeek(FFDHandle ffdHandle, uint32_t ffdSeekPos, uint32_t* lpffdRealPos) {
    ENTER("FFDAudioSeek(...)");
    TRACE_PARAM("ffdSeekPos", "%lu", ffdSeekPos);
    FORWARD(FFDAudioSeek, ffdSeekPos, lpffdRealPos);
}

FFDError FFDSaveAs(FFDHandle ffdHandle, char const* lpNewName) {
    ENTER("FFDSaveAs(..)");
    TRACE_PARAM("lpNewName", "%s", lpNewName);
    FORWARD(FFDSaveAs, ffdHandle, lpNewName);
}

FFDError FFDReadData(FFDHandle ffdHandle, FFDReadHandle const* lpcffdReadHandle,
                     uint32_t ffdBufferSize, uint8_t* lpffdBuffer) {
    ENTER("FFDReadData(...)");
    TRACE_PARAM("lpcffdReadHandle", "%p", static_cast<void const*>(lpcffdReadHandle));
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    TRACE_PARAM("ffdBufferSize", "%lu", ffdBufferSize);
    FORWARD(FFDReadData, lpcffdReadHandle, ffdBufferSize, lpffdBuffer);
}

FFDError FFDWriteData(FFDHandle ffdHandle, FFDMethod ffdMethod, uint32_t ffdBufferSize,
                      uint8_t* lpffdBuffer) {
    ENTER("FFDWriteData(...)");
    TRACE_PARAM("ffdMethod", "%ld", ffdMethod);
    TRACE_PARAM("ffdBufferSize", "%ld", ffdBufferSize);
    TRACE_PARAM("lpffdBuffer", "%p", static_cast<void*>(lpffdBuffer));
    FORWARD(FFDWriteData, ffdMethod, ffdBufferSize, lpffdBuffer);
}

FFDError FFDDeleteData(FFDHandle ffdHandle, uint32_t ffdLength) {
    ENTER("FFDDeleteData(..)");
    TRACE_PARAM("ffdLength", "%lu", ffdLength);
    FORWARD(FFDDeleteData, ffdLength);
}

FFDError FFDUndoLast(FFDHandle ffdHandle) {
    ENTER("FFDUndoLast(.)");
    FORWARD(FFDUndoLast);
}

FFDError FFDStoreActualFileStatus(FFDHandle ffdHandle) {
    ENTER("FFDStoreActualFileStatus(.)");
    FORWARD(FFDStoreActualFileStatus);
}

FFDError FFDRestoreFileStatus(FFDHandle ffdHandle) {
    ENTER("FFDRestoreFileStatus(.)");
    FORWARD(FFDRestoreFileStatus);
}

FFDError FFDGetWfx(FFDHandle ffdHandle, void* lpWfx, uint32_t ffdBufferSize) {
    ENTER("FFDGetWfx(...)");
    FORWARD(FFDGetWfx, lpWfx, ffdBufferSize);
}

FFDError FFDGetDownloadLength(FFDHandle ffdHandle, void* lpffdDownloadLen) {
    ENTER("FFDGetDownloadLength(..)");
    TRACE_PARAM("lpffdDownloadLen", "%p", lpffdDownloadLen);
    FORWARD(FFDGetDownloadLength, lpffdDownloadLen);
}

#undef FORWARD

FFDError FFDGetDSSEncrypted(FFDHandle ffdHandle, void* lpffdBool) {
    ENTER("FFDGetDSSEncrypted(..)");
    TRACE_PARAM("lpffdBool", "%p", lpffdBool);
    CKivmp3* const pKivmp3 = KIVMP3_get_ckivmp3_object(ffdHandle);
    if (pKivmp3 == nullptr) {
        return TRACED_ERROR(FFD_INVALID_HANDLE,
                            "FFD_INVALID_HANDLE from KIVMP3_get_ckivmp3_object()");
    }
    // Any result is an answer here; none is a failure.
    FFDError const ffdError = pKivmp3->FFDGetDSSEncrypted(lpffdBool);
    TRACE_VALUE("pKivmp3->FFDGetDSSEncrypted()", "%d", static_cast<DWORD>(ffdError & 0xFFFFFFFFu));
    return ffdError;
}

FFDHandle FFDCreateFile(char const* lpFileName, FFDDesiredAccess ffdDesiredAccess,
                        FFDCreation ffdCreation, void* lpddiOpenInfo,
                        FFDCallbackParams ffdCallbackParams, FFDError* lpffdError,
                        void* pffdOpenInfoEx) {
    TRACE_ENTRY("-----FFDCreateFile(...)");
    TRACE_PARAM("lpFileName", "%s", lpFileName);
    TRACE_PARAM("ffdDesiredAccess", "%ld", ffdDesiredAccess);
    TRACE_PARAM("ffdCreation", "%ld", ffdCreation);
    TRACE_PARAM("lpddiOpenInfo", "%p", lpddiOpenInfo);
    TRACE_PARAM("ffdCallbackParams", "%p", static_cast<void*>(&ffdCallbackParams));
    TRACE_PARAM("lpffdError", "%p", static_cast<void*>(lpffdError));
    TRACE_PARAM("pffdOpenInfoEx", "%p", pffdOpenInfoEx);
    if (lpffdError == nullptr) {
        return nullptr;
    }
    // The list element is made first: an open file that could not be listed could not be closed.
    std::list<CKivmp3*> newElement;
    CKivmp3* pKivmp3 = nullptr;
    try {
        newElement.push_front(nullptr);
        pKivmp3 = new CKivmp3;
    } catch (std::bad_alloc const&) {
        *lpffdError = FFD_ERROR_OUTOFMEMORY;
        TRACE_ERROR(*lpffdError, "by new CKivmp3 -> FFD_ERROR_OUTOFMEMORY");
        return nullptr;
    }
    pKivmp3->FFDCreateFile(lpFileName, ffdDesiredAccess, ffdCreation, lpddiOpenInfo,
                           &ffdCallbackParams, lpffdError, pffdOpenInfoEx);
    if (*lpffdError != FFD_NOERROR) {
        TRACE_ERROR(*lpffdError, "returned by pKivmp3->FFDCreateFile(...) from *lpffdError");
        delete pKivmp3;
        pKivmp3 = nullptr;
    } else {
        newElement.front() = pKivmp3;
        forget_files_of_parent();
        SoundfileList.splice(SoundfileList.begin(), newElement);
    }
    FFDHandle const ffdHandle = pKivmp3 == nullptr ? nullptr : handle_of(pKivmp3);
    TRACE_VALUE("pKivmp3", "%p", ffdHandle);
    return ffdHandle;
}

FFDError FFDClose(FFDHandle ffdHandle) {
    ENTER("FFDClose(.)");
    CKivmp3* const pKivmp3 = KIVMP3_get_ckivmp3_object(ffdHandle);
    if (pKivmp3 == nullptr) {
        return TRACED_ERROR(FFD_INVALID_HANDLE, "FFD_INVALID_HANDLE");
    }
    // Before any closing work: the handle is dead, however that ends.
    SoundfileList.remove(pKivmp3);
    FFDError const ffdError = pKivmp3->FFDClose();
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by pKivmp3->FFDClose()");
    }
    delete pKivmp3;
    return ffdError;
}

#undef ENTER

// Checks the slot's function against the type that the host's header gives it.
template <typename Proc> void fill_slot(int nSlot_p, Proc pFunction_p) {
    FFD_Function_Table[nSlot_p] = reinterpret_cast<void*>(pFunction_p);
}

void fill_function_table() {
    fill_slot<FFDGetCurrentPosProc>(FFD_SLOT_GET_CURRENT_POS, FFDGetCurrentPos);
    fill_slot<FFDGetDictationFileSizeProc>(FFD_SLOT_GET_DICTATION_FILE_SIZE,
                                           FFDGetDictationFileSize);
    fill_slot<FFDGetGranularitySizeProc>(FFD_SLOT_GET_GRANULARITY_SIZE, FFDGetGranularitySize);
    fill_slot<FFDGetAudioInfoProc>(FFD_SLOT_GET_AUDIO_INFO, FFDGetAudioInfo);
    fill_slot<FFDGetSizeOfDataProc>(FFD_SLOT_GET_SIZE_OF_DATA, FFDGetSizeOfData);
    fill_slot<FFDGetFileNameProc>(FFD_SLOT_GET_FILE_NAME, FFDGetFileName);
    fill_slot<FFDGetFilePathProc>(FFD_SLOT_GET_FILE_PATH, FFDGetFilePath);
    fill_slot<FFDGetSoundDataLengthProc>(FFD_SLOT_GET_SOUND_DATA_LENGTH, FFDGetSoundDataLength);
    fill_slot<FFDSetDiskspaceWarningTimeProc>(FFD_SLOT_SET_DISKSPACE_WARNING_TIME,
                                              FFDSetDiskspaceWarningTime);
    fill_slot<FFDSetCallbackAddressProc>(FFD_SLOT_SET_CALLBACK_ADDRESS, FFDSetCallbackAddress);
    fill_slot<FFDAudioSeekProc>(FFD_SLOT_AUDIO_SEEK, FFDAudioSeek);
    fill_slot<FFDSaveAsProc>(FFD_SLOT_SAVE_AS, FFDSaveAs);
    fill_slot<FFDCloseProc>(FFD_SLOT_CLOSE, FFDClose);
    fill_slot<FFDCreateFileProc>(FFD_SLOT_CREATE_FILE, FFDCreateFile);
    fill_slot<FFDReadDataProc>(FFD_SLOT_READ_DATA, FFDReadData);
    fill_slot<FFDWriteDataProc>(FFD_SLOT_WRITE_DATA, FFDWriteData);
    fill_slot<FFDDeleteDataProc>(FFD_SLOT_DELETE_DATA, FFDDeleteData);
    fill_slot<FFDUndoLastProc>(FFD_SLOT_UNDO_LAST, FFDUndoLast);
    fill_slot<FFDStoreActualFileStatusProc>(FFD_SLOT_STORE_ACTUAL_FILE_STATUS,
                                            FFDStoreActualFileStatus);
    fill_slot<FFDRestoreFileStatusProc>(FFD_SLOT_RESTORE_FILE_STATUS, FFDRestoreFileStatus);
    fill_slot<FFDGetWfxProc>(FFD_SLOT_GET_WFX, FFDGetWfx);
    fill_slot<FFDGetDownloadLengthProc>(FFD_SLOT_GET_DOWNLOAD_LENGTH, FFDGetDownloadLength);
    FFD_Function_Table[FFD_SLOT_RESERVED] = nullptr;
    fill_slot<FFDGetDSSEncryptedProc>(FFD_SLOT_GET_DSS_ENCRYPTED, FFDGetDSSEncrypted);
}

} // namespace

// Runs under the platform's loader: uses the trace log and nothing else. A detach closes no file.
extern "C" PLATFORM_EXPORT BOOL WINAPI DllMain(HINSTANCE /*hinstDLL*/, DWORD fdwReason,
                                               LPVOID /*lpvReserved*/) {
    switch (fdwReason) {
    case DLL_PROCESS_ATTACH:
        TRACE_INIT(nullptr);
        fill_function_table();
        break;
    case DLL_PROCESS_DETACH:
        TRACE_INFO("KIVMP3 DllMain DLL_PROCESS_DETACH");
        break;
    case DLL_THREAD_ATTACH:
        TRACE_INFO("KIVMP3 DllMain DLL_THREAD_ATTACH");
        break;
    case DLL_THREAD_DETACH:
        TRACE_INFO("KIVMP3 DllMain DLL_THREAD_DETACH");
        break;
    default:
        TRACE_INFO("KIVMP3 DllMain Who knows?");
        break;
    }
    return TRUE;
}
