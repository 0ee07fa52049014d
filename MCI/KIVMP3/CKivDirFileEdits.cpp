// The edits of the dictation, which are edits of the directory alone; its repair after a crash; and
// the question at close whether there was any edit.

#include "MCI/KIVMP3/CKivDirFile.h"

#include <algorithm>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

// The last live entry, or the first entry of the array if none is live.
DirEntry* CKivDirFile::last_live_entry() {
    DirEntry* pLast = m_psDirHeader;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (!pEntry->is_deleted()) {
            pLast = pEntry;
        }
    }
    return pLast;
}

FFDError CKivDirFile::insert_data(DirEntry const* pdirEntryNew_p, DWORD dwCurrentPosInBytes) {
    log_dir_entries("Log at begin of insert_data()");
    m_bFlushPending = true;
    if (dwCurrentPosInBytes == 0) {
        TRACE_INFO("-Current Postion is at file begin (dwCurrentPosInBytes == 0) ");
        if (m_psDirHeader->Endpos == 0 && !m_psDirHeader->is_deleted()) {
            TRACE_INFO("-Update only very first entry with endpos of new entry.");
            add_to_data_length(pdirEntryNew_p->live_size() - m_psDirHeader->size());
            m_psDirHeader->Status = pdirEntryNew_p->Status;
            m_psDirHeader->Startpos = pdirEntryNew_p->Startpos;
            m_psDirHeader->Endpos = pdirEntryNew_p->Endpos;
            entries_changed(m_psDirHeader);
        } else {
            TRACE_INFO("-Insert new entry at beginning of the file");
            insert_dir_entry(pdirEntryNew_p, m_psDirHeader, 0);
            add_to_data_length(pdirEntryNew_p->live_size());
        }
        m_bDirChanged = TRUE;
        return FFD_NOERROR;
    }

    TRACE_INFO("-Current Postion is not at file begin (dwCurrentPosInBytes != 0)");
    DWORD dwBlockStart = 0;
    DirEntry* pdirEntry = get_dir_entry(dwCurrentPosInBytes, &dwBlockStart);
    bool bOnBorder = true;
    if (pdirEntry == nullptr) {
        TRACE_ERROR(0, "Directory entry with dwCurrentPosInBytes not found");
        pdirEntry = last_live_entry();
    } else {
        bOnBorder = dwCurrentPosInBytes == dwBlockStart + pdirEntry->size();
    }
    if (!bOnBorder) {
        TRACE_INFO("-Split block and insert new entry between.");
        split_dir_entry(pdirEntry, dwBlockStart, dwCurrentPosInBytes);
        insert_dir_entry(pdirEntryNew_p, pdirEntry, 1);
        add_to_data_length(pdirEntryNew_p->live_size());
    } else {
        TRACE_INFO("-Current position is on block border.");
        if (pdirEntry->Endpos == pdirEntryNew_p->Startpos && !pdirEntry->is_deleted()) {
            TRACE_INFO("-Update only endpos of old entry with that one of the new entry.");
            add_to_data_length(pdirEntryNew_p->Endpos - pdirEntry->Endpos);
            pdirEntry->Endpos = pdirEntryNew_p->Endpos;
            entries_changed(pdirEntry);
        } else {
            TRACE_INFO("-Insert new entry after old entry.");
            insert_dir_entry(pdirEntryNew_p, pdirEntry, 1);
            add_to_data_length(pdirEntryNew_p->live_size());
        }
    }
    m_bDirChanged = TRUE;
    return FFD_NOERROR;
}

