// The marker that stands beside a sound file while its rebuilt copy takes its place.
//
// Between the removal of the old file and the arrival of the new one under its name the dictation
// exists only under a temporary name, and from then on until the .DIR file is gone that directory
// describes a file that is no more. The marker is written before the first of these steps and
// removed after the last, and so tells the next open for writing what to finish or to forget. It
// has the stem of the sound file and the extension ".CLM"; docs/formats.md shows its bytes.
#pragma once

#include "ffd.h"
#include "platform/platform.h"

#include <cstddef>
#include <cstdint>

struct CloseMarkerRecord {
    char szMagic[8];              // "XKIVCLM1", not terminated
    DWORD dwCheck;                // CRC-32 (ISO-HDLC) of everything behind it
    DWORD dwOldSize;              // bytes of the sound file before the rebuild
    DWORD dwNewSize;              // bytes of the rebuilt file
    DWORD dwDirFingerprint;       // of the .DIR file, the high half folded into the low; 0: unknown
    uint64_t ullNewFingerprint;   // of the rebuilt file's bytes, if both sizes are equal; else 0
    char szSoundName[MAX_PATH];   // file names without a directory, zero-terminated and
    char szRebuiltName[MAX_PATH]; // filled up with zeros
};
static_assert(sizeof(CloseMarkerRecord) == 552);
static_assert(offsetof(CloseMarkerRecord, ullNewFingerprint) == 24);
static_assert(offsetof(CloseMarkerRecord, szSoundName) == 32);

// What a marker tells of; the paths are absolute, the handles open, and all is borrowed.
struct CloseMarkerFiles {
    LPCSTR pszSoundPath;
    HANDLE hSoundFile;
    DWORD dwOldSize;            // bytes of the sound file before the rebuild
    uint64_t ullDirFingerprint; // of what the .DIR file should hold
    LPCSTR pszRebuiltPath;
    HANDLE hRebuiltFile; // its file pointer moves
    DWORD dwNewSize;     // bytes of the rebuilt file
};

class CCloseMarker {
public:
    CCloseMarker() = default;
    CCloseMarker(CCloseMarker const&) = delete;
    CCloseMarker& operator=(CCloseMarker const&) = delete;

    // Writes the marker and returns when it is on the disk. It stays open, so that nobody else acts
    // on it, and has the permissions of the sound file. A foreign file under its name is set aside
    // first. A failure leaves no marker behind. FFD_ERR_NOT_ENOUGH_DSPACE, FFD_FILE_IO_ERROR,
    // FFD_ERROR_OUTOFMEMORY, FFD_INVALID_PATH.
    FFDError write(CloseMarkerFiles const& rFiles_p);

    // Closes the marker and leaves it for the next open.
    void leave();

    // Removes the marker, if one was written. FFD_FILE_IO_ERROR if it stays on the disk.
    FFDError remove();

    // To be called before an open for writing touches anything else: finishes or forgets the close
    // that a marker beside the sound file tells of. Without a marker, and in an undisturbed
    // directory, nothing happens; a foreign file of its name is left alone. Throws
    // FFD_FILE_IO_ERROR with nothing touched for a marker of another sound file of this stem and
    // for one that can't be trusted (PlatformTestCompanion), or FFD_INVALID_PATH for a sound file
    // that could be its own marker or directory file; then everything is still there.
    static void finish_interrupted_close(LPCSTR pszSoundPath_p);

    // To be called once the open has the .DIR file and the sound file to itself, so that no close
    // can go on: throws FFD_FILE_IO_ERROR if one has begun since the call above, and one of the
    // two files may be from before it and the other from after it.
    static void refuse_close_in_progress(LPCSTR pszSoundPath_p);

private:
    DWORD create_file(LPCSTR pszMarkerPath_p, HANDLE hSoundFile_p);
    DWORD write_record(HANDLE hSoundFile_p, CloseMarkerRecord const& rRecord_p);

    HANDLE m_hMarkerFile = nullptr;
    char m_szMarkerPath[MAX_PATH] = "";
};
