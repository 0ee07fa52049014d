// The entries of the edit directory: finding, splitting, placing, summing. All of it works on the
// buffer in memory; nothing here allocates, fails with a status or touches the .DIR file.

#include "MCI/KIVMP3/CKivDirFile.h"

#include <algorithm>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

DirEntry* CKivDirFile::get_dir_entry(DWORD dwSearchPosBytes_p, DWORD* pdwDirEntryStartPosBytes_p) {
    TRACE_ENTRY("-----CKivDirFile::get_dir_entry(..)");
    TRACE_PARAM("dwSearchPosBytes_p", "%lu", dwSearchPosBytes_p);
    *pdwDirEntryStartPosBytes_p = 0;
    // The search begins at the last entry known that begins in front of the position: one that
    // begins right there is not enough, since the border is the end of an entry in front.
    DWORD dwEntry = m_dwKnownEntry;
    DWORD dwRunningPos = m_dwKnownStart;
    if (dwSearchPosBytes_p < dwRunningPos / 2) {
        dwEntry = 0;
        dwRunningPos = 0;
    }
    while (dwEntry > 0 && dwRunningPos >= dwSearchPosBytes_p) {
        dwRunningPos -= m_psDirHeader[--dwEntry].live_size();
    }
    for (DirEntry* pEntry = m_psDirHeader + dwEntry; pEntry->Status != 0; ++pEntry) {
        if (pEntry->is_deleted()) {
            continue;
        }
        DWORD const dwBlockEnd = dwRunningPos + pEntry->size();
        if (dwSearchPosBytes_p <= dwBlockEnd) {
            m_dwKnownEntry = static_cast<DWORD>(pEntry - m_psDirHeader);
            m_dwKnownStart = dwRunningPos;
            *pdwDirEntryStartPosBytes_p = dwRunningPos;
            return pEntry;
        }
        dwRunningPos = dwBlockEnd;
    }
    TRACE_VALUE("position (dwSearchPosBytes_p) not found: ", "%lu", dwSearchPosBytes_p);
    return nullptr;
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
    entries_changed(pdirEntry_p);
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
    entries_changed(pdirSlot);
    DWORD const dwSlot = static_cast<DWORD>(pdirSlot - m_psDirHeader);
    m_dwUndoableFirst += dwSlot <= m_dwUndoableFirst ? 1 : 0;
    m_dwUndoableEnd += dwSlot < m_dwUndoableEnd && m_dwUndoableEnd != 0xFFFFFFFFu ? 1 : 0;
    log_dir_entries("Log in insert_dir_entry()");
    return pdirSlot;
}

// What is known of the entries in front of this one stays true.
void CKivDirFile::entries_changed(DirEntry const* pdirFirst_p) {
    if (pdirFirst_p - m_psDirHeader < static_cast<ptrdiff_t>(m_dwKnownEntry)) {
        m_dwKnownEntry = 0;
        m_dwKnownStart = 0;
    }
}

// All entries may be others than before.
void CKivDirFile::forget_entries() {
    m_dwKnownEntry = 0;
    m_dwKnownStart = 0;
    m_dwUndoableFirst = 0;
    m_dwUndoableEnd = 0xFFFFFFFFu;
    m_bDataLengthKnown = false;
}

// A change of the live entries has changed their sum by this much, modulo 2^32.
void CKivDirFile::add_to_data_length(DWORD dwDifference_p) {
    if (m_bDataLengthKnown) {
        m_dwDataLengthInBy += dwDifference_p;
    }
}

