#include "Status.h"

#include <utility>

namespace ffdhost {

namespace {

#define STATUS(name) name, #name

StatusText const kStatusTexts[] = {
    {STATUS(FFD_NOERROR), "success", "Nothing to do."},
    {STATUS(FFD_INVALID_PATH), "the path has no file name, is malformed or too long",
     "Give the path of a file, shorter than 260 characters; a .DIR file cannot be edited itself."},
    {STATUS(FFD_INVALID_HANDLE), "the file is not open", "Open the file first."},
    {STATUS(FFD_ERROR_WRITE_PROTECT), "the medium is write-protected",
     "Remove the write protection, or copy the file to another medium."},
    {STATUS(FFD_ERROR_ACCESS_DENIED), "access denied, or the file is in use",
     "Check the permissions of the file, and close the programs that have it open."},
    {STATUS(FFD_ERR_NOT_ENOUGH_DSPACE), "too little free disk space to rebuild the file",
     "Free as much disk space as the file has and open it for writing again: the edits are kept "
     "in the .DIR file beside it."},
    {STATUS(FFD_FILE_ALREADY_EXISTS), "the file exists", "Choose another name."},
    {STATUS(FFD_NO_MORE_FRAMES), "the file holds no MP3 frame", "Choose an MP3 file."},
    {STATUS(FFD_INVALID_POSITION), "the position has moved since the read was prepared",
     "Prepare the read again."},
    {STATUS(FFD_INVALID_READ_HANDLE), "the read was not prepared", "Prepare the read first."},
    {STATUS(FFD_BUFFER_OVERFLOW), "the buffer is too small", "Give a larger buffer."},
    {STATUS(FFD_GRANULARITY_ERROR), "a size is no multiple of the block align",
     "Give a size that is a multiple of the block align."},
    {STATUS(FFD_NOT_SUPPORTED), "the operation or the kind of file is not supported",
     "The file needs one constant bitrate and less than 4 GiB: encode it anew with a constant "
     "bitrate, or split it."},
    {STATUS(FFD_NOT_UNDOABLE), "the undo did not reach the .DIR file",
     "Close the file normally: the undo is in effect, but a crash would lose it."},
    {STATUS(FFD_FILE_NOT_FOUND), "the file does not exist", "Check the path."},
    {STATUS(FFD_NOTHING_TO_UNDO), "no deletion is left to be taken back",
     "Only the last delete since the file was opened or recovered can be undone; inserts and "
     "overwrites cannot."},
    {STATUS(FFD_INVALID_PARAMETER), "a bad argument", "See 'ffdhost --help'."},
    {STATUS(FFD_INVALID_FORMAT), "the ID3 tags of the file are corrupt",
     "Remove or rewrite the ID3v2 tag with a tag editor."},
    {STATUS(FFD_ERROR_OUTOFMEMORY), "no memory, or no room left in the edit directory",
     "Close the file and open it again: the close folds the edits in and empties the directory."},
    {STATUS(FFD_FILE_IO_ERROR), "a file operation failed",
     "Check that the file exists, is no directory, may be accessed, is not open in another "
     "program, and that the disk is not full."},
    {STATUS(FFD_DIRECTORY_MISMATCH), "the .DIR file and the MP3 file disagree",
     "Open the file for writing: the driver repairs a leftover .DIR file, or sets a damaged one "
     "aside as .DIR.bad."},
    {STATUS(FFD_INTERNAL_ERROR), "a state that should not be",
     "Open the file again; if it happens again, keep the file and report it."},
    {STATUS(FFD_NO_STORED_FILE_STATUS), "there is no stored status to restore",
     "Use 'store' before 'restore', in the same edit."},
    {STATUS(FFD_ERROR_READ_ONLY), "the file is open for reading only",
     "Open the file for writing: use 'ffdhost edit'."},
    {STATUS(FFD_TAG_VERSION_UNKNOWN), "an ID3 version above 4",
     "Rewrite the ID3v2 tag with a tag editor."},
};

#undef STATUS

StatusText const kUnknown = {FFD_INTERNAL_ERROR, "unknown status",
                             "a status that this host does not know",
                             "Use a host of the same version as the driver."};

} // namespace

StatusText const& status_text(FFDError status) {
    for (StatusText const& text : kStatusTexts) {
        if (text.status == status) {
            return text;
        }
    }
    return kUnknown;
}

Failure::Failure(std::string operation, std::string file, FFDError status)
    : Failure(std::move(operation), std::move(file), status, status_text(status).meaning) {}

Failure::Failure(std::string operation, std::string file, FFDError status, std::string const& words,
                 std::string advice)
    : std::runtime_error(words), m_operation(std::move(operation)), m_file(std::move(file)),
      m_status(status), m_advice(std::move(advice)) {
    if (m_advice.empty()) {
        m_advice = status_text(status).advice;
    }
}

} // namespace ffdhost