// The first entry of a range to delete, after a cut if the position lies inside a block; null, with
// the caller's text in the trace, if no entry holds the position.
DirEntry* CKivDirFile::begin_of_delete(DWORD dwCurrentPosInBytes, LPCSTR pszNotFound_p) {
    if (dwCurrentPosInBytes == 0) {
        TRACE_INFO("-Curent Pos == 0, Begin delete with first dir entry.");
        return m_psDirHeader;
    }
    DWORD dwBlockStart = 0;
    DirEntry* const pdirEntry = get_dir_entry(dwCurrentPosInBytes, &dwBlockStart);
    if (pdirEntry == nullptr) {
        TRACE_ERROR(0, pszNotFound_p);
        return nullptr;
    }
    if (dwCurrentPosInBytes == dwBlockStart + pdirEntry->size()) {
        TRACE_INFO("-Current position is on block border. -> begin with next dir entry");
        return pdirEntry + 1;
    }
    TRACE_INFO("-Split block and begin delete with second part.");
    return split_dir_entry(pdirEntry, dwBlockStart, dwCurrentPosInBytes);
}

// The entry behind the last one of the range, after a cut if the range ends inside a block. A range
// that goes beyond the dictation ends with it.
DirEntry* CKivDirFile::end_of_delete(DirEntry* pdirFirst_p, DWORD ffdLength_p,
                                     DWORD dwCurrentPosInBytes) {
    DWORD dwBytesToDelete = ffdLength_p;
    DWORD dwRunningPos = dwCurrentPosInBytes;
    DirEntry* pEntry = pdirFirst_p;
    for (; pEntry->Status != 0; ++pEntry) {
        if (pEntry->is_deleted()) {
            continue;
        }
        if (pEntry->size() > dwBytesToDelete) {
            TRACE_INFO("-Split block -> last block to delete is first part");
            split_dir_entry(pEntry, dwRunningPos, dwRunningPos + dwBytesToDelete);
            return pEntry + 1;
        }
        dwRunningPos += pEntry->size();
        dwBytesToDelete -= pEntry->size();
        if (dwBytesToDelete == 0) {
            return pEntry + 1;
        }
    }
    TRACE_VALUE("dwBytesToDelete", "%lu", dwBytesToDelete);
    return pEntry;
}

FFDError CKivDirFile::delete_data(DWORD ffdLength_p, DWORD dwCurrentPosInBytes, int bPureDelete_p) {
    TRACE_ENTRY("-----CKivDirFile::delete_data(...)");
    TRACE_PARAM("ffdLength_p", "%lu", ffdLength_p);
    TRACE_PARAM("dwCurrentPosInBytes", "%lu", dwCurrentPosInBytes);
    TRACE_PARAM("bPureDelete_p", "%d", bPureDelete_p);
    if (ffdLength_p == 0) {
        TRACE_INFO("Bytes to delete == 0, return FFD_NOERROR");
        return FFD_NOERROR;
    }
    m_bFlushPending = true;
    if (bPureDelete_p) {
        clear_undoable(DIR_STATUS_DELETED);
    }
    DirEntry* const pdirFirst = begin_of_delete(
        dwCurrentPosInBytes,
        bPureDelete_p
            ? "Directory entry with m_ffdCurrentPosInBy not found. -> FFD_INTERNAL_ERROR"
            : "Directory entry with dwCurrentPosInBytes not found. -> FFD_INTERNAL_ERROR");
    if (pdirFirst == nullptr) {
        return FFD_INTERNAL_ERROR;
    }
    DirEntry* const pdirBehind = end_of_delete(pdirFirst, ffdLength_p, dwCurrentPosInBytes);
    BYTE const byStatus = bPureDelete_p ? DIR_STATUS_UNDOABLE : DIR_STATUS_DELETED;
    for (DirEntry* pEntry = pdirFirst; pEntry < pdirBehind; ++pEntry) {
        if (!pEntry->is_deleted()) {
            pEntry->Status = byStatus;
            add_to_data_length(0 - pEntry->size());
        }
    }
    entries_changed(pdirFirst);
    if (bPureDelete_p) {
        m_dwUndoableFirst = static_cast<DWORD>(pdirFirst - m_psDirHeader);
        m_dwUndoableEnd = static_cast<DWORD>(pdirBehind - m_psDirHeader);
    }
    log_dir_entries("Log at end of delete_data()");
    ascertain_data_length();
    return FFD_NOERROR;
}

