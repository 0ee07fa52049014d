#include "MCI/KIVMP3/ReadAhead.h"

#include "MCI/KIVMP3/INTERNAL.h"

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

// All offsets of a file that can be open have 32 bits; only the end of a walk can come out behind
// that, where no byte is.
int CReadAhead::seek() {
    return m_ullFilePointer > 0xFFFFFFFFu
               ? 1
               : KIVMP3_set_file_pointer(m_hFile, static_cast<DWORD>(m_ullFilePointer));
}

// A failure leaves the buffer empty.
int CReadAhead::fill() {
    m_dwBuffered = 0;
    m_ullBufferStart = m_ullFilePointer;
    if (m_ullFilePointer > 0xFFFFFFFFu) {
        return 1;
    }
    DWORD dwError = NO_ERROR;
    if (KIVMP3_set_file_pointer(m_hFile, static_cast<DWORD>(m_ullFilePointer), &dwError)) {
        if (ReadFile(m_hFile, m_pbyBuffer, m_dwBufferSize, &m_dwBuffered, nullptr)) {
            return 1;
        }
        dwError = GetLastError();
        m_dwBuffered = 0;
    }
    TRACE_ERROR(dwError, "GetLastError() after ReadFile()");
    return 0;
}
