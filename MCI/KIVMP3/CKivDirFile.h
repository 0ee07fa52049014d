// The edit directory: which byte ranges of an MP3 file make up the dictation, and in which order.
//
// Audio that stands in the file is never changed. New audio is appended to the file, and every edit
// is an edit of this array of entries:
//
//     file      | head | 0 ........ 1000 | tag | new: 1128 .. 1228 |      audio positions
//
//     entries   [1: 0..300] [1: 1128..1228] [3: 300..400] [1: 400..1000]  in playing order
//     dictation   0..300      300..400         (deleted)     400..1000    dictation positions
//
// An audio position says where bytes lie, counted from the first byte of the first frame; the file
// offset is m_dwFirstFrame + audio position. A dictation position says where bytes play: the sum of
// the sizes of the live entries in front, plus the distance into the block. Both are unsigned
// 32-bit counts of bytes, and neither is a file offset.
//
// What every operation keeps:
//   - the live entries in array order are the dictation in playing order;
//   - an entry with Status 0 ends the array inside the buffer, and everything behind it is 0;
//   - no entry is ever removed and no two are merged; splitting, deleting and undoing leave the sum
//     of the sizes of all entries, deleted ones included, as it was;
//   - no two entries of a size above 0 overlap.
//
// For a file opened for writing the array is the image of the ".DIR" file beside the sound file
// (docs/formats.md). For a file opened for reading it lives only in memory and holds one entry.
#pragma once

#include "ffd.h"
#include "log/xkivlog.h"
#include "platform/platform.h"

#include <cstddef>
#include <cstdint>

// One entry, the same in memory and on the disk; little-endian.
struct DirEntry {
    BYTE Status;         // DIR_ENTRY_ bits; 0 ends the directory
    BYTE abyReserved[3]; // always 0
    DWORD Startpos;      // audio position of the block's first byte
    DWORD Endpos;        // audio position behind the block's last byte

    DWORD size() const { return Endpos - Startpos; }
    bool is_deleted() const;
    bool is_undoable() const;                                     // and deleted
    DWORD live_size() const { return is_deleted() ? 0 : size(); } // bytes in the dictation
};
static_assert(sizeof(DirEntry) == 12);
static_assert(offsetof(DirEntry, Startpos) == 4 && offsetof(DirEntry, Endpos) == 8);

constexpr BYTE DIR_ENTRY_USED = 1;     // in every entry, so that it does not read as the end
constexpr BYTE DIR_ENTRY_DELETED = 2;  // no part of the dictation
constexpr BYTE DIR_ENTRY_UNDOABLE = 8; // the deletion can still be taken back

// The values that a Status has: live, deleted for good, deleted but undoable.
constexpr BYTE DIR_STATUS_LIVE = DIR_ENTRY_USED;
constexpr BYTE DIR_STATUS_DELETED = DIR_ENTRY_USED | DIR_ENTRY_DELETED;
constexpr BYTE DIR_STATUS_UNDOABLE = DIR_ENTRY_USED | DIR_ENTRY_DELETED | DIR_ENTRY_UNDOABLE;

inline bool DirEntry::is_deleted() const {
    return (Status & DIR_ENTRY_DELETED) != 0;
}
inline bool DirEntry::is_undoable() const {
    return (Status & DIR_ENTRY_UNDOABLE) != 0;
}

constexpr DWORD DIR_FILE_SIZE = 65536;                 // bytes of a new directory
constexpr DWORD DIR_FILE_SIZE_MOST = 16 * 1024 * 1024; // a larger file is no directory

// The kinds of close.
constexpr int KIVMP3_CLOSE_REBUILD = 1;    // the file is not the dictation as it lies
constexpr int KIVMP3_CLOSE_NO_REBUILD = 2; // the file stays as it is

// What an edit will do to the array, decided once: it is counted against the capacity before
// anything changes, and then carried out. Entries are borrowed; nothing may change them in between.
struct DirInsertPlan {
    enum {
        ReplaceFirst, // the empty first entry is taken over
        InFront,      // a new entry in front of all
        Widen,        // the block that ends at the new one takes it in
        Behind,       // a new entry behind one that ends at the position
        Split,        // a new entry between the parts of a block that the position cuts
    } eKind;
    DWORD dwPosInBytes;  // dictation position of the insert
    bool bFound;         // an entry holds it; else pdirEntry is the last live one
    DirEntry* pdirEntry; // that is replaced, widened, split or stands beside the new one
    DWORD dwBlockStart;  // its dictation start
    DWORD dwNewEntries;  // with that of the delete by an overwrite
};