FFDError CKivDirFile::undo_last() {
    TRACE_ENTRY("---undo_last()");
    if (!clear_undoable(DIR_STATUS_LIVE)) {
        TRACE_ERROR(FFD_NOTHING_TO_UNDO, "FFD_NOTHING_TO_UNDO");
        return FFD_NOTHING_TO_UNDO;
    }
    m_bDataLengthKnown = false;
    FFDError const ffdError = flush_dir_file();
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by flush_dir_file()");
        TRACE_ERROR(FFD_NOT_UNDOABLE, "return FFD_NOT_UNDOABLE");
        return FFD_NOT_UNDOABLE;
    }
    m_bDirChanged = TRUE;
    ascertain_data_length();
    return FFD_NOERROR;
}

// The live entry that ends where a directory of so many bytes does; null if there is none, or if
// blocks reach behind it: an end that equals the sum only by chance, as in a file with a tag
// between its blocks, must not grow into them. An empty entry at that place counts only if it is
// alone.
DirEntry* CKivDirFile::highest_block(DWORD dwSizeFromDirectory_p) {
    DirEntry* pHighest = nullptr;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (pEntry->size() > 0 && pEntry->Endpos > dwSizeFromDirectory_p) {
            return nullptr;
        }
        if (!pEntry->is_deleted() && pEntry->Endpos == dwSizeFromDirectory_p &&
            (pHighest == nullptr || pEntry->size() > 0)) {
            pHighest = pEntry;
        }
    }
    return pHighest;
}

FFDError CKivDirFile::recover_directory(DWORD dwDataChunkSize_p, DWORD dwSizeFromDirectory_p) {
    TRACE_ENTRY("-----CKivDirFile::recover_directory(..)");
    TRACE_PARAM("dwDataChunkSize_p", "%lu", dwDataChunkSize_p);
    TRACE_PARAM("dwSizeFromDirectory_p", "%lu", dwSizeFromDirectory_p);
    DirEntry* const pEntry = highest_block(dwSizeFromDirectory_p);
    if (pEntry != nullptr) {
        forget_entries();
        if (pEntry->Startpos < dwDataChunkSize_p) {
            TRACE_INFO("pEntry->Startpos < dwDataChunkSize_p");
            TRACE_VALUE("Old pEntry->Endpos", "%lu", pEntry->Endpos);
            pEntry->Endpos = dwDataChunkSize_p;
        } else if (pEntry->Startpos == dwDataChunkSize_p) {
            TRACE_INFO("pEntry->Startpos == dwDataChunkSize_p");
            pEntry->Startpos = 0;
            pEntry->Endpos = 0;
            pEntry->Status = DIR_STATUS_DELETED;
        }
    }
    DWORD const dwNewSize = calc_data_size();
    TRACE_VALUE("dwNewSize", "%lu", dwNewSize);
    return dwNewSize == dwDataChunkSize_p ? FFD_NOERROR : FFD_DIRECTORY_MISMATCH;
}

void CKivDirFile::get_kind_of_close(DWORD dwFileSize, int* pnKindOfClose_p) const {
    TRACE_ENTRY("-----CKivDirFile::get_kind_of_close(..)");
    TRACE_PARAM("dwFileSize", "%lu", dwFileSize);
    *pnKindOfClose_p = KIVMP3_CLOSE_REBUILD;
    DirEntry dirLast = {};
    for (DirEntry const* psDirEntry = m_psDirHeader; psDirEntry->Status != 0; ++psDirEntry) {
        if (psDirEntry->is_deleted()) {
            TRACE_INFO("psDirEntry->Status & DIR_ENTRY_DELETED -> KIVMP3_CLOSE_REBUILD");
            return;
        }
        if (psDirEntry->Startpos != dirLast.Endpos) {
            TRACE_INFO("psDirEntry->Startpos != pDirLast->Endpos -> KIVMP3_CLOSE_REBUILD");
            return;
        }
        dirLast = *psDirEntry;
    }
    if (dirLast.Endpos < dwFileSize) {
        TRACE_INFO("pDirLast->Endpos <= dwFileSize -> KIVMP3_CLOSE_REBUILD");
        return;
    }
    *pnKindOfClose_p = KIVMP3_CLOSE_NO_REBUILD;
}
