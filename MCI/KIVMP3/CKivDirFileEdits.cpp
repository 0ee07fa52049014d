// The edits of the dictation, which are edits of the directory only; its repair after a crash; and
// the question at close whether the file as it lies is the dictation.

#include "MCI/KIVMP3/CKivDirFile.h"

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

// The last live entry, or the first entry of the array if none is live.
DirEntry* CKivDirFile::last_live_entry() const {
    DirEntry* pLast = m_psDirHeader;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (!pEntry->is_deleted()) {
            pLast = pEntry;
        }
    }
    return pLast;
}

DirInsertPlan CKivDirFile::plan_insert(DWORD dwCurrentPosInBytes, DWORD dwNewStartpos_p,
                                       DWORD dwLength_p, bool bOverwrite_p) const {
    DirInsertPlan plan = {};
    plan.dwPosInBytes = dwCurrentPosInBytes;
    plan.pdirEntry = m_psDirHeader;
    if (dwCurrentPosInBytes == 0) {
        bool const bEmpty = m_psDirHeader->Endpos == 0 && !m_psDirHeader->is_deleted();
        plan.eKind = bEmpty ? DirInsertPlan::ReplaceFirst : DirInsertPlan::InFront;
    } else {
        plan.pdirEntry = find_dir_entry(dwCurrentPosInBytes, &plan.dwBlockStart);
        plan.bFound = plan.pdirEntry != nullptr;
        if (!plan.bFound) {
            plan.pdirEntry = last_live_entry();
        }
        if (plan.bFound && dwCurrentPosInBytes != plan.dwBlockStart + plan.pdirEntry->size()) {
            plan.eKind = DirInsertPlan::Split;
        } else {
            bool const bAdjoins =
                plan.pdirEntry->Endpos == dwNewStartpos_p && !plan.pdirEntry->is_deleted();
            plan.eKind = bAdjoins ? DirInsertPlan::Widen : DirInsertPlan::Behind;
        }
    }
    switch (plan.eKind) {
    case DirInsertPlan::ReplaceFirst:
    case DirInsertPlan::Widen:
        break;
    case DirInsertPlan::InFront:
    case DirInsertPlan::Behind:
        plan.dwNewEntries = 1;
        break;
    case DirInsertPlan::Split:
        plan.dwNewEntries = 2;
        break;
    }
    // By then there is a border where the delete of an overwrite begins; its end lies now where the
    // same bytes end before the insert.
    if (bOverwrite_p && plan_delete(dwCurrentPosInBytes, dwLength_p).bCutLast) {
        ++plan.dwNewEntries;
    }
    return plan;
}

FFDError CKivDirFile::insert_data(DirEntry const* pdirEntryNew_p, DirInsertPlan const& rPlan_p) {
    log_dir_entries("Log at begin of insert_data()");
    m_bFlushPending = true;
    DirEntry* const pdirEntry = rPlan_p.pdirEntry;
    if (rPlan_p.dwPosInBytes == 0) {
        TRACE_INFO("-Current Postion is at file begin (dwCurrentPosInBytes == 0) ");
    } else {
        TRACE_INFO("-Current Postion is not at file begin (dwCurrentPosInBytes != 0)");
        trace_lookup(rPlan_p.dwPosInBytes, rPlan_p.bFound);
        if (!rPlan_p.bFound) {
            TRACE_ERROR(0, "Directory entry with dwCurrentPosInBytes not found");
        }
        if (rPlan_p.eKind != DirInsertPlan::Split) {
            TRACE_INFO("-Current position is on block border.");
        }
    }
    switch (rPlan_p.eKind) {
    case DirInsertPlan::ReplaceFirst:
        TRACE_INFO("-Update only very first entry with endpos of new entry.");
        pdirEntry->Status = pdirEntryNew_p->Status;
        pdirEntry->Startpos = pdirEntryNew_p->Startpos;
        pdirEntry->Endpos = pdirEntryNew_p->Endpos;
        break;
    case DirInsertPlan::InFront:
        TRACE_INFO("-Insert new entry at beginning of the file");
        insert_dir_entry(pdirEntryNew_p, pdirEntry, 0);
        break;
    case DirInsertPlan::Widen:
        TRACE_INFO("-Update only endpos of old entry with that one of the new entry.");
        pdirEntry->Endpos = pdirEntryNew_p->Endpos;
        break;
    case DirInsertPlan::Behind:
        TRACE_INFO("-Insert new entry after old entry.");
        insert_dir_entry(pdirEntryNew_p, pdirEntry, 1);
        break;
    case DirInsertPlan::Split:
        TRACE_INFO("-Split block and insert new entry between.");
        split_dir_entry(pdirEntry, rPlan_p.dwBlockStart, rPlan_p.dwPosInBytes);
        insert_dir_entry(pdirEntryNew_p, pdirEntry, 1);
        break;
    }
    m_bDirChanged = TRUE;
    return FFD_NOERROR;
}

