// Whether a .DIR file that was found can be a directory. It comes from a process that ended badly,
// or from elsewhere: nothing in it is trusted until it has passed here.

#include "MCI/KIVMP3/CKivDirFile.h"

#include "MCI/KIVMP3/INTERNAL.h"

#include <algorithm>
#include <cstring>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

// A range of audio positions.
struct Block {
    DWORD dwStartpos;
    DWORD dwEndpos;
};

// The blocks of all entries of a size above 0, sorted by where they lie; they are counted in
// *pdwBlocks_p. The buffer has room for all entries.
void sort_blocks(DirEntry const* psEntries_p, DWORD dwEntries_p, Block* psBlocks_p,
                 DWORD* pdwBlocks_p) {
    DWORD dwBlocks = 0;
    for (DWORD dwEntry = 0; dwEntry < dwEntries_p; ++dwEntry) {
        if (psEntries_p[dwEntry].size() > 0) {
            psBlocks_p[dwBlocks++] = {psEntries_p[dwEntry].Startpos, psEntries_p[dwEntry].Endpos};
        }
    }
    std::sort(psBlocks_p, psBlocks_p + dwBlocks, [](Block const& rLeft, Block const& rRight) {
        return rLeft.dwStartpos < rRight.dwStartpos;
    });
    *pdwBlocks_p = dwBlocks;
}

bool is_sound(DirEntry const& rEntry_p) {
    bool const bStatus = rEntry_p.Status == DIR_STATUS_LIVE ||
                         rEntry_p.Status == DIR_STATUS_DELETED ||
                         rEntry_p.Status == DIR_STATUS_UNDOABLE;
    bool const bReserved = rEntry_p.abyReserved[0] == 0 && rEntry_p.abyReserved[1] == 0 &&
                           rEntry_p.abyReserved[2] == 0;
    return bStatus && bReserved && rEntry_p.Startpos <= rEntry_p.Endpos;
}

} // namespace

DWORD CKivDirFile::get_buffer_size(DWORD dwFileSize_p) {
    return std::max(dwFileSize_p, DIR_FILE_SIZE);
}

bool CKivDirFile::is_new_directory(DirEntry const* psEntries_p) {
    return psEntries_p[0].Status == 0 || (psEntries_p[0].Endpos == 0 && psEntries_p[1].Status == 0);
}

bool CKivDirFile::is_damaged(DWORD dwFileSize_p) const {
    LPCSTR pszDamage = nullptr;
    FFDError const ffdError = judge_dir_file(m_psDirHeader, dwFileSize_p, &pszDamage);
    if (ffdError == FFD_ERROR_OUTOFMEMORY) {
        throw FFDError{ffdError};
    }
    if (ffdError != FFD_NOERROR) {
        TRACE_ERROR(ffdError, pszDamage);
    }
    return ffdError != FFD_NOERROR;
}

FFDError CKivDirFile::judge_dir_file(DirEntry const* psEntries_p, DWORD dwFileSize_p,
                                     LPCSTR* ppszDamage_p) {
    BYTE const* const pbyBuffer = reinterpret_cast<BYTE const*>(psEntries_p);
    DWORD dwEntries = 0;
    for (;; ++dwEntries) {
        DWORD const dwOffset = dwEntries * static_cast<DWORD>(sizeof(DirEntry));
        if (dwOffset >= get_buffer_size(dwFileSize_p)) {
            *ppszDamage_p = "dir file is damaged: no terminating entry";
            return FFD_FILE_IO_ERROR;
        }
        if (pbyBuffer[dwOffset] == 0) {
            break;
        }
        if (dwOffset + sizeof(DirEntry) > dwFileSize_p) {
            *ppszDamage_p = "dir file is damaged: entry cut by the end of the file";
            return FFD_FILE_IO_ERROR;
        }
    }
    *ppszDamage_p = "dir file is damaged: bad entries";
    return check_entries(psEntries_p, dwEntries);
}

FFDError CKivDirFile::check_entries(DirEntry const* psEntries_p, DWORD dwEntries_p) {
    if (!std::all_of(psEntries_p, psEntries_p + dwEntries_p, is_sound)) {
        return FFD_FILE_IO_ERROR;
    }
    CHeapBlock const buffer(size_t{dwEntries_p} * sizeof(Block) + 1);
    if (buffer.get() == nullptr) {
        return TRACED_ERROR(FFD_ERROR_OUTOFMEMORY, "by HeapAlloc() -> FFD_ERROR_OUTOFMEMORY");
    }
    Block* const psBlocks = reinterpret_cast<Block*>(buffer.get());
    DWORD dwBlocks = 0;
    sort_blocks(psEntries_p, dwEntries_p, psBlocks, &dwBlocks);
    for (DWORD dwBlock = 1; dwBlock < dwBlocks; ++dwBlock) {
        if (psBlocks[dwBlock].dwStartpos < psBlocks[dwBlock - 1].dwEndpos) {
            return FFD_FILE_IO_ERROR;
        }
    }
    return FFD_NOERROR;
}

// Later moves shift the terminating entry up; what is left over behind it would come back as
// entries.
void CKivDirFile::clear_behind_end() {
    DirEntry const* pEnd = m_psDirHeader;
    while (pEnd->Status != 0) {
        ++pEnd;
    }
    DWORD const dwEndOffset =
        static_cast<DWORD>(pEnd - m_psDirHeader) * static_cast<DWORD>(sizeof(DirEntry));
    memset(reinterpret_cast<BYTE*>(m_psDirHeader) + dwEndOffset, 0, m_dwDirSize - dwEndOffset);
}

bool CKivDirFile::find_first_gap(DWORD* pdwGapStartpos_p, DWORD* pdwGapEndpos_p) const {
    DWORD const dwEntries = count_entries();
    CHeapBlock const buffer(size_t{dwEntries} * sizeof(Block) + 1);
    if (buffer.get() == nullptr) {
        return false;
    }
    Block* const psBlocks = reinterpret_cast<Block*>(buffer.get());
    DWORD dwBlocks = 0;
    sort_blocks(m_psDirHeader, dwEntries, psBlocks, &dwBlocks);
    *pdwGapStartpos_p = 0;
    *pdwGapEndpos_p = 0xFFFFFFFFu;
    for (DWORD dwBlock = 0; dwBlock < dwBlocks; ++dwBlock) {
        if (psBlocks[dwBlock].dwStartpos > *pdwGapStartpos_p) {
            *pdwGapEndpos_p = psBlocks[dwBlock].dwStartpos;
            break;
        }
        *pdwGapStartpos_p = std::max(*pdwGapStartpos_p, psBlocks[dwBlock].dwEndpos);
    }
    return true;
}
