/**
 * @file
 * The host's view of the MP3 dictation driver.
 *
 * A host loads the driver at run time, looks up the data symbol `FFD_Function_Table`, an FFDTable,
 * and from then on reaches the driver through the 24 slots of that table only. This header names
 * the slots, their types, the status codes with a text and an advice for each, and the records that
 * cross the boundary. It needs nothing but <stdint.h> and <stddef.h> and compiles as C11 and as
 * C++.
 *
 * A host that links the driver instead defines FFD_LINKED before it includes this header, and has
 * the table as the variable FFD_Function_Table.
 *
 * What holds for every slot:
 *   - Call the table from one thread at a time, whatever number of files is open.
 *   - Positions and lengths are counts of bytes of the dictation, unsigned 32 bits. Byte 0 is the
 *     first byte of the first MP3 frame, not of the file.
 *   - Texts are narrow and zero-terminated. Paths are at most 259 characters long.
 *   - Pointers are not tested for null unless the slot says so.
 *   - A slot that takes a handle answers FFD_INVALID_HANDLE for a handle that is not open, and
 *     touches none of its arguments then.
 */
#ifndef FFD_H
#define FFD_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Basic types --------------------------------------------------------------------------- */

/** The status of an operation, 64 bits wide everywhere; 0 is success. */
typedef uint64_t FFDError;

/** An open sound file, as the host holds it. Opaque; null means no file. Valid from a successful
 * FFDCreateFile up to the entry of FFDClose. */
typedef void* FFDHandle;

typedef uint32_t FFDDesiredAccess; /**< FFD_ACCESS_...  */
typedef uint32_t FFDCreation;      /**< FFD_CREATE_NEW or FFD_OPEN_EXISTING */
typedef uint32_t FFDMethod;        /**< FFD_METHOD_... */

/* ---- Status codes -------------------------------------------------------------------------- */

#define FFD_NOERROR UINT64_C(0)               /**< success */
#define FFD_INVALID_PATH UINT64_C(1)          /**< no file part, malformed, or too long a path */
#define FFD_INVALID_HANDLE UINT64_C(2)        /**< the handle is not that of an open file */
#define FFD_ERROR_WRITE_PROTECT UINT64_C(4)   /**< the medium is write-protected */
#define FFD_ERROR_ACCESS_DENIED UINT64_C(5)   /**< access denied, or a sharing violation */
#define FFD_ERR_NOT_ENOUGH_DSPACE UINT64_C(6) /**< too little free disk space for the rebuild */
#define FFD_FILE_ALREADY_EXISTS UINT64_C(7)   /**< the file exists */
#define FFD_NO_MORE_FRAMES UINT64_C(9)        /**< the file holds no MP3 frame */
#define FFD_INVALID_POSITION UINT64_C(11)     /**< a read handle older than the present position */
#define FFD_INVALID_READ_HANDLE UINT64_C(14)  /**< the read handle is null */
#define FFD_BUFFER_OVERFLOW UINT64_C(15)      /**< the caller's buffer is too small */
#define FFD_GRANULARITY_ERROR UINT64_C(18)    /**< a size is no multiple of the block align */
#define FFD_NOT_SUPPORTED UINT64_C(19)   /**< the operation or the kind of file is not supported */
#define FFD_NOT_UNDOABLE UINT64_C(22)    /**< the undo did not reach the directory file */
#define FFD_FILE_NOT_FOUND UINT64_C(23)  /**< the file does not exist */
#define FFD_NOTHING_TO_UNDO UINT64_C(24) /**< no deletion is left to be taken back */
#define FFD_INVALID_PARAMETER UINT64_C(25)     /**< a bad argument */
#define FFD_INVALID_FORMAT UINT64_C(26)        /**< the ID3 tags of the file are corrupt */
#define FFD_ERROR_OUTOFMEMORY UINT64_C(27)     /**< no memory, or the edit directory is full */
#define FFD_FILE_IO_ERROR UINT64_C(29)         /**< a file operation failed */
#define FFD_DIRECTORY_MISMATCH UINT64_C(31)    /**< directory against file; stays in the driver */
#define FFD_INTERNAL_ERROR UINT64_C(32)        /**< a state that should not be */
#define FFD_NO_STORED_FILE_STATUS UINT64_C(33) /**< there is no stored status to restore */
#define FFD_ERROR_READ_ONLY UINT64_C(34)       /**< an edit of a file opened for reading only */
#define FFD_TAG_VERSION_UNKNOWN UINT64_C(42)   /**< an ID3 version above 4; stays in the driver */

