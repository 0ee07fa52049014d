// The driver's thin layer over the platform's file calls: the trace, and one fixed way for each
// call to report failure. Nothing here knows of MP3 or of the edit directory, and nothing throws.
//
// Every call that takes a handle works at the handle's file pointer; positioning is the caller's
// business. Platform error numbers stay inside the driver: callers turn them into a status. A
// helper that traces leaves nothing in GetLastError that a caller could rely on, since the log may
// change it; where a caller wants the number, *pdwError_p receives it, 0 on success.
#pragma once

#include "ffd.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstring>

// Block size of all bulk copying, in bytes.
constexpr LONG KIVMP3_TRANSFER_BUFFER_SIZE = 40960;

// The handle, or null with the platform's error number in *pdwError_p (0 on success).
HANDLE KIVMP3_create_file(LPCSTR lpszFilepath_p, DWORD* pdwError_p, DWORD dwDesiredAccess_p,
                          DWORD dwShareMode_p, DWORD dwCreationDistribution_p,
                          DWORD dwFlagsAndAttributes_p);

// The same for a new file (CREATE_NEW) that is to hold what the file of hLike_p holds: nobody may
// read it who may not read that one. On Linux only its owner may, until it is given other
// permissions.
HANDLE KIVMP3_create_private_file(LPCSTR lpszFilepath_p, DWORD* pdwError_p, DWORD dwDesiredAccess_p,
                                  DWORD dwShareMode_p, HANDLE hLike_p);

// Closes and nulls the handle; on failure it keeps its value and the result is the error number.
DWORD KIVMP3_close_file(HANDLE* rhFile_p);

// The same for the last use of a handle: what the platform refuses is tried once more, since a
// handle that stayed open would keep its file from everybody as long as the process lives. The
// error number of the second refusal, else 0.
DWORD KIVMP3_release_file(HANDLE* rhFile_p);

// Gives a block of the process heap back, with a second try as well.
BOOL KIVMP3_free_block(void* pvBlock_p);

// 1 or 0. A read that meets the end of the file succeeds with a smaller count. The count may be
// null; a failure leaves it untouched.
int KIVMP3_read_file(HANDLE hFile, void* pBuffer, DWORD dwBytesToRead_p, DWORD* pdwBytesRead);

// 1 or 0. A count smaller than asked for is a success here.
int KIVMP3_write_file(HANDLE hFile, void const* pBuffer, DWORD dwBytesToWrite_p,
                      DWORD* pdwBytesWritten, DWORD* pdwError_p = nullptr);

// Moves the file pointer to a file offset, which may use all 32 bits. 1 or 0.
int KIVMP3_set_file_pointer(HANDLE hFile, DWORD dwFileOffset_p, DWORD* pdwError_p = nullptr);

// Moves the file pointer to the end of the file and gives its offset. 1 or 0.
int KIVMP3_seek_to_end(HANDLE hFile, uint64_t* pullFileSize_p);

// The error number, 0 on success.
DWORD KIVMP3_get_file_size(HANDLE hFile, uint64_t* pullFileSize_p);

// The temporary directory with its closing separator; not 0 on success.
DWORD KIVMP3_get_system_temp_path(LPSTR pszPath_p, DWORD dwSizeBuf_p);

// The bytes free for this caller on the disk of a path; a file name behind the last separator is
// dropped. 0xFFFFFFFF stands for that many and more. The result is the error number, 0 on success;
// on failure *pdwFreeBytes_p is 0. A directory above 255 characters gives error 206.
DWORD KIVMP3_get_disk_free_space_ex(LPCSTR pszName_p, DWORD* pdwFreeBytes_p);

// Copies from the file pointer of one file to that of the other through the caller's buffer of
// lBufferSize_p bytes. Stops quietly where the source ends; a count of 0 or below copies nothing.
// FFD_NOERROR or FFD_FILE_IO_ERROR, with what was written so far left in the destination.
FFDError KIVMP3_transfer_mp3_data(HANDLE hSourceFile, HANDLE hDestFile, LONG lBytesToTransfer_p,
                                  BYTE* pcBuffer_p, LONG lBufferSize_p);

