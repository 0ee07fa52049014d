"""Open dictations."""

from __future__ import annotations

import ctypes
import enum
import functools
import operator
import os
import warnings
from collections.abc import Callable, Iterator
from ctypes import POINTER, byref, c_uint32, c_uint64
from dataclasses import dataclass
from types import TracebackType
from typing import Literal

from . import _driver
from ._status import Error, InvalidPath, NotOpen, Status, check
from .frames import (BORDER_REACH, Borders, Data, Frame, FrameReader, check_data, find_borders,
                     not_negative)

_READ, _READ_WRITE, _OPEN_EXISTING, _INSERT, _OVERWRITE = 1, 2, 2, 1, 2
_LAST = 0xFFFFFFFF  # the largest position and size
_PIECE = 65536


class Message(enum.IntEnum):
    """What the driver tells about the disk while it writes."""

    DISKSPACE_WARNING = 1020
    """Space is getting low; the value is a third of the bytes left above what the close needs."""
    OUT_OF_DISKSPACE = 1021
    """The close may not find room: stop and close. The value is that of warn_below()."""


@dataclass(frozen=True)
class Format:
    """The format of the first frame, which is that of all."""

    channels: int
    """1 or 2."""
    sampling_rate: int
    """In Hz."""
    bytes_per_second: int
    """Of the bitrate: divide a position by it for seconds."""
    frame_size: int
    """Bytes of a frame without padding."""