/* ---- Statuses in words --------------------------------------------------------------------- */

/** Every status above as X(status, meaning, advice): what has happened, as the end of a sentence,
 * and what can be done about it, as one sentence. For tables of a host's own. */
#define FFD_FOR_EACH_STATUS(X)                                                                     \
    X(FFD_NOERROR, "success", "Nothing to do.")                                                    \
    X(FFD_INVALID_PATH, "the path has no file name, is malformed or too long",                     \
      "Give the path of a file, shorter than 260 characters; a .DIR file cannot be edited "        \
      "itself.")                                                                                   \
    X(FFD_INVALID_HANDLE, "the file is not open", "Open the file first.")                          \
    X(FFD_ERROR_WRITE_PROTECT, "the medium is write-protected",                                    \
      "Remove the write protection, or copy the file to another medium.")                          \
    X(FFD_ERROR_ACCESS_DENIED, "access denied, or the file is in use",                             \
      "Check the permissions of the file, and close the programs that have it open.")              \
    X(FFD_ERR_NOT_ENOUGH_DSPACE, "too little free disk space to rebuild the file",                 \
      "Free as much disk space as the file has and open it for writing again: the edits are kept " \
      "in the .DIR file beside it.")                                                               \
    X(FFD_FILE_ALREADY_EXISTS, "the file exists", "Choose another name.")                          \
    X(FFD_NO_MORE_FRAMES, "the file holds no MP3 frame", "Choose an MP3 file.")                    \
    X(FFD_INVALID_POSITION, "the position has moved since the read was prepared",                  \
      "Prepare the read again.")                                                                   \
    X(FFD_INVALID_READ_HANDLE, "the read was not prepared", "Prepare the read first.")             \
    X(FFD_BUFFER_OVERFLOW, "the buffer is too small", "Give a larger buffer.")                     \
    X(FFD_GRANULARITY_ERROR, "a size is no multiple of the block align",                           \
      "Give a size that is a multiple of the block align.")                                        \
    X(FFD_NOT_SUPPORTED, "the operation or the kind of file is not supported",                     \
      "The file needs one constant bitrate and less than 4 GiB: encode it anew with a constant "   \
      "bitrate, or split it.")                                                                     \
    X(FFD_NOT_UNDOABLE, "the undo did not reach the .DIR file",                                    \
      "Close the file normally: the undo is in effect, but a crash would lose it.")                \
    X(FFD_FILE_NOT_FOUND, "the file does not exist", "Check the path.")                            \
    X(FFD_NOTHING_TO_UNDO, "no deletion is left to be taken back",                                 \
      "Only the last delete since the file was opened or recovered can be undone; inserts and "    \
      "overwrites cannot.")                                                                        \
    X(FFD_INVALID_PARAMETER, "a bad argument",                                                     \
      "Check the arguments: an access or a method that is none, or a pointer that is null.")       \
    X(FFD_INVALID_FORMAT, "the ID3 tags of the file are corrupt",                                  \
      "Remove or rewrite the ID3v2 tag with a tag editor.")                                        \
    X(FFD_ERROR_OUTOFMEMORY, "no memory, or no room left in the edit directory",                   \
      "Close the file and open it again: the close folds the edits in and empties the directory.") \
    X(FFD_FILE_IO_ERROR, "a file operation failed",                                                \
      "Check that the file exists, is no directory, may be accessed, is not open in another "      \
      "program, and that the disk is not full.")                                                   \
    X(FFD_DIRECTORY_MISMATCH, "the .DIR file and the MP3 file disagree",                           \
      "Open the file for writing: the driver repairs a leftover .DIR file, or sets a damaged one " \
      "aside as .DIR.bad.")                                                                        \
    X(FFD_INTERNAL_ERROR, "a state that should not be",                                            \
      "Open the file again; if it happens again, keep the file and report it.")                    \
    X(FFD_NO_STORED_FILE_STATUS, "there is no stored status to restore",                           \
      "Store the status before you restore it, while the file is open.")                           \
    X(FFD_ERROR_READ_ONLY, "the file is open for reading only", "Open the file for writing.")      \
    X(FFD_TAG_VERSION_UNKNOWN, "an ID3 version above 4", "Rewrite the ID3v2 tag with a tag editor.")

