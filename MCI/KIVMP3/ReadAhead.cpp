#include "MCI/KIVMP3/ReadAhead.h"

#include "MCI/KIVMP3/INTERNAL.h"

#include <algorithm>

int CReadAhead::set_file_pointer(uint64_t ullFileOffset_p) {
    m_ullFilePointer = ullFileOffset_p;
    if (is_buffered(ullFileOffset_p, 1)) {
        return 1;
    }
    // All offsets of a file that can be open have 32 bits; only the end of a walk can come out
    // behind that, where no byte is.
    return ullFileOffset_p > 0xFFFFFFFFu
               ? 1
               : KIVMP3_set_file_pointer(m_hFile, static_cast<DWORD>(ullFileOffset_p));
}

int CReadAhead::read(BYTE const** ppbyData_p, DWORD dwBytesToRead_p, DWORD* pdwBytesRead_p,
                     DWORD* pdwError_p) {
    if (!is_buffered(m_ullFilePointer, dwBytesToRead_p)) {
        m_dwBuffered = 0;
        m_ullBufferStart = m_ullFilePointer;
        if (m_ullFilePointer <= 0xFFFFFFFFu) {
            if (!KIVMP3_set_file_pointer(m_hFile, static_cast<DWORD>(m_ullFilePointer),
                                         pdwError_p)) {
                return 0;
            }
            if (!ReadFile(m_hFile, m_pbyBuffer, m_dwBufferSize, &m_dwBuffered, nullptr)) {
                *pdwError_p = GetLastError();
                m_dwBuffered = 0;
                return 0;
            }
        }
    }
    DWORD const dwOffset = static_cast<DWORD>(m_ullFilePointer - m_ullBufferStart);
    *ppbyData_p = m_pbyBuffer + dwOffset;
    *pdwBytesRead_p = std::min(dwBytesToRead_p, m_dwBuffered - dwOffset);
    m_ullFilePointer += *pdwBytesRead_p;
    return 1;
}