// A range that goes beyond the dictation ends with it.
DirDeletePlan CKivDirFile::plan_delete(DWORD dwCurrentPosInBytes, DWORD dwLength_p) const {
    DirDeletePlan plan = {};
    plan.pdirFirst = m_psDirHeader;
    if (dwCurrentPosInBytes != 0) {
        plan.pdirFirst = find_dir_entry(dwCurrentPosInBytes, &plan.dwFirstStart);
        if (plan.pdirFirst == nullptr) {
            return plan;
        }
        if (dwCurrentPosInBytes == plan.dwFirstStart + plan.pdirFirst->size()) {
            ++plan.pdirFirst;
        } else {
            plan.bCutFirst = true;
        }
    }
    plan.dwLastStart = dwCurrentPosInBytes;
    plan.dwBytesLeft = dwLength_p;
    plan.pdirBehind = plan.pdirFirst;
    while (plan.dwBytesLeft > 0 && plan.pdirBehind->Status != 0) {
        DirEntry const& rEntry = *plan.pdirBehind++;
        bool const bBeginsInside = plan.bCutFirst && &rEntry == plan.pdirFirst;
        DWORD const dwSize =
            rEntry.live_size() - (bBeginsInside ? dwCurrentPosInBytes - plan.dwFirstStart : 0);
        if (dwSize > plan.dwBytesLeft) {
            plan.bCutLast = true;
            plan.dwBytesInLast = plan.dwBytesLeft;
            plan.dwBytesLeft = 0;
        } else {
            plan.dwLastStart += dwSize;
            plan.dwBytesLeft -= dwSize;
        }
    }
    return plan;
}

// Makes the cuts of a delete. The range then is pdirFirst to pdirBehind of the plan; false, with
// the caller's text in the trace, if no entry holds the position.
bool CKivDirFile::cut_range(DirDeletePlan* pPlan_p, DWORD dwCurrentPosInBytes,
                            LPCSTR pszNotFound_p) {
    if (dwCurrentPosInBytes == 0) {
        TRACE_INFO("-Curent Pos == 0, Begin delete with first dir entry.");
    } else {
        trace_lookup(dwCurrentPosInBytes, pPlan_p->pdirFirst != nullptr);
        if (pPlan_p->pdirFirst == nullptr) {
            TRACE_ERROR(0, pszNotFound_p);
            return false;
        }
        if (!pPlan_p->bCutFirst) {
            TRACE_INFO("-Current position is on block border. -> begin with next dir entry");
        } else {
            TRACE_INFO("-Split block and begin delete with second part.");
            pPlan_p->pdirFirst =
                split_dir_entry(pPlan_p->pdirFirst, pPlan_p->dwFirstStart, dwCurrentPosInBytes);
            ++pPlan_p->pdirBehind;
        }
    }
    if (pPlan_p->bCutLast) {
        TRACE_INFO("-Split block -> last block to delete is first part");
        split_dir_entry(pPlan_p->pdirBehind - 1, pPlan_p->dwLastStart,
                        pPlan_p->dwLastStart + pPlan_p->dwBytesInLast);
    } else if (pPlan_p->dwBytesLeft > 0) {
        TRACE_VALUE("dwBytesToDelete", "%lu", pPlan_p->dwBytesLeft);
    }
    return true;
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
    DirDeletePlan plan = plan_delete(dwCurrentPosInBytes, ffdLength_p);
    if (!has_room_for(plan.new_entries())) {
        return TRACED_ERROR(FFD_ERROR_OUTOFMEMORY, "directory is full -> FFD_ERROR_OUTOFMEMORY");
    }
    m_bFlushPending = true;
    if (bPureDelete_p) {
        clear_undoable(DIR_STATUS_DELETED);
    }
    if (!cut_range(&plan, dwCurrentPosInBytes,
                   bPureDelete_p
                       ? "Directory entry with m_ffdCurrentPosInBy not found. -> FFD_INTERNAL_ERROR"
                       : "Directory entry with dwCurrentPosInBytes not found. -> "
                         "FFD_INTERNAL_ERROR")) {
        return FFD_INTERNAL_ERROR;
    }
    BYTE const byStatus = bPureDelete_p ? DIR_STATUS_UNDOABLE : DIR_STATUS_DELETED;
    for (DirEntry* pEntry = plan.pdirFirst; pEntry < plan.pdirBehind; ++pEntry) {
        if (!pEntry->is_deleted()) {
            pEntry->Status = byStatus;
        }
    }
    log_dir_entries("Log at end of delete_data()");
    ascertain_data_length();
    return FFD_NOERROR;
}

FFDError CKivDirFile::undo_last() {
    TRACE_ENTRY("---undo_last()");
    if (!clear_undoable(DIR_STATUS_LIVE)) {
        return TRACED_ERROR(FFD_NOTHING_TO_UNDO, "FFD_NOTHING_TO_UNDO");
    }
    FFDError const ffdError = flush_dir_file();
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, "by flush_dir_file()");
        return TRACED_ERROR(FFD_NOT_UNDOABLE, "return FFD_NOT_UNDOABLE");
    }
    m_bDirChanged = TRUE;
    ascertain_data_length();
    return FFD_NOERROR;
}

// The live entry that ends where a directory of so many bytes does; null if there is none, or if
// blocks reach behind it: an end that equals the sum only by chance, as in a file with a tag
// between its blocks, must not grow into them. An empty entry at that place counts only if it is
// the only one.
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
