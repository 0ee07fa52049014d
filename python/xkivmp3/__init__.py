"""The MP3 dictation driver for Python: opens, reads and edits MP3 files without decoding them.

    import xkivmp3

    with xkivmp3.open("letter.mp3", "r+") as letter:
        second = letter.format.bytes_per_second
        letter.seek(letter.borders(3 * second).before)
        letter.delete(letter.borders(5 * second).before - letter.position)

Positions and lengths are bytes of the dictation. Whatever the driver refuses is an Error with the
file's name, the status and an advice. It needs the driver's library: see Driver.
"""

from ._dictation import Dictation, Format, Message, open
from ._driver import Driver, LoadError
from ._status import (Error, FileIOError, InternalError, InvalidFormat, InvalidParameter,
                      InvalidPath, NoFrames, NoStoredStatus, NotEnoughSpace, NothingToUndo, NotOpen,
                      NotSupported, NotUndoable, OutOfMemory, ReadOnly, Status)
from .frames import Borders, Frame, FrameReader, find_borders, frames

__all__ = [
    "Borders", "Dictation", "Driver", "Error", "FileIOError", "Format", "Frame", "FrameReader",
    "InternalError", "InvalidFormat", "InvalidParameter", "InvalidPath", "LoadError", "Message",
    "NoFrames", "NoStoredStatus", "NotEnoughSpace", "NotOpen", "NotSupported", "NotUndoable",
    "NothingToUndo", "OutOfMemory", "ReadOnly", "Status", "find_borders", "frames", "open"]
