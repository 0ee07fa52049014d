#include "Status.h"

#include <utility>

namespace ffdhost {

namespace {

struct Advice {
    FFDError status;
    char const* words;
};

constexpr Advice kAdvice[] = {
    {FFD_NOERROR, "Nothing to do."},
    {FFD_INVALID_PATH,
     "Give the path of a file, shorter than 260 characters; a .DIR file cannot be edited itself."},
    {FFD_INVALID_HANDLE, "Open the file first."},
    {FFD_ERROR_WRITE_PROTECT, "Remove the write protection, or copy the file to another medium."},
    {FFD_ERROR_ACCESS_DENIED,
     "Check the permissions of the file, and close the programs that have it open."},
    {FFD_ERR_NOT_ENOUGH_DSPACE,
     "Free as much disk space as the file has and open it for writing again: the edits are kept "
     "in the .DIR file beside it."},
    {FFD_FILE_ALREADY_EXISTS, "Choose another name."},
    {FFD_NO_MORE_FRAMES, "Choose an MP3 file."},
    {FFD_INVALID_POSITION, "Prepare the read again."},
    {FFD_INVALID_READ_HANDLE, "Prepare the read first."},
    {FFD_BUFFER_OVERFLOW, "Give a larger buffer."},
    {FFD_GRANULARITY_ERROR, "Give a size that is a multiple of the block align."},
    {FFD_NOT_SUPPORTED,
     "The file needs one constant bitrate and less than 4 GiB: encode it anew with a constant "
     "bitrate, or split it."},
    {FFD_NOT_UNDOABLE,
     "Close the file normally: the undo is in effect, but a crash would lose it."},
    {FFD_FILE_NOT_FOUND, "Check the path."},
    {FFD_NOTHING_TO_UNDO,
     "Only the last delete since the file was opened or recovered can be undone; inserts and "
     "overwrites cannot."},
    {FFD_INVALID_PARAMETER, "See 'ffdhost --help'."},
    {FFD_INVALID_FORMAT, "Remove or rewrite the ID3v2 tag with a tag editor."},
    {FFD_ERROR_OUTOFMEMORY,
     "Close the file and open it again: the close folds the edits in and empties the directory."},
    {FFD_FILE_IO_ERROR,
     "Check that the file exists, is no directory, may be accessed, is not open in another "
     "program, and that the disk is not full."},
    {FFD_DIRECTORY_MISMATCH,
     "Open the file for writing: the driver repairs a leftover .DIR file, or sets a damaged one "
     "aside as .DIR.bad."},
    {FFD_INTERNAL_ERROR, "Open the file again; if it happens again, keep the file and report it."},
    {FFD_NO_STORED_FILE_STATUS, "Use 'store' before 'restore', in the same edit."},
    {FFD_ERROR_READ_ONLY, "Open the file for writing: use 'ffdhost edit'."},
    {FFD_TAG_VERSION_UNKNOWN, "Rewrite the ID3v2 tag with a tag editor."},
};

} // namespace

StatusText status_text(FFDError status) {
    for (Advice const& advice : kAdvice) {
        if (advice.status == status) {
            ffd::StatusText const text = ffd::describe(status);
            return {text.name, text.meaning, advice.words};
        }
    }
    return {"unknown status", "a status that this host does not know",
            "Use a host of the same version as the driver."};
}

Failure::Failure(std::string operation, std::string file, FFDError status)
    : Failure(std::move(operation), std::move(file), status,
              std::string(status_text(status).meaning)) {}

Failure::Failure(std::string operation, std::string file, FFDError status, std::string const& words,
                 std::string advice)
    : std::runtime_error(words), m_operation(std::move(operation)), m_file(std::move(file)),
      m_status(status), m_advice(std::move(advice)) {
    if (m_advice.empty()) {
        m_advice = status_text(status).advice;
    }
}

} // namespace ffdhost