/** A status in words. */
typedef struct FFDStatusText {
    FFDError ffdStatus;    /**< the code */
    char const* szName;    /**< its name in this header */
    char const* szMeaning; /**< what has happened, as the end of a sentence */
    char const* szAdvice;  /**< what can be done about it, as one sentence */
} FFDStatusText;

/** One row of a table of FFDStatusText, for FFD_FOR_EACH_STATUS. */
#define FFD_STATUS_ROW(status, meaning, advice) {status, #status, meaning, advice},

/** The words for a status. One that this header does not name gets words that say so. */
static inline FFDStatusText ffd_describe(FFDError status) {
    static FFDStatusText const rows[] = {FFD_FOR_EACH_STATUS(FFD_STATUS_ROW)};
    FFDStatusText text = {0, "unknown status", "a status that this header does not know",
                          "Use a host of the same version as the driver."};
    size_t i;
    for (i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        if (rows[i].ffdStatus == status) {
            return rows[i];
        }
    }
    text.ffdStatus = status;
    return text;
}

/* ---- Argument values ----------------------------------------------------------------------- */

#define FFD_ACCESS_READ 1u      /**< read only; edits answer FFD_ERROR_READ_ONLY */
#define FFD_ACCESS_READWRITE 2u /**< read and edit */

#define FFD_CREATE_NEW 1u    /**< refused with FFD_NOT_SUPPORTED: the driver makes no new file */
#define FFD_OPEN_EXISTING 2u /**< the one value that opens */

#define FFD_METHOD_INSERT 1u    /**< any value but 2 inserts */
#define FFD_METHOD_OVERWRITE 2u /**< the new bytes replace as many behind the position */

/** Messages to the host's callback, see FFDCallbackParams. */
#define FIDM_DISKSPACE_WARNING 1020u /**< parameter 1: a third of the space left above the need */
#define FIDM_OUT_OF_DISKSPACE 1021u  /**< parameter 1: the unit set with slot 8 */

/* ---- Records, little-endian, natural alignment --------------------------------------------- */

/** What the next FFDReadData covers. FFDGetSizeOfData gives out a pointer to the one record of the
 * open file; the next call overwrites it. Owned by the driver, alive as long as the handle. */
typedef struct FFDReadHandle {
    uint32_t RealSizeInBytes;  /**< bytes that the read covers */
    uint32_t ValidSizeInBytes; /**< the same value */
    uint32_t RealStartPos;     /**< dictation position of the first byte */
    uint32_t RealEndPos;       /**< RealStartPos + RealSizeInBytes */
} FFDReadHandle;

/** The format of an open file. The driver writes the fields so marked and nothing behind byte 25.
 */
typedef struct FFDAudioInfo {
    uint32_t dwHost;          /**< the host's, not written */
    uint16_t wChannels;       /**< written: 1 or 2 */
    uint16_t wBitsPerSample;  /**< written: 0 for MP3 */
    uint32_t nAvgBytesPerSec; /**< the host's, not written */
    uint32_t dwSamplingRate;  /**< written: samples per second */
    uint16_t wBlockAlign;     /**< written: 1 for MP3 */
    uint8_t byPadding1[2];    /**< not written */
    uint8_t bySource;         /**< written: 0 */
    uint8_t byPadding2[1];    /**< not written */
    uint16_t wCodtype;        /**< written: 130, the coding type of MP3 */
    uint8_t byCodver;         /**< written: 0 */
    uint8_t byClosing;        /**< written: 0 */
} FFDAudioInfo;

/** A host's function for the messages of the driver, called in the middle of FFDWriteData and on
 * its thread. It must call no slot, and nothing may be thrown out of it. `dwParam2` is not used. */
typedef void (*FFDCallbackProc)(void* hDriver, uint32_t dwMessage, uintptr_t dwUser,
                                uintptr_t dwParam1, uintptr_t dwParam2);

/** Where the driver sends its messages. */
typedef struct FFDCallbackParams {
    void* hDriver;        /**< the host's driver handle; must not be null */
    uint64_t dwCallback;  /**< address of an FFDCallbackProc; 0 for none */
    uint32_t dwHostValue; /**< stored, never read */
    uint32_t dwPadding;   /**< not used */
    uint64_t dwUser;      /**< handed to the callback */
} FFDCallbackParams;

