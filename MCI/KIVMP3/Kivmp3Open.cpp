// The open: from the host's arguments to an object that knows its format, its length and its
// directory.

#include "MCI/KIVMP3/INTERNAL.h"
#include "MCI/KIVMP3/Kivmp3.h"
#include "MCI/KIVMP3/ReadAhead.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#define TRACE_MODULE "XKIVMP3.DLL"
#include "log/trace.h"

namespace {

constexpr WORD CODING_TYPE_MP3 = 130;

} // namespace

CKivmp3::CKivmp3() {
    TRACE_ENTRY("-----CKivmp3::CKivmp3(void)");
}

// Closes nothing: that is the work of FFDClose, or of the failed open.
CKivmp3::~CKivmp3() {
    TRACE_ENTRY("-----CKivmp3::~CKivmp3(void)");
}

FFDError CKivmp3::FFDCreateFile(char const* lpFileName, FFDDesiredAccess ffdDesiredAccess,
                                FFDCreation ffdCreation, void* /*lpddiOpenInfo*/,
                                FFDCallbackParams const* ffdCallbackParams, FFDError* lpffdError,
                                void* /*pffdOpenInfoEx*/) {
    TRACE_ENTRY("-----CKivmp3::FFDCreateFile(...)");
    *lpffdError = FFD_NOERROR;
    try {
        check_creation_parameters(ffdCreation, ffdDesiredAccess, *ffdCallbackParams);
        set_membervariables(*ffdCallbackParams, lpFileName);
        if (ffdDesiredAccess == FFD_ACCESS_READWRITE) {
            take_name_on_disk();
            if (PlatformIsReadOnly(m_szFilePath)) {
                TRACE_ERROR(ERROR_ACCESS_DENIED, "read-only sound file -> FFD_FILE_IO_ERROR");
                throw FFDError{FFD_FILE_IO_ERROR};
            }
            CCloseMarker::finish_interrupted_close(m_szFilePath);
            take_name_on_disk(); // the sound file may have come only now
        }
        m_oDirFile.create_directory_file(m_szFilePath, ffdCreation, ffdDesiredAccess);
        if (!m_oDirFile.is_new_directory()) {
            refuse_second_writer();
        }
        open_mp3_file();
        if (ffdDesiredAccess == FFD_ACCESS_READWRITE) {
            CCloseMarker::refuse_close_in_progress(m_szFilePath);
        }
        check_and_fill_filepath_variables();

        CHeapBlock const readAhead(READ_AHEAD_SIZE);
        if (readAhead.get() == nullptr) {
            TRACE_ERROR(0, "by HeapAlloc() for the read-ahead block -> FFD_ERROR_OUTOFMEMORY");
            throw FFDError{FFD_ERROR_OUTOFMEMORY};
        }
        read_and_check_info_from_mp3_file(readAhead.get());
        ascertain_data_length_from_file(readAhead.get());
        reconcile_directory(readAhead.get());
        ascertain_data_length();
        if (m_bVBR) {
            throw FFDError{FFD_NOT_SUPPORTED};
        }
    } catch (FFDError ffdThrown) {
        *lpffdError = ffdThrown;
    } catch (std::bad_alloc const&) {
        *lpffdError = FFD_ERROR_OUTOFMEMORY;
    }
    if (*lpffdError != FFD_NOERROR) {
        TRACE_ERROR(*lpffdError, "catched in FFDCreateFile()");
        release_failed_open();
    }
    log_member_variables();
    return FFD_NOERROR;
}

// The destructors release nothing, and a handle to the .DIR file that stayed open would refuse the
// next open of the same name for as long as the process lives.
void CKivmp3::release_failed_open() {
    m_oDirFile.set_sound_file(nullptr);
    KIVMP3_release_file(&m_hMp3File);
    m_oDirFile.close_dir_memory_mapping();
    free(m_pWfx);
    m_pWfx = nullptr;
}

void CKivmp3::check_creation_parameters(FFDCreation ffdCreation, FFDDesiredAccess ffdDesiredAccess,
                                        FFDCallbackParams const& ffdCallbackParams_new) {
    TRACE_ENTRY("-----CKivmp3::check_creation_parameters(...)");
    if (ffdCreation != FFD_CREATE_NEW && ffdCreation != FFD_OPEN_EXISTING) {
        TRACE_ERROR(FFD_INVALID_PARAMETER,
                    "ffdCreation has a wrong value -> FFD_INVALID_PARAMETER");
        throw FFDError{FFD_INVALID_PARAMETER};
    }
    if (ffdDesiredAccess != FFD_ACCESS_READ && ffdDesiredAccess != FFD_ACCESS_READWRITE) {
        TRACE_ERROR(FFD_INVALID_PARAMETER,
                    "ffdDesiredAccess has a wrong value -> FFD_INVALID_PARAMETER");
        throw FFDError{FFD_INVALID_PARAMETER};
    }
    if (ffdCreation == FFD_CREATE_NEW) {
        throw FFDError{TRACED_ERROR(FFD_NOT_SUPPORTED, "FFD_NOT_SUPPORTED file creation")};
    }
    if (ffdCallbackParams_new.hDriver == nullptr) {
        TRACE_ERROR(FFD_INVALID_PARAMETER,
                    "ffdCallbackParams_new.hDriver is NULL -> FFD_INVALID_PARAMETER");
        throw FFDError{FFD_INVALID_PARAMETER};
    }
}