struct DirDeletePlan {
    DirEntry* pdirFirst;  // of the range, or cut by its begin; null if no entry holds the position
    DirEntry* pdirBehind; // the one behind the last of the range
    bool bCutFirst;       // the first entry is cut: the range begins with its second part
    bool bCutLast;        // the last entry is cut: the range ends with its first part
    DWORD dwFirstStart;   // dictation starts of the two, the last one's after the first cut
    DWORD dwLastStart;
    DWORD dwBytesInLast; // how many bytes of the range the last entry has, if it is cut
    DWORD dwBytesLeft;   // of the range behind the end of the dictation

    DWORD new_entries() const { return (bCutFirst ? 1u : 0u) + (bCutLast ? 1u : 0u); }
};

class CKivDirFile {
public:
    CKivDirFile() = default;
    CKivDirFile(CKivDirFile const&) = delete;
    CKivDirFile& operator=(CKivDirFile const&) = delete;

    // ---- Storage (CKivDirFile.cpp, CKivDirFileAdopt.cpp) ----

    // Makes the directory of a sound file, or takes over the .DIR file that is left from an unclean
    // end. A .DIR file that can't be a directory is set aside as ".bad" and a new one begun. Throws
    // FFD_INVALID_PATH with nothing on the disk, else FFD_FILE_IO_ERROR. The path is borrowed: it
    // stays the sound file's for as long as this object works on it.
    void create_directory_file(LPCSTR pszFilePath_p, FFDCreation ffdCreation_p,
                               FFDDesiredAccess ffdDesiredAccess_p);

    // The sound file that the directory is of, open, borrowed; null before it is closed. A .DIR
    // file that this object makes gets its permissions.
    void set_sound_file(HANDLE hSoundFile_p);

    // Commits the buffer to the .DIR file, whole. FFD_FILE_IO_ERROR leaves the buffer as it is, and
    // the next flush tries everything again. *pdwError_p receives the platform's error number, 0 on
    // success.
    FFDError flush_dir_file(DWORD* pdwError_p = nullptr);

    // Brings what a flush has left undone to its end, and gets hold of the .DIR file again: as long
    // as it is held, no other process gets at the sound file while this one closes it. Another file
    // that has come under its name is set aside, if it can be. False if somebody else holds the
    // .DIR file, which is as it should be then, and keeps it, or if the other file stays.
    bool flush_before_close();

    // Whether this object has the .DIR file open.
    bool is_held() const;

    // Of the buffer, as a flush writes it.
    uint64_t fingerprint() const;

    // Releases buffer and handles; goes through all its steps and answers FFD_FILE_IO_ERROR if one
    // failed. Run a second time it does nothing.
    FFDError close_dir_memory_mapping();

    // Removes the .DIR file and resets the object. Another file that has come under its name is set
    // aside. FFD_FILE_IO_ERROR if a step failed.
    FFDError delete_directory_file();

    // Renames the .DIR file, whose directory is of a file that is no more, to ".bad".
    FFDError set_directory_file_aside();

    // The buffer, borrowed.
    DirEntry const* get_dir_header() const {
        LogEntry("XKIVMP3.DLL", __FILE__, __LINE__, "-----CKivDirFile::get_dir_header()");
        return m_psDirHeader;
    }
    DWORD get_dir_size() const { return m_dwDirSize; } // bytes of the buffer
    bool is_read_only() const {
        LogEntry("XKIVMP3.DLL", __FILE__, __LINE__, "-----CKivDirFile::is_read_only()");
        return m_bReadOnly != FALSE;
    }
    bool is_changed() const { return m_bDirChanged != FALSE; }
    bool is_adopted() const { return m_bAdopted; } // from a .DIR file that named audio
    void set_changed() { m_bDirChanged = TRUE; }

    // The .DIR file may differ from the buffer from now on: a flush failed, or has not followed
    // yet.
    void set_flush_pending() {
        m_bFlushPending = true;
        m_bOnDisk = false;
    }