/** Fails to compile if the condition does not hold. */
#ifdef __cplusplus
#define FFD_ASSERT_LAYOUT(condition) static_assert(condition, #condition)
#else
#define FFD_ASSERT_LAYOUT(condition) _Static_assert(condition, #condition)
#endif

FFD_ASSERT_LAYOUT(sizeof(FFDReadHandle) == 16);
FFD_ASSERT_LAYOUT(offsetof(FFDReadHandle, RealStartPos) == 8);
FFD_ASSERT_LAYOUT(sizeof(FFDAudioInfo) == 28);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, wChannels) == 4);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, dwSamplingRate) == 12);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, wBlockAlign) == 16);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, bySource) == 20);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, wCodtype) == 22);
FFD_ASSERT_LAYOUT(offsetof(FFDAudioInfo, byClosing) == 25);
FFD_ASSERT_LAYOUT(sizeof(void*) == 8 && sizeof(FFDCallbackParams) == 32);
FFD_ASSERT_LAYOUT(offsetof(FFDCallbackParams, dwCallback) == 8);
FFD_ASSERT_LAYOUT(offsetof(FFDCallbackParams, dwUser) == 24);

/* ---- The table ----------------------------------------------------------------------------- */

#define FFD_TABLE_SYMBOL "FFD_Function_Table" /**< the name of the one symbol, an FFDTable */

/** The numbers of the slots. Each is a pointer to a function of the type named. */
enum {
    FFD_SLOT_GET_CURRENT_POS = 0,            /**< FFDGetCurrentPosProc */
    FFD_SLOT_GET_DICTATION_FILE_SIZE = 1,    /**< FFDGetDictationFileSizeProc */
    FFD_SLOT_GET_GRANULARITY_SIZE = 2,       /**< FFDGetGranularitySizeProc */
    FFD_SLOT_GET_AUDIO_INFO = 3,             /**< FFDGetAudioInfoProc */
    FFD_SLOT_GET_SIZE_OF_DATA = 4,           /**< FFDGetSizeOfDataProc */
    FFD_SLOT_GET_FILE_NAME = 5,              /**< FFDGetFileNameProc */
    FFD_SLOT_GET_FILE_PATH = 6,              /**< FFDGetFilePathProc */
    FFD_SLOT_GET_SOUND_DATA_LENGTH = 7,      /**< FFDGetSoundDataLengthProc */
    FFD_SLOT_SET_DISKSPACE_WARNING_TIME = 8, /**< FFDSetDiskspaceWarningTimeProc */
    FFD_SLOT_SET_CALLBACK_ADDRESS = 9,       /**< FFDSetCallbackAddressProc */
    FFD_SLOT_AUDIO_SEEK = 10,                /**< FFDAudioSeekProc */
    FFD_SLOT_SAVE_AS = 11,                   /**< FFDSaveAsProc */
    FFD_SLOT_CLOSE = 12,                     /**< FFDCloseProc */
    FFD_SLOT_CREATE_FILE = 13,               /**< FFDCreateFileProc */
    FFD_SLOT_READ_DATA = 14,                 /**< FFDReadDataProc */
    FFD_SLOT_WRITE_DATA = 15,                /**< FFDWriteDataProc */
    FFD_SLOT_DELETE_DATA = 16,               /**< FFDDeleteDataProc */
    FFD_SLOT_UNDO_LAST = 17,                 /**< FFDUndoLastProc */
    FFD_SLOT_STORE_ACTUAL_FILE_STATUS = 18,  /**< FFDStoreActualFileStatusProc */
    FFD_SLOT_RESTORE_FILE_STATUS = 19,       /**< FFDRestoreFileStatusProc */
    FFD_SLOT_GET_WFX = 20,                   /**< FFDGetWfxProc */
    FFD_SLOT_GET_DOWNLOAD_LENGTH = 21,       /**< FFDGetDownloadLengthProc */
    FFD_SLOT_RESERVED = 22,                  /**< null; must not be called */
    FFD_SLOT_GET_DSS_ENCRYPTED = 23,         /**< FFDGetDSSEncryptedProc */
    FFD_SLOT_COUNT = 24                      /**< of all, the one reserved included */
};

/** Slot 0. The dictation position of the next read or edit, in bytes. */
typedef FFDError (*FFDGetCurrentPosProc)(FFDHandle ffdHandle, uint32_t* lpffdCurrentPos);