// The absolute form of a path, and the length of its directory part with the closing separator.
// 0, with the platform's error number in *pdwError_p: that of GetFullPathNameA, or 206 if the
// result does not fit.
int KIVMP3_get_full_path(LPCSTR pszPath_p, char (&szFullPath_p)[MAX_PATH],
                         DWORD* pdwDirectoryLength_p, DWORD* pdwError_p);

// The path of a file beside another one, with the same stem and its own extension (four characters
// with the dot), absolute if the platform can tell. FFD_INVALID_PATH if it does not fit, or if the
// first file has that extension itself; FFD_FILE_IO_ERROR if it has no stem.
FFDError KIVMP3_make_sibling_path(LPCSTR pszFilePath_p, LPCSTR pszExtension_p,
                                  char (&szSiblingPath_p)[MAX_PATH]);

// CreateFileA of a file that exists. Null, with the platform's error number in *pdwError_p, which
// is 0 on success. On Windows it waits for a name that was deleted and is not gone yet
// (Patience.h), but not for somebody who has the file open, as that lasts as long as a session.
// Leaves no line in the log.
HANDLE KIVMP3_open_existing_file(LPCSTR pszPath_p, DWORD dwDesiredAccess_p, DWORD dwShareMode_p,
                                 DWORD dwFlags_p, DWORD* pdwError_p);

// The same for a file that the driver keeps beside a sound file; no link is followed. Error 1920
// for a file that the driver must not touch (PlatformTestCompanion).
HANDLE KIVMP3_open_companion(LPCSTR pszPath_p, LPCSTR pszSoundPath_p, DWORD* pdwError_p,
                             DWORD dwDesiredAccess_p, DWORD dwShareMode_p);

// Removes or renames a file even if others have it open for a moment (Patience.h). The
// error number, 0 on success; a file that is gone counts as removed.
DWORD KIVMP3_delete_file(LPCSTR pszPath_p);
DWORD KIVMP3_move_file(LPCSTR pszPath_p, LPCSTR pszNewPath_p);

// A number that depends on every byte of a file or of a buffer, and on its place: 64-bit FNV-1a
// over little-endian words of eight bytes, the last filled up with zeros, with the high half folded
// into the low at each step.
class CFingerprint {
public:
    void add(BYTE const* pbyData_p, DWORD dwBytes_p); // a multiple of 8, but at the end
    uint64_t get() const { return m_ullFingerprint; }

private:
    uint64_t m_ullFingerprint = 0xCBF29CE484222325u;
};

// The fingerprint of a whole file; its file pointer moves. FFD_FILE_IO_ERROR,
// FFD_ERROR_OUTOFMEMORY.
FFDError KIVMP3_fingerprint_file(HANDLE hFile, uint64_t* pullFingerprint_p);

constexpr char KIVMP3_ASIDE_EXTENSION[] = ".bad";

// Renames a file that can't be used to its own name followed by ".bad", or by ".bad1" to ".bad63"
// if that is taken, or by ".bad" and the time in seconds. 1 or 0.
int KIVMP3_set_file_aside(LPCSTR pszPath_p);

// Whether that is what it has put behind a name.
inline bool KIVMP3_is_aside_extension(LPCSTR pszExtension_p) {
    size_t const nDot = sizeof KIVMP3_ASIDE_EXTENSION - 1;
    return strncmp(pszExtension_p, KIVMP3_ASIDE_EXTENSION, nDot) == 0 &&
           pszExtension_p[nDot + strspn(pszExtension_p + nDot, "0123456789")] == '\0';
}

// A block of the process heap for the span of one operation.
class CHeapBlock {
public:
    explicit CHeapBlock(size_t nBytes_p) : m_pvBlock(HeapAlloc(GetProcessHeap(), 0, nBytes_p)) {}
    ~CHeapBlock() {
        if (m_pvBlock != nullptr) {
            KIVMP3_free_block(m_pvBlock);
        }
    }
    CHeapBlock(CHeapBlock const&) = delete;
    CHeapBlock& operator=(CHeapBlock const&) = delete;

    // Null if there was no memory.
    BYTE* get() const { return static_cast<BYTE*>(m_pvBlock); }

private:
    void* m_pvBlock;
};