void CKivmp3::set_membervariables(FFDCallbackParams const& ffdCallbackParams,
                                  char const* lpFileName) {
    TRACE_ENTRY("-----CKivmp3::set_membervariables(..)");
    m_ffdCallbackParams = ffdCallbackParams;
    FFDError const ffdError = set_membervar_path_and_filename(lpFileName);
    if (ffdError != FFD_NOERROR) {
        throw FFDError{TRACED_ERROR(ffdError, "by set_membervar_path_and_filename()")};
    }
}

FFDError CKivmp3::set_membervar_path_and_filename(char const* lpFileName) {
    TRACE_ENTRY("-----CKivmp3::set_membervar_path_and_filename(.)");
    PlatformPathParts parts;
    if (lpFileName == nullptr || strnlen(lpFileName, MAX_PATH) >= MAX_PATH ||
        !PlatformSplitPath(lpFileName, &parts) || parts.szStem[0] == '\0') {
        return FFD_INVALID_PATH;
    }
    m_cstrFilepath = std::string(parts.szDrive) + parts.szDirectory;
    m_cstrFilename = std::string(parts.szStem) + parts.szExtension;
    m_cstrNameOnDisk = m_cstrFilename;
    snprintf(m_szFilePath, sizeof m_szFilePath, "%s", lpFileName);
    return FFD_NOERROR;
}

// One file can be opened by several names, since Windows ignores a dot or blank at the end. What
// lies beside it must have one name, or two writers would not meet.
void CKivmp3::take_name_on_disk() {
    char szName[MAX_PATH];
    if (!PlatformNameOnDisk(m_szFilePath, &szName)) {
        throw FFDError{TRACED_ERROR(FFD_INVALID_PATH, "a stream of a file -> FFD_INVALID_PATH")};
    }
    char szPath[MAX_PATH];
    int const nLength = snprintf(szPath, sizeof szPath, "%s%s", m_cstrFilepath.c_str(), szName);
    if (nLength > 0 && nLength < MAX_PATH) {
        m_cstrNameOnDisk = szName;
        memcpy(m_szFilePath, szPath, sizeof szPath);
    }
}

// A directory with edits is either left over or in use by another process, whose every flush lets
// go of the .DIR file for a moment. That process has the MP3 file open for writing all the time.
void CKivmp3::refuse_second_writer() {
    DWORD dwError = NO_ERROR;
    HANDLE hMp3File =
        KIVMP3_create_file(m_szFilePath, &dwError, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0);
    if (dwError != NO_ERROR) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    KIVMP3_release_file(&hMp3File);
}

void CKivmp3::open_mp3_file() {
    bool const bReadOnly = m_oDirFile.is_read_only();
    DWORD dwError = NO_ERROR;
    m_hMp3File = KIVMP3_create_file(
        m_szFilePath, &dwError, bReadOnly ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE,
        bReadOnly ? FILE_SHARE_READ : FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0);
    if (dwError != NO_ERROR) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    m_oDirFile.set_sound_file(m_hMp3File);
}

void CKivmp3::check_and_fill_filepath_variables() {
    TRACE_ENTRY("-----CKivmp3::check_and_fill_filepath_variables()");
    m_cstrWorkPath = m_cstrFilepath;
    char szFullPath[MAX_PATH];
    DWORD dwDirectoryLength = 0;
    DWORD dwError = NO_ERROR;
    if (KIVMP3_get_full_path(m_szFilePath, szFullPath, &dwDirectoryLength, &dwError)) {
        m_cstrWorkPath.assign(szFullPath, dwDirectoryLength);
    } else if (dwError == ERROR_FILENAME_EXCED_RANGE) {
        throw FFDError{FFD_INVALID_PATH};
    }
    if (m_cstrFilepath.empty()) {
        TRACE_INFO("No filepath was passed, create one");
        m_cstrFilepath = m_cstrWorkPath;
    }
    snprintf(m_szFilePath, sizeof m_szFilePath, "%s%s", m_cstrWorkPath.c_str(),
             m_cstrNameOnDisk.c_str());
    TRACE_VALUE("m_szFilePath", "%s", m_szFilePath);
}

