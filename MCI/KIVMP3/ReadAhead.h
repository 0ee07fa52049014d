#pragma once

#include "platform/platform.h"

#include <algorithm>
#include <cstdint>

// Bytes of the block that an open reads the file in.
constexpr DWORD READ_AHEAD_SIZE = 131072;

// The same for the searches of a rebuild, which as a rule end within a frame or two.
constexpr DWORD SEARCH_READ_AHEAD_SIZE = 4096;

// Reads a file in large blocks underneath, with the results that small reads at a file pointer of
// its own would have: a search over all frames of a file then costs a platform call per block and
// none per frame.
//
// What was read ahead is kept for one search or walk only, so an object lives no longer than that:
// the file may change in between. Where the file seems to end the platform is asked again at each
// read. The file pointer of the handle is moved; whoever needs it sets it anew.
class CReadAhead {
public:
    // The buffer is the caller's, at least 1024 bytes, and lives as long as the object.
    CReadAhead(HANDLE hFile, BYTE* pbyBuffer_p, DWORD dwBufferSize_p)
        : m_hFile(hFile), m_pbyBuffer(pbyBuffer_p), m_dwBufferSize(dwBufferSize_p) {}
    CReadAhead(CReadAhead const&) = delete;
    CReadAhead& operator=(CReadAhead const&) = delete;

    // Moves the pointer to a file offset. 0 if the platform refused, with its error in the trace.
    int set_file_pointer(uint64_t ullFileOffset_p) {
        m_ullFilePointer = ullFileOffset_p;
        return is_buffered(1) ? 1 : seek();
    }

    // The file offset of the next read.
    uint64_t get_file_pointer() const { return m_ullFilePointer; }

    // Hands out up to dwBytesToRead_p bytes (at most the size of the buffer) and moves the pointer
    // behind them; they are valid until the next read. Fewer mean the end of the file. 0 if the
    // platform failed, with its error in the trace.
    int read(BYTE const** ppbyData_p, DWORD dwBytesToRead_p, DWORD* pdwBytesRead_p) {
        if (!is_buffered(dwBytesToRead_p) && !fill()) {
            return 0;
        }
        DWORD const dwOffset = static_cast<DWORD>(m_ullFilePointer - m_ullBufferStart);
        *ppbyData_p = m_pbyBuffer + dwOffset;
        *pdwBytesRead_p = std::min(dwBytesToRead_p, m_dwBuffered - dwOffset);
        m_ullFilePointer += *pdwBytesRead_p;
        return 1;
    }

private:
    // Whether so many bytes from the pointer on are in the buffer.
    bool is_buffered(DWORD dwBytes_p) const {
        return m_ullFilePointer >= m_ullBufferStart &&
               m_ullFilePointer + dwBytes_p <= m_ullBufferStart + m_dwBuffered;
    }
    int seek();
    int fill();

    HANDLE m_hFile;
    BYTE* m_pbyBuffer;
    DWORD m_dwBufferSize;
    DWORD m_dwBuffered = 0;        // bytes of the buffer that hold data
    uint64_t m_ullBufferStart = 0; // file offset of the buffer's first byte
    uint64_t m_ullFilePointer = 0;
};