/** Slot 1. The size of the whole MP3 file in bytes: tags, deleted and appended audio included. */
typedef FFDError (*FFDGetDictationFileSizeProc)(FFDHandle ffdHandle, uint32_t* lpffdFileSize);

/** Slot 2. Always FFD_NOT_SUPPORTED; lpffdGranuInfo is not touched. */
typedef FFDError (*FFDGetGranularitySizeProc)(FFDHandle ffdHandle, void* lpffdGranuInfo);

/** Slot 3. Fills the written fields of *lpAudioInfo. ffdBufferSize is ignored: the record
 * must have at least 26 bytes. */
typedef FFDError (*FFDGetAudioInfoProc)(FFDHandle ffdHandle, FFDAudioInfo* lpAudioInfo,
                                        uint32_t ffdBufferSize);

/** Slot 4. Prepares a read of up to ffdLength bytes from the position on: gives the record that
 * FFDReadData needs, with the length cut down to what is left. */
typedef FFDError (*FFDGetSizeOfDataProc)(FFDHandle ffdHandle, uint32_t ffdLength,
                                         FFDReadHandle** lplpffdReadHandle);

/** Slot 5. The file name with its extension. FFD_BUFFER_OVERFLOW, with the buffer untouched, if
 * ffdBufferSize (characters) does not hold the name and its terminator. */
typedef FFDError (*FFDGetFileNameProc)(FFDHandle ffdHandle, char* lpffdBuffer,
                                       uint32_t ffdBufferSize);

/** Slot 6. The directory of the file with its closing separator; else as slot 5. */
typedef FFDError (*FFDGetFilePathProc)(FFDHandle ffdHandle, char* lpffdBuffer,
                                       uint32_t ffdBufferSize);

/** Slot 7. The length of the dictation in bytes, as it follows from its length in whole
 * milliseconds: it can be less than the exact length, which a seek to the end gives. */
typedef FFDError (*FFDGetSoundDataLengthProc)(FFDHandle ffdHandle, uint32_t* lpffdSoundDataLength);

/** The basic need: how many bytes of the disk FFDWriteData wants to find free for a file and its
 * blocks, of so many bytes together. Each byte that is recorded adds to both. */
static inline uint64_t ffd_basic_need(uint64_t fileAndBlocks) {
    return 2u * fileAndBlocks + UINT64_C(10) * 1024u * 1024u;
}

/** Slot 8. FFDWriteData sends FIDM_DISKSPACE_WARNING when a third of the free space above the basic
 * need is below this many bytes; 0 for no warning. */
typedef FFDError (*FFDSetDiskspaceWarningTimeProc)(FFDHandle ffdHandle, uint32_t ffdWarningUnit);

/** Slot 9. Replaces the callback target by a 32-bit address; 0 switches messages off. A target
 * above 4 GiB can only be given to FFDCreateFile. */
typedef FFDError (*FFDSetCallbackAddressProc)(FFDHandle ffdHandle, uint32_t ffdCallbackAddress);

/** Slot 10. Moves the position, to the end at most, and gives the position reached. */
typedef FFDError (*FFDAudioSeekProc)(FFDHandle ffdHandle, uint32_t ffdSeekPos,
                                     uint32_t* lpffdRealPos);

/** Slot 11. Answers FFD_NOERROR and writes nothing. */
typedef FFDError (*FFDSaveAsProc)(FFDHandle ffdHandle, char const* lpNewName);

/** Slot 12. Folds the edits into the file, rebuilding it if they require it, and ends the handle,
 * whatever the status. After a status other than FFD_NOERROR the edits are still in the .DIR file
 * beside the sound file: the next open for writing finds them. FFD_ERR_NOT_ENOUGH_DSPACE,
 * FFD_FILE_IO_ERROR, FFD_ERROR_OUTOFMEMORY. */
typedef FFDError (*FFDCloseProc)(FFDHandle ffdHandle);

/** Slot 13. Opens an MP3 file with a constant bitrate. The result is the handle, or null with the
 * status in *lpffdError (64 bits, written always, must not be null). lpddiOpenInfo and
 * pffdOpenInfoEx are not read through. FFD_INVALID_PATH, FFD_INVALID_PARAMETER, FFD_NOT_SUPPORTED
 * (a new file, a variable bitrate, 4 GiB and more), FFD_FILE_IO_ERROR, FFD_NO_MORE_FRAMES,
 * FFD_INVALID_FORMAT, FFD_ERROR_OUTOFMEMORY, FFD_INTERNAL_ERROR. A failed open changes no audio. */