class Dictation(_driver.NotCopied):
    """An open dictation; open() makes it, and it cannot be copied or pickled.

    Positions and lengths are bytes of the dictation as it plays; 0 is the first byte of the first
    frame. Edits are to the byte, but a close that rebuilds writes whole frames: edit at borders().
    The calls of all dictations may come from any thread; one waits for the other.
    """

    def __init__(self, path: str | os.PathLike[str], mode: Literal["r", "r+"],
                 driver: _driver.Driver,
                 on_message: Callable[[Message, int], object] | None) -> None:
        self._handle: int | None = None
        if mode not in ("r", "r+"):
            raise ValueError(f"{mode}: the mode is 'r' or 'r+'")
        if not isinstance(driver, _driver.Driver):
            raise TypeError(f"{driver!r}: the driver is a Driver")
        if not (on_message is None or callable(on_message)):
            raise TypeError(f"{on_message!r}: on_message is a function")
        self.name: str = os.fsdecode(path)
        """The path, as it was given to open()."""
        self._table = driver.table
        self._on_message = on_message
        # Messages come in the middle of a write, where no slot may be called: the host gets them
        # after it. What is called holds no reference to this object, which would never be freed.
        self._messages = messages = list[tuple[int, int]]()
        self._callback = _driver.CallbackProc(
            lambda _driver, message, _user, value, _unused: messages.append((message, value)))
        operation = "open for reading" if mode == "r" else "open for writing"
        parameters = _driver.CallbackParams(hDriver=1)  # must not be null
        if on_message is not None:
            parameters.dwCallback = ctypes.cast(self._callback, ctypes.c_void_p).value
        status = c_uint64()
        with _driver.lock:
            self._handle = self._table.create_file(
                _to_driver(operation, self.name), _READ if mode == "r" else _READ_WRITE,
                _OPEN_EXISTING, None, parameters, byref(status), None)
        check(operation, self.name, status.value)

    def close(self) -> None:
        """Folds the edits in and ends the file, whatever comes of it. If it raises, the edits are in
        the .DIR file beside the sound file, and the next open for writing finds them. A second close
        does nothing."""
        with _driver.lock:
            handle, self._handle = self._handle, None
            if handle is not None:
                check("close", self.name, self._table.close(handle))

    @property
    def closed(self) -> bool:
        """Whether the file has been closed."""
        return self._handle is None

    def __enter__(self) -> Dictation:
        self._open_handle("enter")
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None) is not None:
            warnings.warn(f"{self.name}: not closed", ResourceWarning, source=self)
            try:
                self.close()
            except Error as error:  # told, since it cannot be raised
                warnings.warn(str(error), ResourceWarning)

    def __repr__(self) -> str:
        return f"<xkivmp3.Dictation {self.name!r}{' closed' if self.closed else ''}>"

    # ---- Position and size

    @property
    def position(self) -> int:
        """Of the next read or edit."""
        position = c_uint32()
        self._call("get position", self._table.get_current_pos, byref(position))
        return position.value

    def tell(self) -> int:
        """The position, as of a file."""
        return self.position

    def seek(self, position: int) -> int:
        """Moves the position, to the end at most. Gives the position reached."""
        reached = c_uint32()
        self._call("seek", self._table.audio_seek, min(not_negative(position), _LAST), byref(reached))
        return reached.value

    @property
    def length(self) -> int:
        """The exact length."""
        with _driver.lock:
            before = self.position
            end = self.seek(_LAST)
            self.seek(before)
        return end

    @property
    def seconds(self) -> float:
        """The length in seconds."""
        return self.length / self.format.bytes_per_second

    @property
    def file_size(self) -> int:
        """Of the whole MP3 file, with its tags and with what was deleted and appended."""
        size = c_uint32()
        self._call("get file size", self._table.get_dictation_file_size, byref(size))
        return size.value

    @property
    def format(self) -> Format:
        """The format of all frames."""
        wave = _driver.WaveFormat()
        self._call("get format", self._table.get_wfx, byref(wave), ctypes.sizeof(wave))
        return Format(wave.nChannels, wave.nSamplesPerSec, wave.nAvgBytesPerSec, wave.nBlockSize)

    def borders(self, position: int) -> Borders:
        """The borders of frames around a position, which are the places to edit at; the end for a
        position beyond it. Leaves the position."""
        with _driver.lock:
            kept = self.position
            wanted = self.seek(position)
            begin = self.seek(max(wanted - BORDER_REACH, 0))
            block = b""
            while len(block) < 2 * BORDER_REACH and (
                    piece := self.read(2 * BORDER_REACH - len(block))):
                block += piece
            self.seek(kept)
        found = find_borders(block, wanted - begin)
        return Borders(begin + found.before, begin + found.behind)

    # ---- Reading

    def read(self, size: int = -1) -> bytes:
        """Reads up to so many bytes from the position on, all for -1, and moves it. Gives fewer at
        the end, and where the end of the file cuts the last frame short."""
        size = operator.index(size)
        with _driver.lock:
            record = POINTER(_driver.ReadHandle)()
            self._call("read", self._table.get_size_of_data,
                       _LAST if size < 0 else min(size, _LAST), byref(record))
            if record.contents.size == 0:
                return b""  # at the end, where a read would be answered with a failure
            start = record.contents.start
            buffer = ctypes.create_string_buffer(record.contents.size)
            self._call("read", self._table.read_data, record, len(buffer), buffer)
            return memoryview(buffer)[:self.position - start].tobytes()

    def frames(self) -> Iterator[Frame]:
        """The whole frames from the position on, in order; offset is the dictation position of each.
        What it reads moves the position, and it comes back to its own place for the next: seek and
        edit between the steps as you like, but what is in front of its place must not move."""
        reader, begin = FrameReader(), self.position
        place = begin
        while True:
            with _driver.lock:
                self.seek(place)
                piece = self.read(_PIECE)
                place = self.position
            for frame in reader.put(piece) if piece else reader.end():
                yield Frame(frame.data, begin + frame.offset, frame.is_info)
            if not piece:
                return

    # ---- Edits

    def insert(self, frames: Data) -> None:
        """Enters whole frames of the format of the file at the position, and moves it behind
        them. They are on the disk when this returns."""
        self._write("insert", _INSERT, frames)

    def overwrite(self, frames: Data) -> None:
        """As insert(); as many bytes behind them leave the dictation."""
        self._write("overwrite", _OVERWRITE, frames)

    def delete(self, length: int) -> None:
        """Takes up to so many bytes behind the position out of the dictation. Less than a frame
        before the end this does nothing."""
        self._call("delete", self._table.delete_data, min(not_negative(length), _LAST))

    def undo(self) -> None:
        """Brings back what the last delete took out."""
        self._call("undo", self._table.undo_last)

    def store(self) -> None:
        """Takes a snapshot of the edit state, one for each open file."""
        self._call("store", self._table.store_actual_file_status)

    def restore(self) -> None:
        """Goes back to the snapshot."""
        self._call("restore", self._table.restore_file_status)

    def warn_below(self, value: int) -> None:
        """Has a DISKSPACE_WARNING sent when a third of the free space above what the close needs is
        below so many bytes; 0 for none."""
        self._call("set warning", self._table.set_diskspace_warning_time,
                   min(not_negative(value), _LAST))

    # ---- Calls

    def _call(self, operation: str, slot: Callable[..., int], *arguments: object) -> None:
        with _driver.lock:
            check(operation, self.name, slot(self._open_handle(operation), *arguments))

    def _open_handle(self, operation: str) -> int:
        if self._handle is None:
            raise NotOpen(operation, self.name, Status.INVALID_HANDLE)
        return self._handle

    def _write(self, operation: str, method: int, frames: Data) -> None:
        data = bytes(check_data(frames))
        if len(data) > _LAST:
            check(operation, self.name, Status.INVALID_PARAMETER)
        try:
            self._call(operation, self._table.write_data, method, len(data), data)
        finally:
            while self._messages and self._on_message is not None:
                message, value = self._messages.pop(0)
                self._on_message(Message(message), value)


def open(path: str | os.PathLike[str], mode: Literal["r", "r+"] = "r", *,
         driver: _driver.Driver | None = None,
         on_message: Callable[[Message, int], object] | None = None) -> Dictation:
    """Opens an MP3 file with a constant bitrate: "r" to read it, "r+" to edit it, too. An open for
    writing finds the edits that a crash has left.

    Without a `driver` the one that Driver() finds is taken. `on_message` gets the messages about
    disk space, after the write that caused them and on its thread; what it raises, the write raises,
    and the bytes are in the dictation all the same.

        with xkivmp3.open("letter.mp3", "r+") as letter:
            letter.seek(letter.borders(24000).before)
            letter.insert(audio)
    """
    return Dictation(path, mode, _default_driver() if driver is None else driver, on_message)


@functools.cache
def _default_driver() -> _driver.Driver:
    return _driver.Driver()


def _to_driver(operation: str, name: str) -> bytes:
    """A path in the encoding that the driver takes: on Windows the code page of the process."""
    try:
        path = name.encode("mbcs") if os.name == "nt" else os.fsencode(name)
    except UnicodeEncodeError:
        raise InvalidPath(operation, name, Status.INVALID_PATH) from None
    if b"\0" in path:
        raise InvalidPath(operation, name, Status.INVALID_PATH)
    return path
