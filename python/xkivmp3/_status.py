"""What the driver answers, in words, and the exceptions made of it."""

from __future__ import annotations

import enum


class Status(enum.IntEnum):
    """The status codes of ffd.h, without their FFD_."""

    meaning: str
    """What has happened, as the end of a sentence."""
    advice: str
    """What can be done about it, as one sentence."""

    def __new__(cls, code: int, meaning: str = "", advice: str = "") -> Status:
        status = int.__new__(cls, code)
        status._value_ = code
        status.meaning = meaning
        status.advice = advice
        return status

    NOERROR = (0, "success", "Nothing to do.")
    INVALID_PATH = (
        1, "the path has no file name, is malformed or too long",
        "Give the path of a file, shorter than 260 characters; a .DIR file cannot be edited "
        "itself.")
    INVALID_HANDLE = (2, "the file is not open", "Open the file first.")
    ERROR_WRITE_PROTECT = (
        4, "the medium is write-protected",
        "Remove the write protection, or copy the file to another medium.")
    ERROR_ACCESS_DENIED = (
        5, "access denied, or the file is in use",
        "Check the permissions of the file, and close the programs that have it open.")
    ERR_NOT_ENOUGH_DSPACE = (
        6, "too little free disk space to rebuild the file",
        "Free as much disk space as the file has and open it for writing again: the edits are "
        "kept in the .DIR file beside it.")
    FILE_ALREADY_EXISTS = (7, "the file exists", "Choose another name.")
    NO_MORE_FRAMES = (9, "the file holds no MP3 frame", "Choose an MP3 file.")
    INVALID_POSITION = (
        11, "the position has moved since the read was prepared",
        "Prepare the read again.")
    INVALID_READ_HANDLE = (14, "the read was not prepared", "Prepare the read first.")
    BUFFER_OVERFLOW = (15, "the buffer is too small", "Give a larger buffer.")
    GRANULARITY_ERROR = (
        18, "a size is no multiple of the block align",
        "Give a size that is a multiple of the block align.")
    NOT_SUPPORTED = (
        19, "the operation or the kind of file is not supported",
        "The file needs one constant bitrate and less than 4 GiB: encode it anew with a constant "
        "bitrate, or split it.")
    NOT_UNDOABLE = (
        22, "the undo did not reach the .DIR file",
        "Close the file normally: the undo is in effect, but a crash would lose it.")
    FILE_NOT_FOUND = (23, "the file does not exist", "Check the path.")
    NOTHING_TO_UNDO = (
        24, "no deletion is left to be taken back",
        "Only the last delete since the file was opened or recovered can be undone; inserts and "
        "overwrites cannot.")
    INVALID_PARAMETER = (
        25, "a bad argument",
        "Check the arguments: an access or a method that is none, or a pointer that is null.")
    INVALID_FORMAT = (
        26, "the ID3 tags of the file are corrupt",
        "Remove or rewrite the ID3v2 tag with a tag editor.")
    ERROR_OUTOFMEMORY = (
        27, "no memory, or no room left in the edit directory",
        "Close the file and open it again: the close folds the edits in and empties the "
        "directory.")
    FILE_IO_ERROR = (
        29, "a file operation failed",
        "Check that the file exists, is no directory, may be accessed, is not open in another "
        "program, and that the disk is not full.")
    DIRECTORY_MISMATCH = (
        31, "the .DIR file and the MP3 file disagree",
        "Open the file for writing: the driver repairs a leftover .DIR file, or sets a damaged "
        "one aside as .DIR.bad.")
    INTERNAL_ERROR = (
        32, "a state that should not be",
        "Open the file again; if it happens again, keep the file and report it.")
    NO_STORED_FILE_STATUS = (
        33, "there is no stored status to restore",
        "Store the status before you restore it, while the file is open.")
    ERROR_READ_ONLY = (34, "the file is open for reading only", "Open the file for writing.")
    TAG_VERSION_UNKNOWN = (42, "an ID3 version above 4", "Rewrite the ID3v2 tag with a tag editor.")


class Error(Exception):
    """An operation that the driver answered with another status than success. The subclasses stand
    for the statuses that a host may want to tell apart."""

    status: int
    """The answer of the driver, a Status where the number is one of them."""
    operation: str
    """What was tried, in a word or two: "open for reading", "insert"."""
    filename: str
    """The file, as it was given to open()."""
    advice: str
    """One sentence: what can be done about it."""

    def __init__(self, operation: str, filename: str, status: int) -> None:
        known = Status._value2member_map_.get(status)
        self.operation, self.filename, self.status = operation, filename, status
        meaning, name = "a status that this module does not know", "unknown status"
        self.advice = "Use a module of the same version as the driver."
        if isinstance(known, Status):
            self.status, self.advice = known, known.advice
            meaning, name = known.meaning, f"FFD_{known.name}"
        super().__init__(f"{filename}: {operation}: {meaning} ({name}, {status}). {self.advice}")

    def __reduce__(self) -> tuple[type[Error], tuple[str, str, int]]:
        return type(self), (self.operation, self.filename, int(self.status))


class InvalidPath(Error):
    """No file name, too long a path, or a name that ends in .DIR or .CLM."""


class NotOpen(Error):
    """The file is not open, or not open any more."""


class NotEnoughSpace(Error):
    """A close needs room for the whole file once more. The edits are in the .DIR file."""


class NoFrames(Error):
    """There is no MP3 frame in the file."""


class NotSupported(Error):
    """A variable bitrate, or 4 GiB and more."""


class NotUndoable(Error):
    """Undone, but not in the .DIR file: a crash would lose it."""


class NothingToUndo(Error):
    """No delete is left to take back."""


class InvalidParameter(Error):
    """An argument that the driver does not take."""


class InvalidFormat(Error):
    """An ID3v2 tag that is larger than the file."""


class OutOfMemory(Error):
    """No memory, or the directory of the session is full: close and open again."""


class FileIOError(Error):
    """A file operation failed: no such file, no rights, in use, a full disk."""


class InternalError(Error):
    """Nothing is left in the dictation, or a state that should not be."""


class NoStoredStatus(Error):
    """A restore without a store."""


class ReadOnly(Error):
    """An edit of a file that is open for reading."""


_CLASSES: dict[int, type[Error]] = {
    Status.INVALID_PATH: InvalidPath, Status.INVALID_HANDLE: NotOpen,
    Status.ERR_NOT_ENOUGH_DSPACE: NotEnoughSpace, Status.NO_MORE_FRAMES: NoFrames,
    Status.NOT_SUPPORTED: NotSupported, Status.NOT_UNDOABLE: NotUndoable,
    Status.NOTHING_TO_UNDO: NothingToUndo, Status.INVALID_PARAMETER: InvalidParameter,
    Status.INVALID_FORMAT: InvalidFormat, Status.ERROR_OUTOFMEMORY: OutOfMemory,
    Status.FILE_IO_ERROR: FileIOError, Status.INTERNAL_ERROR: InternalError,
    Status.NO_STORED_FILE_STATUS: NoStoredStatus, Status.ERROR_READ_ONLY: ReadOnly}


def check(operation: str, filename: str, status: int) -> None:
    """Raises the Error of a status that is no success."""
    if status != Status.NOERROR:
        raise _CLASSES.get(status, Error)(operation, filename, status)