typedef FFDHandle (*FFDCreateFileProc)(char const* lpFileName, FFDDesiredAccess ffdDesiredAccess,
                                       FFDCreation ffdCreation, void* lpddiOpenInfo,
                                       FFDCallbackParams ffdCallbackParams, FFDError* lpffdError,
                                       void* pffdOpenInfoEx);

/** Slot 14. Copies the bytes that the record of FFDGetSizeOfData covers into lpffdBuffer and moves
 * the position behind them. How far a read came shows in FFDGetCurrentPos.
 * FFD_INVALID_READ_HANDLE, FFD_BUFFER_OVERFLOW, FFD_INVALID_PARAMETER (null buffer),
 * FFD_INVALID_POSITION (the position has moved since FFDGetSizeOfData), FFD_INTERNAL_ERROR (nothing
 * is left in the dictation), FFD_FILE_IO_ERROR. */
typedef FFDError (*FFDReadDataProc)(FFDHandle ffdHandle, FFDReadHandle const* lpcffdReadHandle,
                                    uint32_t ffdBufferSize, uint8_t* lpffdBuffer);

/** Slot 15. Enters ffdBufferSize bytes of MP3 data at the position and moves it behind them; with
 * FFD_METHOD_OVERWRITE as many bytes behind them leave the dictation. The bytes are on the disk
 * when it returns. FFD_ERROR_READ_ONLY, FFD_FILE_IO_ERROR (also at 4 GiB), FFD_ERROR_OUTOFMEMORY
 * (the edit directory is full): the dictation is as before. */
typedef FFDError (*FFDWriteDataProc)(FFDHandle ffdHandle, FFDMethod ffdMethod,
                                     uint32_t ffdBufferSize, uint8_t* lpffdBuffer);

/** Slot 16. Takes up to ffdLength bytes behind the position out of the dictation; FFDUndoLast
 * brings them back. Nothing is deleted at a position less than one frame before the end.
 * FFD_ERROR_READ_ONLY, FFD_ERROR_OUTOFMEMORY, FFD_INTERNAL_ERROR. */
typedef FFDError (*FFDDeleteDataProc)(FFDHandle ffdHandle, uint32_t ffdLength);

/** Slot 17. Brings back what the last FFDDeleteData took out. FFD_ERROR_READ_ONLY,
 * FFD_NOTHING_TO_UNDO, FFD_NOT_UNDOABLE (back in memory, but not in the .DIR file). */
typedef FFDError (*FFDUndoLastProc)(FFDHandle ffdHandle);

/** Slot 18. Takes a snapshot of the edit state, one per open file. */
typedef FFDError (*FFDStoreActualFileStatusProc)(FFDHandle ffdHandle);

/** Slot 19. Goes back to the snapshot. */
typedef FFDError (*FFDRestoreFileStatusProc)(FFDHandle ffdHandle);

/** Slot 20. Copies the wave format block, 30 bytes, an MPEGLAYER3WAVEFORMAT. FFD_BUFFER_OVERFLOW if
 * ffdBufferSize (bytes) is below that. */
typedef FFDError (*FFDGetWfxProc)(FFDHandle ffdHandle, void* lpWfx, uint32_t ffdBufferSize);

/** Slot 21. Answers FFD_NOERROR; lpffdDownloadLen is not touched. */
typedef FFDError (*FFDGetDownloadLengthProc)(FFDHandle ffdHandle, void* lpffdDownloadLen);

/** Slot 23. FFD_NOT_SUPPORTED; lpffdBool is not touched. */
typedef FFDError (*FFDGetDSSEncryptedProc)(FFDHandle ffdHandle, void* lpffdBool);

/** The table: its slots by name and type, in the order of their numbers. What the symbol
 * `FFD_Function_Table` names has this type. The driver fills it when it is loaded. */