    bool is_new_directory() const { return is_new_directory(m_psDirHeader); }

    // How many bytes a .DIR file of dwFileSize_p bytes is read into; those that it lacks are 0.
    static DWORD get_buffer_size(DWORD dwFileSize_p);

    // Whether a .DIR file that was read so can be a directory. FFD_FILE_IO_ERROR if not, with the
    // reason as it is traced in *ppszDamage_p; FFD_ERROR_OUTOFMEMORY if that could not be found
    // out.
    static FFDError judge_dir_file(DirEntry const* psEntries_p, DWORD dwFileSize_p,
                                   LPCSTR* ppszDamage_p);

    // Whether entries name no audio yet: there is none, or one that ends at audio position 0.
    static bool is_new_directory(DirEntry const* psEntries_p);

    // Whether entries that come from a file can stand in a directory: each with a Status that
    // occurs, nothing reserved set, and no two that overlap. FFD_FILE_IO_ERROR if not,
    // FFD_ERROR_OUTOFMEMORY if that could not be found out.
    static FFDError check_entries(DirEntry const* psEntries_p, DWORD dwEntries_p);

    // Makes one live block of the audio area the whole directory. The .DIR file stays as it is.
    void set_first_entry(DWORD dwEndpos_p);

    // Puts a copy of get_dir_size() bytes, entries that are checked and then zeroes, in the place
    // of the directory, which differs from the .DIR file then.
    void replace_entries(void const* pvEntries_p);

    // ---- Entries (CKivDirFileEntries.cpp) ----

    // The live entry that a dictation position lies in, and the entry's dictation start. A position
    // on the border of two blocks finds the one in front of it. Null behind the end of the
    // dictation and in one without a live entry, with the start 0.
    DirEntry* get_dir_entry(DWORD dwSearchPosBytes_p, DWORD* pdwDirEntryStartPosBytes_p);

    // Cuts an entry in two at a dictation position strictly inside it; gives the second part.
    DirEntry* split_dir_entry(DirEntry* pdirEntry_p, DWORD dwBlockStartPosBytes_p,
                              DWORD dwSplitPosBytes_p);

    // Copies a new entry to the place of pdirEntryStart_p, or behind it, moving up what stands
    // there. Gives the entry placed. The caller has made sure that there is room.
    DirEntry* insert_dir_entry(DirEntry const* pdirEntryNew_p, DirEntry* pdirEntryStart_p,
                               int bAfterStartEntry_p);

    // The sizes of all entries, deleted ones too: how much of the audio area is accounted for.
    DWORD calc_data_size() const;

    // The length of the dictation in bytes, as of the last ascertain_data_length.
    DWORD get_data_length() const {
        LogEntry("XKIVMP3.DLL", __FILE__, __LINE__, "-----CKivDirFile::get_data_length()");
        return m_dwDataLengthInBy;
    }
    void ascertain_data_length();

    void log_dir_entries(LPCSTR pszLogText_p) const;

    // How many entries there are, how many have room, and whether so many more do.
    DWORD count_entries() const;
    DWORD get_capacity() const;
    bool has_room_for(DWORD dwNewEntries_p) const;

    // Cuts all entries to an audio position where the file ends, and takes a dictation position
    // back by the bytes that are gone in front of it. Whether any was cut; the length is not summed
    // anew.
    bool cut_entries(DWORD dwEndOfFile_p, DWORD* pdwPosInBytes_p);

    // How far the entries, deleted ones too, cover the audio area without a gap from audio position
    // 0 on; and where the next entry behind that gap starts, 0xFFFFFFFF if there is none. False if
    // there was no memory.
    bool find_first_gap(DWORD* pdwGapStartpos_p, DWORD* pdwGapEndpos_p) const;

    // ---- Edits (CKivDirFileEdits.cpp) ----

    // What an insert at a dictation position will do with a block of dwLength_p bytes that begins
    // at an audio position, the bytes that an overwrite deletes behind it included.
    DirInsertPlan plan_insert(DWORD dwCurrentPosInBytes, DWORD dwNewStartpos_p, DWORD dwLength_p,
                              bool bOverwrite_p) const;

