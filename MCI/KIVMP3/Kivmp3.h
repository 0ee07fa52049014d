// The driver for MP3 dictation files: one object for each open file.
//
// The path of a call: a slot of the table in MAIN.cpp finds the object and calls the operation
// here; the operation works on the MP3 file through the helpers of INTERNAL.h and on the dictation
// through m_oDirFile. Sources: Kivmp3Open.cpp, Kivmp3Measure.cpp, Kivmp3Info.cpp, Kivmp3Read.cpp,
// Kivmp3Edit.cpp, Kivmp3Status.cpp, Kivmp3Close.cpp, Kivmp3Rebuild.cpp.
//
// Three kinds of byte count meet here and are never mixed: a file offset counts from the start of
// the MP3 file, an audio position from the first frame (m_dwFirstFrame), a dictation position the
// live bytes of the directory in playing order.
#pragma once

#include "MCI/KIVFBASE/FFDBASE.h"
#include "MCI/KIVMP3/CKivDirFile.h"
#include "MCI/KIVMP3/CloseMarker.h"
#include "MCI/KIVMP3/FrameHeader.h"

class CReadAhead;

class CKivmp3 final : public FFDBaseClass {
public:
    CKivmp3();
    ~CKivmp3();

    FFDError FFDGetCurrentPos(uint32_t* lpffdCurrentPos) override;
    FFDError FFDGetDictationFileSize(uint32_t* lpffdFileSize) override;
    FFDError FFDGetGranularitySize(void* lpffdGranuInfo) override;
    FFDError FFDGetAudioInfo(FFDAudioInfo* lpAudioInfo, uint32_t ffdBufferSize) override;
    FFDError FFDGetSizeOfData(uint32_t ffdLength, FFDReadHandle** lplpffdReadHandle) override;
    FFDError FFDGetSoundDataLength(uint32_t* lpffdSoundDataLength) override;
    FFDError FFDAudioSeek(uint32_t ffdSeekPos, uint32_t* lpffdRealPos) override;
    FFDError FFDSaveAs(FFDHandle ffdHandle, char const* lpInputString) override;
    FFDError FFDClose() override;
    FFDError FFDCreateFile(char const* lpFileName, FFDDesiredAccess ffdDesiredAccess,
                           FFDCreation ffdCreation, void* lpddiOpenInfo,
                           FFDCallbackParams const* ffdCallbackParams, FFDError* lpffdError,
                           void* pffdOpenInfoEx) override;
    FFDError FFDReadData(FFDReadHandle const* lpcffdReadHandle, uint32_t ffdBufferSize,
                         uint8_t* lpffdBuffer) override;
    FFDError FFDWriteData(FFDMethod ffdMethod, uint32_t ffdBufferSize,
                          uint8_t* lpffdBuffer) override;
    FFDError FFDDeleteData(uint32_t ffdLength) override;
    FFDError FFDUndoLast() override;
    FFDError FFDStoreActualFileStatus() override;
    FFDError FFDRestoreFileStatus() override;
    FFDError FFDGetDownloadLength(void* lpffdDownloadLen) override;

private:
    // ---- Opening (Kivmp3Open.cpp): the steps in their order; failures are thrown ----
    void check_creation_parameters(FFDCreation ffdCreation, FFDDesiredAccess ffdDesiredAccess,
                                   FFDCallbackParams const& ffdCallbackParams_new);
    void set_membervariables(FFDCallbackParams const& ffdCallbackParams, char const* lpFileName);
    FFDError set_membervar_path_and_filename(char const* lpFileName);
    void take_name_on_disk();
    void refuse_second_writer();
    void open_mp3_file();
    void check_and_fill_filepath_variables();
    void read_and_check_info_from_mp3_file(BYTE* pbyReadAhead_p);
    void read_file_size();
    void skip_id3_tags();
    void set_codingtype_and_sampleinfo();
    void allocate_wave_format();
    void reconcile_directory(BYTE* pbyReadAhead_p);
    FFDError check_dir_size_matching();
    void find_trailing_bytes(BYTE* pbyReadAhead_p);
    void release_failed_open();

