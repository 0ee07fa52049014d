// The entries of the edit directory: finding, splitting, placing, summing. All of it works on the
// buffer in memory; nothing here allocates, fails with a status or touches the .DIR file.

#include "MCI/KIVMP3/CKivDirFile.h"

#include <algorithm>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

DirEntry* CKivDirFile::get_dir_entry(DWORD dwSearchPosBytes_p, DWORD* pdwDirEntryStartPosBytes_p) {
    DirEntry* const pEntry = find_dir_entry(dwSearchPosBytes_p, pdwDirEntryStartPosBytes_p);
    trace_lookup(dwSearchPosBytes_p, pEntry != nullptr);
    return pEntry;
}

DirEntry* CKivDirFile::find_dir_entry(DWORD dwSearchPosBytes_p,
                                      DWORD* pdwDirEntryStartPosBytes_p) const {
    *pdwDirEntryStartPosBytes_p = 0;
    DWORD dwRunningPos = 0;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (pEntry->is_deleted()) {
            continue;
        }
        DWORD const dwBlockEnd = dwRunningPos + pEntry->size();
        if (dwSearchPosBytes_p <= dwBlockEnd) {
            *pdwDirEntryStartPosBytes_p = dwRunningPos;
            return pEntry;
        }
        dwRunningPos = dwBlockEnd;
    }
    return nullptr;
}

// Traces a lookup where an edit uses its result; the plan has made it earlier.
void CKivDirFile::trace_lookup(DWORD dwSearchPosBytes_p, bool bFound_p) const {
    TRACE_ENTRY("-----CKivDirFile::get_dir_entry(..)");
    TRACE_PARAM("dwSearchPosBytes_p", "%lu", dwSearchPosBytes_p);
    if (!bFound_p) {
        TRACE_VALUE("position (dwSearchPosBytes_p) not found: ", "%lu", dwSearchPosBytes_p);
    }
}

DirEntry* CKivDirFile::split_dir_entry(DirEntry* pdirEntry_p, DWORD dwBlockStartPosBytes_p,
                                       DWORD dwSplitPosBytes_p) {
    TRACE_ENTRY("-----CKivDirFile::split_dir_entry(...)");
    DWORD const dwNumberOfSplittingBytes = dwSplitPosBytes_p - dwBlockStartPosBytes_p;
    TRACE_VALUE("dwNumberOfSplittingBytes", "%lu", dwNumberOfSplittingBytes);
    DirEntry dirSecondPart = {};
    dirSecondPart.Status = pdirEntry_p->Status;
    dirSecondPart.Startpos = pdirEntry_p->Startpos + dwNumberOfSplittingBytes;
    dirSecondPart.Endpos = pdirEntry_p->Endpos;
    pdirEntry_p->Endpos = dirSecondPart.Startpos;
    return insert_dir_entry(&dirSecondPart, pdirEntry_p, 1);
}

// Opens a free slot. The last entry lands on the terminating one, and the slot behind that, which
// is 0 like all behind the end, terminates the directory from then on.
void CKivDirFile::move_dir_entries_one_up(DirEntry* pdirEntryStart_p, int nAfterStartEntry_p) {
    TRACE_ENTRY("-----CKivDirFile::move_dir_entries_one_up(..)");
    DirEntry* const pdirEnd = m_psDirHeader + count_entries();
    DirEntry* const pdirFirst = pdirEntryStart_p + nAfterStartEntry_p;
    if (pdirFirst < pdirEnd) {
        size_t const dsSizeToMove = static_cast<size_t>(pdirEnd - pdirFirst) * sizeof(DirEntry);
        memmove(pdirFirst + 1, pdirFirst, dsSizeToMove);
    }
}