    // Enters a block as planned: as an entry of its own, between the parts of a block that the
    // position cuts, or by widening the block that ends there on both counts. The caller has made
    // sure that there is room.
    FFDError insert_data(DirEntry const* pdirEntryNew_p, DirInsertPlan const& rPlan_p);

    // Takes ffdLength_p bytes from a dictation position on out of the dictation. A pure delete can
    // be undone and ends the undo of the one before it; the delete of an overwrite can't and does
    // not. FFD_ERROR_OUTOFMEMORY with nothing changed if there is no room for the entries that it
    // cuts; FFD_INTERNAL_ERROR if no entry holds the position, and nothing is marked then.
    FFDError delete_data(DWORD ffdLength_p, DWORD dwCurrentPosInBytes, int bPureDelete_p);

    // Brings the last pure delete back and flushes. FFD_NOTHING_TO_UNDO, or FFD_NOT_UNDOABLE with
    // the entries live in memory, the lengths not summed and the .DIR file as it was.
    FFDError undo_last();

    // Fits the block that reaches to the end of what the directory accounts for to what the file
    // holds. FFD_DIRECTORY_MISMATCH if they still differ then.
    FFDError recover_directory(DWORD dwDataChunkSize_p, DWORD dwSizeFromDirectory_p);

    // Decides whether the audio area, dwFileSize bytes long, read from its front to its end already
    // is the dictation.
    void get_kind_of_close(DWORD dwFileSize, int* pnKindOfClose_p) const;

private:
    void create_directory_mapping(LPCSTR pszFilePath_p, FFDCreation ffdCreation_p);
    bool open_existing_file(DWORD* pdwFileSize_p);
    void open_new_file();
    void set_damaged_file_aside();
    DWORD open_dir_file(bool bMake_p, bool* pbMade_p);
    DWORD take_dir_file(bool bMake_p);
    DWORD reopen_dir_file(bool bMake_p);
    void note_lost();
    bool holds_bytes_of_last_flush();
    void give_permissions();
    bool is_under_its_name();
    bool set_other_file_aside();
    void map_buffer();
    void allocate_buffer(DWORD dwFileSize_p);
    DWORD reopen_lost_file();
    DWORD write_dir_file();
    FFDError close_dir_file();
    bool is_damaged(DWORD dwFileSize_p) const;
    void clear_behind_end();
    void move_dir_entries_one_up(DirEntry* pdirEntryStart_p, int nAfterStartEntry_p);
    DirEntry* last_live_entry() const;
    DirEntry* highest_block(DWORD dwSizeFromDirectory_p);
    DirEntry* find_dir_entry(DWORD dwSearchPosBytes_p, DWORD* pdwDirEntryStartPosBytes_p) const;
    void trace_lookup(DWORD dwSearchPosBytes_p, bool bFound_p) const;
    bool clear_undoable(BYTE byStatus_p);
    DirDeletePlan plan_delete(DWORD dwCurrentPosInBytes, DWORD dwLength_p) const;
    bool cut_range(DirDeletePlan* pPlan_p, DWORD dwCurrentPosInBytes, LPCSTR pszNotFound_p);

    HANDLE m_hDirFile = nullptr;        // the open .DIR file
    HANDLE m_hDirFileMapping = nullptr; // the mapping of a file opened for reading
    char m_szDirFilePath[MAX_PATH] = "";
    LPCSTR m_pszSoundPath = nullptr; // of the sound file, borrowed
    HANDLE m_hSoundFile = nullptr;   // the same, open
    bool m_bPermissionsDue = false; // this object has made the .DIR file, and it is its owner's yet
    bool m_bAdopted = false;
    // The .DIR file that was opened or written last, and, once it is lost, what it holds.
    PlatformFileIdentity m_DirIdentity = {};
    bool m_bLost = false;
    uint64_t m_ullLostFingerprint = 0;
    DirEntry* m_psDirHeader = nullptr; // the buffer, owned
    DWORD m_dwDirSize = 0;             // bytes of the buffer
    BOOL m_bReadOnly = FALSE;
    BOOL m_bMapped = FALSE;       // the buffer is a mapped view, not a heap block
    BOOL m_bDirChanged = FALSE;   // edited since the open
    DWORD m_dwDataLengthInBy = 0; // length of the dictation
    bool m_bFlushPending = false;
    bool m_bOnDisk = false; // of a flush that is pending: its bytes are in the file
};