    // ---- Measuring (Kivmp3Measure.cpp) ----

    // Finds the next frame header at or behind the file pointer: the first frame of the file, or
    // the next one like it. After FFD_NOERROR the file pointer stands 4 bytes behind the start of
    // the header, which is in m_byFrameHeader, and dwBytesSkipped (bytes) away from the header the
    // search began. FFD_NO_MORE_FRAMES at the end of the file; a failed read or seek is thrown.
    FFDError search_frame_sync(CReadAhead& rFile_p, bool bFirstFrame_p, DWORD& dwBytesRead,
                               DWORD& dwBytesSkipped);
    FFDError scan_block(BYTE const* pbyBlock_p, DWORD dwBytesRead_p, DWORD dwCarry_p,
                        bool bFirstFrame_p, LONG* plFound_p);
    FFDError scan_border(BYTE const* pbyBlock_p, DWORD dwCarry_p, bool bFirstFrame_p,
                         LONG* plFound_p);
    FFDError judge_header(BYTE const* pbyHeader_p, bool bFirstFrame_p);

    // A search that begins inside a frame can meet four bytes of audio that look like a header. So
    // the header found at a file offset, which is in m_byFrameHeader, gives way to the next one
    // that comes within the length of a frame, if its own frame does not end at another one or with
    // the audio, and the next one's does and has the file's bitrate: where the first lies inside a
    // true frame, the next does. *pullFileOffset_p and m_byFrameHeader tell which one it is then.
    // The frames behind have the bitrate of the one in front of them, or any. Whether the frame
    // that it is then ends so.
    bool pass_over_chance_header(CReadAhead& rFile_p, bool bAnyBitrate_p,
                                 uint64_t* pullFileOffset_p);
    bool is_followed_by_frame(CReadAhead& rFile_p, uint64_t ullFileOffset_p, bool bAnyBitrate_p);

    void ascertain_data_length_from_file(BYTE* pbyReadAhead_p);
    bool search_walked_frame(CReadAhead& rFile_p, DWORD dwFileOffset_p, DWORD* pdwBytesSkipped_p);
    void note_bitrate(WORD wBitrate_p, DWORD dwActualPosition_p);
    void lower_rate_of_variable_bitrate(DWORD dwFactor_p);
    void ascertain_data_length();
    void compute_length_in_ms();
    FFDError get_ms_from_bytes(DWORD dwBytes_p, DWORD* pmsResult_p) const;
    DWORD get_bytes_from_ms(DWORD dwMillisec_p) const;

    // ---- Info (Kivmp3Info.cpp) ----
    void log_member_variables();

    // ---- Reading (Kivmp3Read.cpp) ----
    FFDError check_read(FFDReadHandle const* lpcffdReadHandle, uint32_t ffdBufferSize,
                        uint8_t const* lpffdBuffer) const;
    FFDError read_data_from_mp3_file(DWORD dwStartPos_p, DWORD dwBytesToRead_p, BYTE* pbyTarget_p,
                                     DWORD* pdwBytesRead_p);

    // ---- Editing (Kivmp3Edit.cpp) ----
    void write_data(FFDMethod ffdMethod, uint32_t ffdBufferSize, uint8_t const* lpffdBuffer);
    DirInsertPlan append_to_file(uint8_t const* lpffdBuffer, DWORD dwBufferSize_p,
                                 bool bOverwrite_p);
    void cut_entries_behind(uint64_t ullEndOfFile_p);
    void take_back_append(DWORD dwOldFileSize_p);
    FFDError delete_data(DWORD ffdLength_p, int bPureDelete_p);
    int32_t check_diskspace_send_warning(DWORD dwBytesToWrite_p);
    DWORD needed_disk_space(DWORD dwBytesToWrite_p);