typedef struct FFDTable {
    FFDGetCurrentPosProc get_current_pos;                      /**< slot 0 */
    FFDGetDictationFileSizeProc get_dictation_file_size;       /**< slot 1 */
    FFDGetGranularitySizeProc get_granularity_size;            /**< slot 2 */
    FFDGetAudioInfoProc get_audio_info;                        /**< slot 3 */
    FFDGetSizeOfDataProc get_size_of_data;                     /**< slot 4 */
    FFDGetFileNameProc get_file_name;                          /**< slot 5 */
    FFDGetFilePathProc get_file_path;                          /**< slot 6 */
    FFDGetSoundDataLengthProc get_sound_data_length;           /**< slot 7 */
    FFDSetDiskspaceWarningTimeProc set_diskspace_warning_time; /**< slot 8 */
    FFDSetCallbackAddressProc set_callback_address;            /**< slot 9 */
    FFDAudioSeekProc audio_seek;                               /**< slot 10 */
    FFDSaveAsProc save_as;                                     /**< slot 11 */
    FFDCloseProc close;                                        /**< slot 12 */
    FFDCreateFileProc create_file;                             /**< slot 13 */
    FFDReadDataProc read_data;                                 /**< slot 14 */
    FFDWriteDataProc write_data;                               /**< slot 15 */
    FFDDeleteDataProc delete_data;                             /**< slot 16 */
    FFDUndoLastProc undo_last;                                 /**< slot 17 */
    FFDStoreActualFileStatusProc store_actual_file_status;     /**< slot 18 */
    FFDRestoreFileStatusProc restore_file_status;              /**< slot 19 */
    FFDGetWfxProc get_wfx;                                     /**< slot 20 */
    FFDGetDownloadLengthProc get_download_length;              /**< slot 21 */
    void* reserved;                                            /**< slot 22, null */
    FFDGetDSSEncryptedProc get_dss_encrypted;                  /**< slot 23 */
} FFDTable;

FFD_ASSERT_LAYOUT(sizeof(FFDTable) == FFD_SLOT_COUNT * sizeof(void*));
/** Fails to compile if a member does not stand at its slot. */
#define FFD_ASSERT_SLOT(member, slot)                                                              \
    FFD_ASSERT_LAYOUT(offsetof(FFDTable, member) == FFD_SLOT_##slot * sizeof(void*))

FFD_ASSERT_SLOT(get_current_pos, GET_CURRENT_POS);
FFD_ASSERT_SLOT(get_dictation_file_size, GET_DICTATION_FILE_SIZE);
FFD_ASSERT_SLOT(get_granularity_size, GET_GRANULARITY_SIZE);
FFD_ASSERT_SLOT(get_audio_info, GET_AUDIO_INFO);
FFD_ASSERT_SLOT(get_size_of_data, GET_SIZE_OF_DATA);
FFD_ASSERT_SLOT(get_file_name, GET_FILE_NAME);
FFD_ASSERT_SLOT(get_file_path, GET_FILE_PATH);
FFD_ASSERT_SLOT(get_sound_data_length, GET_SOUND_DATA_LENGTH);
FFD_ASSERT_SLOT(set_diskspace_warning_time, SET_DISKSPACE_WARNING_TIME);
FFD_ASSERT_SLOT(set_callback_address, SET_CALLBACK_ADDRESS);
FFD_ASSERT_SLOT(audio_seek, AUDIO_SEEK);
FFD_ASSERT_SLOT(save_as, SAVE_AS);
FFD_ASSERT_SLOT(close, CLOSE);
FFD_ASSERT_SLOT(create_file, CREATE_FILE);
FFD_ASSERT_SLOT(read_data, READ_DATA);
FFD_ASSERT_SLOT(write_data, WRITE_DATA);
FFD_ASSERT_SLOT(delete_data, DELETE_DATA);
FFD_ASSERT_SLOT(undo_last, UNDO_LAST);
FFD_ASSERT_SLOT(store_actual_file_status, STORE_ACTUAL_FILE_STATUS);
FFD_ASSERT_SLOT(restore_file_status, RESTORE_FILE_STATUS);
FFD_ASSERT_SLOT(get_wfx, GET_WFX);
FFD_ASSERT_SLOT(get_download_length, GET_DOWNLOAD_LENGTH);
FFD_ASSERT_SLOT(reserved, RESERVED);
FFD_ASSERT_SLOT(get_dss_encrypted, GET_DSS_ENCRYPTED);

#ifdef FFD_LINKED
#ifdef _WIN32
#define FFD_IMPORT __declspec(dllimport) /**< in front of what comes from the DLL */
#else
#define FFD_IMPORT /**< in front of what comes from the DLL */
#endif
/** The table of a driver that is linked, not loaded: declared if FFD_LINKED is defined. It is
 * filled before main begins. */
FFD_IMPORT extern FFDTable const FFD_Function_Table;
#endif

#ifdef __cplusplus
}
#endif

#endif