// Gives all undoable entries another Status. Whether there was one.
bool CKivDirFile::clear_undoable(BYTE byStatus_p) {
    bool bFound = false;
    DWORD const dwEnd = std::min(m_dwUndoableEnd, count_entries());
    for (DWORD dwEntry = m_dwUndoableFirst; dwEntry < dwEnd; ++dwEntry) {
        DirEntry& rEntry = m_psDirHeader[dwEntry];
        if ((rEntry.Status & DIR_ENTRY_UNDOABLE) != 0) {
            rEntry.Status = byStatus_p;
            entries_changed(&rEntry);
            bFound = true;
        }
    }
    m_dwUndoableFirst = 0;
    m_dwUndoableEnd = 0;
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
    if (!m_bDataLengthKnown) {
        m_dwDataLengthInBy = 0;
        for (DirEntry const* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
            m_dwDataLengthInBy += pEntry->live_size();
        }
        m_bDataLengthKnown = true;
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
    // Behind the end all is 0.
    DirEntry const* const pEnd =
        std::partition_point(m_psDirHeader, m_psDirHeader + get_capacity() + 1,
                             [](DirEntry const& rEntry) { return rEntry.Status != 0; });
    return static_cast<DWORD>(pEnd - m_psDirHeader);
}

DWORD CKivDirFile::get_capacity() const {
    // The Status byte of the terminating entry must still lie inside the buffer.
    return (m_dwDirSize - 1) / static_cast<DWORD>(sizeof(DirEntry));
}

bool CKivDirFile::has_room_for(DWORD dwNewEntries_p) const {
    return count_entries() + dwNewEntries_p <= get_capacity();
}

// Whether a dictation position cuts a live block, rather than lying on a border or behind the end.
bool CKivDirFile::is_inside_block(uint64_t ullPosInBytes_p) {
    if (ullPosInBytes_p > 0xFFFFFFFFu) {
        return false;
    }
    DWORD const dwPosInBytes = static_cast<DWORD>(ullPosInBytes_p);
    DWORD dwBlockStart = 0;
    DirEntry const* const pEntry = get_dir_entry(dwPosInBytes, &dwBlockStart);
    return pEntry != nullptr && dwPosInBytes > dwBlockStart &&
           dwPosInBytes < dwBlockStart + pEntry->size();
}

DWORD CKivDirFile::count_new_entries_of_write(DWORD dwCurrentPosInBytes, DWORD dwNewStartpos_p,
                                              DWORD dwLength_p, bool bOverwrite_p) {
    // The new block itself, unless it replaces the empty first entry or widens the block in front.
    DWORD dwNewEntries = 1;
    if (dwCurrentPosInBytes == 0) {
        if (m_psDirHeader->Endpos == 0 && !m_psDirHeader->is_deleted()) {
            dwNewEntries = 0;
        }
    } else if (is_inside_block(dwCurrentPosInBytes)) {
        dwNewEntries = 2;
    } else {
        DWORD dwBlockStart = 0;
        DirEntry const* const pEntry = get_dir_entry(dwCurrentPosInBytes, &dwBlockStart);
        if (pEntry != nullptr && std::min(pEntry->Endpos, dwNewStartpos_p) == dwNewStartpos_p) {
            dwNewEntries = 0;
        }
    }
    if (bOverwrite_p && is_inside_block(uint64_t{dwCurrentPosInBytes} + dwLength_p)) {
        ++dwNewEntries;
    }
    return dwNewEntries;
}

DWORD CKivDirFile::count_new_entries_of_delete(DWORD dwCurrentPosInBytes, DWORD dwLength_p) {
    DWORD const dwAtStart = is_inside_block(dwCurrentPosInBytes) ? 1 : 0;
    DWORD const dwAtEnd = is_inside_block(uint64_t{dwCurrentPosInBytes} + dwLength_p) ? 1 : 0;
    return dwAtStart + dwAtEnd;
}

bool CKivDirFile::cut_entries(DWORD dwEndOfFile_p) {
    bool bCut = false;
    for (DirEntry* pEntry = m_psDirHeader; pEntry->Status != 0; ++pEntry) {
        if (pEntry->Endpos > dwEndOfFile_p) {
            pEntry->Endpos = dwEndOfFile_p;
            pEntry->Startpos = std::min(pEntry->Startpos, dwEndOfFile_p);
            bCut = true;
        }
    }
    if (bCut) {
        forget_entries();
    }
    return bCut;
}