    // ---- Stored status (Kivmp3Status.cpp) ----
    void drop_stored_status();
    void cut_entries_to_file();
    void create_status_file();
    void write_status();
    void read_status();
    void check_status(DirEntry const* psEntries_p, DWORD dwNrOfEntries_p, DWORD dwCurrentPosInBy_p);

    // ---- Closing (Kivmp3Close.cpp) ----
    FFDError final_closing_work();
    FFDError close_written_file();
    FFDError settle_mp3_file();
    FFDError settle_dir_file(FFDError ffdSettled_p);
    void release_mp3_file();
    enum class NameLeads { Here, Elsewhere, Nowhere };
    NameLeads look_at_name();
    FFDError rebuild_and_close_wav_file(bool bAsItLies_p);
    void check_rebuild_space();
    HANDLE create_temp_file(char (&szTmpPath_p)[MAX_PATH]);
    DWORD finish_temp_file(HANDLE hNewFile);
    void write_close_marker(LPCSTR pszTmpPath_p, HANDLE* phNewFile_p, DWORD dwNewFileSize_p);
    void remove_mp3_file(LPCSTR pszTmpPath_p);
    void replace_mp3_file(LPCSTR pszTmpPath_p);
    [[noreturn]] static void leave_temp_file(LPCSTR pszTmpPath_p);

    // ---- The copy of a rebuild (Kivmp3Rebuild.cpp) ----
    void reorganize(HANDLE hNewFile);
    void copy_as_it_lies(HANDLE hNewFile);
    uint64_t copy_range(HANDLE hNewFile, uint64_t ullFileOffset_p, uint64_t ullBytes_p,
                        BYTE* pcBuffer_p, LPCSTR pszFailed_p);
    uint64_t copy_block(HANDLE hNewFile, DirEntry const& rEntry_p, BYTE* pcBuffer_p);
    FFDError search_block_frame(uint64_t ullFileOffset_p, BYTE* pcBuffer_p, DWORD* pdwSkipped_p,
                                bool* pbFollowed_p);

    char m_szFilePath[MAX_PATH] = "";       // as the host gave it, then the full path
    char m_szFileStatusPath[MAX_PATH] = ""; // the .csf file; empty for none
    HANDLE m_hStatusFile = nullptr;         // the open .csf file
    FFDReadHandle m_ReadInfo = {};          // of the latest FFDGetSizeOfData
    BOOL m_bDiskspaceWarned = FALSE;        // free space has not risen since a warning went out
    HANDLE m_hMp3File = nullptr;
    BYTE m_byFrameHeader[ID3_HEADER_SIZE] = {}; // header found last
    DWORD m_dwFileSize = 0;                     // bytes; grows with every write
    DWORD m_dwFirstFrame = 0;                   // file offset of audio position 0
    DWORD m_dwLastFrame = 0;                    // file offset behind the last frame found at open
    DWORD m_dwOriginalFileSize = 0;             // bytes at open
    DWORD m_dwReferenceHeader = 0;              // header of the first frame
    BOOL m_bVBR = FALSE;                        // a frame with another bitrate was met
    WORD m_wLowestBitrate = 0;                  // kbit/s
    CKivDirFile m_oDirFile;

    // What stands in the file behind the audio of an earlier day and in front of what was appended
    // since, such as an ID3v1 tag: file offsets. A rebuild copies it to the end. Blocks that begin
    // in front of m_dwBlockLimit must not run over it.
    DWORD m_dwTrailingBegin = 0;
    DWORD m_dwTrailingEnd = 0;
    DWORD m_dwBlockLimit = 0;

    // The file name as the disk has it: m_cstrFilename can be another spelling of it.
    std::string m_cstrNameOnDisk;
    // The directory of the MP3 file with its closing separator, absolute if the platform could
    // tell: the host may change the working directory while the file is open.
    std::string m_cstrWorkPath;
    CCloseMarker m_oCloseMarker;
    PlatformFileIdentity m_Mp3Identity = {}; // as of the last time that the file was held
    bool m_bNameLost = false; // during the close: the name leads elsewhere, or nowhere
};