DirEntry* CKivDirFile::insert_dir_entry(DirEntry const* pdirEntryNew_p, DirEntry* pdirEntryStart_p,
                                        int bAfterStartEntry_p) {
    TRACE_ENTRY("-----CKivDirFile::insert_dir_entry(...)");
    int const nAfterStartEntry = bAfterStartEntry_p == 1 ? 1 : 0;
    move_dir_entries_one_up(pdirEntryStart_p, nAfterStartEntry);
    log_dir_entries("Log in move_dir_entries()");
    DirEntry* const pdirSlot = pdirEntryStart_p + nAfterStartEntry;
    pdirSlot->Status = pdirEntryNew_p->Status;
    pdirSlot->Startpos = pdirEntryNew_p->Startpos;
    pdirSlot->Endpos = pdirEntryNew_p->Endpos;
    log_dir_entries("Log in insert_dir_entry()");
    return pdirSlot;
}

// Gives all undoable entries another Status. Whether there was one.
bool CKivDirFile::clear_undoable(BYTE byStatus_p) {
    bool bFound = false;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (pEntry->is_undoable()) {
            pEntry->Status = byStatus_p;
            bFound = true;
        }
    }
    return bFound;
}

DWORD CKivDirFile::calc_data_size() const {
    TRACE_ENTRY("-----CKivDirFile::calc_data_size()");
    DWORD dwDataSize = 0;
    for (DirEntry const* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        dwDataSize += pEntry->size();
    }
    return dwDataSize;
}

void CKivDirFile::ascertain_data_length() {
    TRACE_ENTRY("-----CKivDirFile::ascertain_data_length()");
    m_dwDataLengthInBy = 0;
    for (DirEntry const* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        m_dwDataLengthInBy += pEntry->live_size();
    }
    TRACE_VALUE("m_dwDataLengthInBy", "%lu", m_dwDataLengthInBy);
}

void CKivDirFile::log_dir_entries(LPCSTR pszLogText_p) const {
    TRACE_ENTRY("-----CKivDirFile::log_dir_entries(.)");
    if (pszLogText_p != nullptr && pszLogText_p[0] != '\0') {
        TRACE_INFO(pszLogText_p);
    }
    TRACE_VALUE("m_psDirHeader", "%8X",
                static_cast<DWORD>(reinterpret_cast<DWORD_PTR>(m_psDirHeader) & 0xFFFFFFFFu));
    if (m_psDirHeader == nullptr) {
        return;
    }
    for (DirEntry const* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        TRACE_VALUE("Status", "%u", DWORD{pEntry->Status});
        TRACE_VALUE("Startpos", "%lu", pEntry->Startpos);
        TRACE_VALUE("Endpos", "%lu", pEntry->Endpos);
    }
}

DWORD CKivDirFile::count_entries() const {
    DWORD dwEntries = 0;
    while (m_psDirHeader[dwEntries].Status != 0) {
        ++dwEntries;
    }
    return dwEntries;
}

DWORD CKivDirFile::get_capacity() const {
    // The Status byte of the terminating entry must still lie inside the buffer.
    return (m_dwDirSize - 1) / static_cast<DWORD>(sizeof(DirEntry));
}

bool CKivDirFile::has_room_for(DWORD dwNewEntries_p) const {
    return count_entries() + dwNewEntries_p <= get_capacity();
}

bool CKivDirFile::cut_entries(DWORD dwEndOfFile_p, DWORD* pdwPosInBytes_p) {
    bool bCut = false;
    DWORD const dwPosInBytes = *pdwPosInBytes_p;
    DWORD dwBlockStart = 0;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        DWORD const dwBlockEnd = dwBlockStart + pEntry->live_size();
        if (pEntry->Endpos > dwEndOfFile_p) {
            pEntry->Endpos = dwEndOfFile_p;
            pEntry->Startpos = std::min(pEntry->Startpos, dwEndOfFile_p);
            DWORD const dwBytesLeft = pEntry->live_size();
            if (dwPosInBytes > dwBlockStart + dwBytesLeft) {
                *pdwPosInBytes_p -= std::min(dwPosInBytes, dwBlockEnd) - dwBlockStart - dwBytesLeft;
            }
            bCut = true;
        }
        dwBlockStart = dwBlockEnd;
    }
    return bCut;
}