void CKivmp3::read_and_check_info_from_mp3_file(BYTE* pbyReadAhead_p) {
    TRACE_ENTRY("-----CKivmp3::read_and_check_info_from_mp3_file()");
    read_file_size();
    skip_id3_tags();
    CReadAhead file(m_hMp3File, pbyReadAhead_p, READ_AHEAD_SIZE);
    if (!file.set_file_pointer(m_dwFirstFrame)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    DWORD dwBytesRead = 0;
    DWORD dwBytesSkipped = 0;
    FFDError const ffdError = search_frame_sync(file, true, dwBytesRead, dwBytesSkipped);
    if (ffdError != FFD_NOERROR) {
        throw FFDError{ffdError};
    }
    set_codingtype_and_sampleinfo();
    allocate_wave_format();
}

void CKivmp3::read_file_size() {
    uint64_t ullFileSize = 0;
    DWORD const dwError = KIVMP3_get_file_size(m_hMp3File, &ullFileSize);
    if (dwError != NO_ERROR) {
        TRACE_ERROR(dwError, "GetLastError() after GetFileSize()");
        m_dwFileSize = 0;
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    if (ullFileSize > 0xFFFFFFFFu) {
        throw FFDError{TRACED_ERROR(FFD_NOT_SUPPORTED, "FFD_NOT_SUPPORTED file of 4 GiB or more")};
    }
    m_dwOriginalFileSize = static_cast<DWORD>(ullFileSize);
    m_dwFileSize = m_dwOriginalFileSize;
}

// Moves m_dwFirstFrame behind the ID3v2 tags at the front of the file.
void CKivmp3::skip_id3_tags() {
    m_dwFirstFrame = 0;
    bool bAnotherTag = true;
    while (bAnotherTag) {
        // The count is ignored: after a short read the rest of the buffer keeps what it held, so
        // that a tag with nothing behind it is met again and overruns the file.
        if (!KIVMP3_read_file(m_hMp3File, m_byFrameHeader, ID3_HEADER_SIZE, nullptr)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
        bAnotherTag = false;
        if (memcmp(m_byFrameHeader, "ID3", 3) == 0) {
            DWORD dwTagLength = 0;
            FFDError const ffdError = check_ID3_header(m_byFrameHeader, &dwTagLength);
            if (ffdError != FFD_NOERROR) {
                TRACE_ERROR(ffdError, "get_ID3_size() returns error");
            } else if (uint64_t{m_dwFirstFrame} + dwTagLength > m_dwFileSize) {
                TRACE_ERROR(0, "ID3 header corrupt, size greater than filesize");
                throw FFDError{FFD_INVALID_FORMAT};
            } else {
                m_dwFirstFrame += dwTagLength;
                bAnotherTag = true;
            }
        }
        if (!KIVMP3_set_file_pointer(m_hMp3File, m_dwFirstFrame)) {
            throw FFDError{FFD_FILE_IO_ERROR};
        }
    }
}

void CKivmp3::set_codingtype_and_sampleinfo() {
    TRACE_ENTRY("-----CKivmp3::set_codingtype_and_sampleinfo()");
    m_ffdSampinfo.wChannels = ffd_frame_channels(m_byFrameHeader);
    m_ffdSampinfo.wBitsPerSample = 0;
    m_ffdSampinfo.dwSamplingRate = ffd_frame_sampling_rate(m_byFrameHeader);
    m_ffdSampinfo.wBlockAlign = 1;
    m_ffdSampinfo.nAvgBytesPerSec = frame_bytes_per_second(ffd_frame_bitrate(m_byFrameHeader));
    m_byCodtype = CODING_TYPE_MP3;
}

// Builds the block that FFDGetWfx copies. Its nBlockSize also serves the driver as the size of a
// frame.
void CKivmp3::allocate_wave_format() {
    m_pWfx = static_cast<MPEGLAYER3WAVEFORMAT*>(malloc(sizeof(MPEGLAYER3WAVEFORMAT)));
    if (m_pWfx == nullptr) {
        TRACE_ERROR(0, "malloc for wfx: FFD_ERROR_OUTOFMEMORY");
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    static_assert(sizeof(MPEGLAYER3WAVEFORMAT) == 30 && sizeof(WAVEFORMATEX) == 18);
    DWORD const dwSamplingRate = m_ffdSampinfo.dwSamplingRate;
    WORD const wLongFrame =
        static_cast<WORD>(m_ffdSampinfo.nAvgBytesPerSec * 1152 / dwSamplingRate & 0xFFFF);
    m_pWfx->wfx.wFormatTag = WAVE_FORMAT_MPEGLAYER3;
    m_pWfx->wfx.nChannels = m_ffdSampinfo.wChannels;
    m_pWfx->wfx.nSamplesPerSec = dwSamplingRate;
    m_pWfx->wfx.nAvgBytesPerSec = m_ffdSampinfo.nAvgBytesPerSec;
    m_pWfx->wfx.nBlockAlign = m_ffdSampinfo.wBlockAlign;
    m_pWfx->wfx.wBitsPerSample = m_ffdSampinfo.wBitsPerSample;
    m_pWfx->wfx.cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
    m_pWfx->wID = MPEGLAYER3_ID_MPEG;
    m_pWfx->fdwFlags = 0;
    // A frame of MPEG 2 and 2.5, whose sampling rates end at 24000 Hz, has half the samples.
    m_pWfx->nBlockSize = dwSamplingRate <= 24000 ? static_cast<WORD>(wLongFrame >> 1) : wLongFrame;
    m_pWfx->nFramesPerBlock = 1;
    m_pWfx->nCodecDelay = 1393;
}

void CKivmp3::reconcile_directory(BYTE* pbyReadAhead_p) {
    if (m_oDirFile.is_new_directory()) {
        m_oDirFile.set_first_entry(m_dwLastFrame - m_dwFirstFrame);
        m_dwTrailingBegin = m_dwLastFrame;
        m_dwTrailingEnd = std::max(m_dwLastFrame, m_dwOriginalFileSize);
        m_dwBlockLimit = m_dwLastFrame;
        return;
    }
    // A mismatch that remains is no failure: the dictation is what the entries make up.
    check_dir_size_matching();
    find_trailing_bytes(pbyReadAhead_p);
}

FFDError CKivmp3::check_dir_size_matching() {
    TRACE_ENTRY("-----CKivmp3::check_dir_size_matching()");
    DWORD dwDataSizeInBytes = m_dwLastFrame - m_dwFirstFrame;
    DWORD const dwSizeFromDirectory = m_oDirFile.calc_data_size();
    m_oDirFile.log_dir_entries("Log in check_dir_sf_matching()");
    // Audio appended in pieces that are no whole frames lets the walk end in front of or behind
    // what the file holds: no block gets shorter while its bytes are in the file, and none reaches
    // behind its end.
    DWORD const dwHeld = m_dwOriginalFileSize - m_dwFirstFrame;
    if (dwHeld >= dwSizeFromDirectory) {
        dwDataSizeInBytes = std::clamp(dwDataSizeInBytes, dwSizeFromDirectory, dwHeld);
    }
    if (dwDataSizeInBytes == dwSizeFromDirectory) {
        return FFD_NOERROR;
    }
    TRACE_INFO("m_oDirFile.calc_data_size() != dwDataSizeInBytes, try to recover");
    return m_oDirFile.recover_directory(dwDataSizeInBytes, dwSizeFromDirectory);
}

// With a directory taken over, appended audio may stand behind the bytes that trail the audio of
// the file's last clean close, and the walk over the frames has run through them. They begin where
// the blocks first leave a gap, and end at the next frame: what follows in the gap is audio that
// lost its entry, not part of a tag.
void CKivmp3::find_trailing_bytes(BYTE* pbyReadAhead_p) {
    DWORD dwGapStartpos = 0;
    DWORD dwGapEndpos = 0;
    if (!m_oDirFile.find_first_gap(&dwGapStartpos, &dwGapEndpos)) {
        throw FFDError{FFD_ERROR_OUTOFMEMORY};
    }
    m_dwBlockLimit = 0xFFFFFFFFu;
    DWORD const dwHeld = m_dwOriginalFileSize - m_dwFirstFrame;
    if (dwGapStartpos >= dwHeld) {
        return;
    }
    m_dwTrailingBegin = m_dwFirstFrame + dwGapStartpos;
    m_dwTrailingEnd = m_dwFirstFrame + std::min(dwGapEndpos, dwHeld);
    CReadAhead file(m_hMp3File, pbyReadAhead_p, READ_AHEAD_SIZE);
    if (!file.set_file_pointer(m_dwTrailingBegin)) {
        throw FFDError{FFD_FILE_IO_ERROR};
    }
    DWORD dwBytesRead = 0;
    DWORD dwBytesSkipped = 0;
    // The last byte of an ID3v1 tag may be 0xFF, and look like a header with the audio behind it.
    if (search_frame_sync(file, false, dwBytesRead, dwBytesSkipped) == FFD_NOERROR &&
        uint64_t{dwBytesSkipped} + FRAME_HEADER_SIZE <= m_dwTrailingEnd - m_dwTrailingBegin) {
        m_dwTrailingEnd = m_dwTrailingBegin + dwBytesSkipped;
    }
    if (m_dwTrailingEnd > m_dwTrailingBegin) {
        m_dwBlockLimit = m_dwTrailingBegin;
    }
}
