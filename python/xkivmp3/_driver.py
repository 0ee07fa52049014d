"""The driver, loaded, and its table of slots."""

from __future__ import annotations

import ctypes
import os
import pathlib
import sys
import threading
from collections.abc import Iterator
from ctypes import (CFUNCTYPE, POINTER, Structure, c_char_p, c_size_t, c_uint16, c_uint32, c_uint64,
                    c_void_p)
from typing import NoReturn

_ON_WINDOWS = sys.platform == "win32"
# This module speaks both: from 0 to 1 nothing that it uses has changed.
_NAMES = ("XKIVMP3.dll",) if _ON_WINDOWS else ("libxkivmp3.so.1", "libxkivmp3.so.0", "libxkivmp3.so")


class ReadHandle(Structure):
    """FFDReadHandle."""

    _fields_ = [("size", c_uint32), ("valid", c_uint32), ("start", c_uint32), ("end", c_uint32)]


class CallbackParams(Structure):
    """FFDCallbackParams."""

    _fields_ = [("hDriver", c_void_p), ("dwCallback", c_uint64), ("dwHostValue", c_uint32),
                ("dwPadding", c_uint32), ("dwUser", c_uint64)]


class WaveFormat(Structure):
    """MPEGLAYER3WAVEFORMAT, of 30 bytes."""

    _pack_ = 1
    _fields_ = [("wFormatTag", c_uint16), ("nChannels", c_uint16), ("nSamplesPerSec", c_uint32),
                ("nAvgBytesPerSec", c_uint32), ("nBlockAlign", c_uint16),
                ("wBitsPerSample", c_uint16), ("cbSize", c_uint16), ("wID", c_uint16),
                ("fdwFlags", c_uint32), ("nBlockSize", c_uint16), ("nFramesPerBlock", c_uint16),
                ("nCodecDelay", c_uint16)]


#: FFDCallbackProc
CallbackProc = CFUNCTYPE(None, c_void_p, c_uint32, c_size_t, c_size_t, c_size_t)


def _of_file(*arguments: object) -> object:
    return CFUNCTYPE(c_uint64, c_void_p, *arguments)  # type: ignore[arg-type]


_NUMBER = POINTER(c_uint32)


class Table(Structure):
    """FFDTable: the slots in the order of their numbers. Those that this module has no use for are
    plain pointers."""

    _fields_ = [
        ("get_current_pos", _of_file(_NUMBER)),
        ("get_dictation_file_size", _of_file(_NUMBER)),
        ("get_granularity_size", c_void_p),
        ("get_audio_info", c_void_p),
        ("get_size_of_data", _of_file(c_uint32, POINTER(POINTER(ReadHandle)))),
        ("get_file_name", c_void_p),
        ("get_file_path", c_void_p),
        ("get_sound_data_length", c_void_p),
        ("set_diskspace_warning_time", _of_file(c_uint32)),
        ("set_callback_address", c_void_p),
        ("audio_seek", _of_file(c_uint32, _NUMBER)),
        ("save_as", c_void_p),
        ("close", _of_file()),
        ("create_file", CFUNCTYPE(c_void_p, c_char_p, c_uint32, c_uint32, c_void_p, CallbackParams,
                                  POINTER(c_uint64), c_void_p)),
        ("read_data", _of_file(POINTER(ReadHandle), c_uint32, c_char_p)),
        ("write_data", _of_file(c_uint32, c_uint32, c_char_p)),
        ("delete_data", _of_file(c_uint32)),
        ("undo_last", _of_file()),
        ("store_actual_file_status", _of_file()),
        ("restore_file_status", _of_file()),
        ("get_wfx", _of_file(POINTER(WaveFormat), c_uint32)),
        ("get_download_length", c_void_p),
        ("reserved", c_void_p),
        ("get_dss_encrypted", c_void_p)]


class LoadError(Exception):
    """The driver could not be found or loaded."""


#: The table takes one call at a time, whatever number of files and threads there is.
lock = threading.RLock()


class NotCopied:
    """What stands for something outside of Python. The end of a copy would end it for both: the
    driver gives the number of a closed handle to the next file."""

    def __reduce__(self) -> NoReturn:  # copies go through it, too
        raise TypeError(f"{self!r} cannot be copied or pickled")


class Driver(NotCopied):
    """The loaded driver. It stays loaded until the process ends.

    `library` is a path, or a bare name that the system looks for. Without it the driver is what the
    environment variable XKIVMP3 names, by a whole path; else it lies beside this module; else the
    system's loader finds it. The working directory is never searched.
    """

    def __init__(self, library: str | os.PathLike[str] | None = None) -> None:
        self.path, loaded = _load(_places(library))
        try:
            self.table = Table.in_dll(loaded, "FFD_Function_Table")
        except ValueError as error:
            raise LoadError(f"{self.path}: is no such driver: {error}") from None
        if not self.table.create_file:
            raise LoadError(f"{self.path}: is no such driver: its table is not filled")


def _places(library: str | os.PathLike[str] | None) -> Iterator[str]:
    """What is tried, in this order."""
    if library is not None:
        name = os.fsdecode(library)
        yield os.path.abspath(name) if os.path.dirname(name) else name
        return
    named = os.environ.get("XKIVMP3")
    if named:
        if not os.path.isabs(named):
            raise LoadError(f"{named}: the environment variable XKIVMP3 must give a whole path")
        yield named
        return
    beside = [path for path in map(pathlib.Path(__file__).resolve().parent.joinpath, _NAMES)
              if path.exists()]
    yield from map(str, beside[:1]) if beside else _NAMES


def _load(places: Iterator[str]) -> tuple[str, ctypes.CDLL]:
    reasons = []
    for place in places:
        try:
            # On Windows a whole path has the folder of the driver searched for its trace library,
            # and a bare name neither the working directory nor PATH.
            return place, ctypes.CDLL(place)
        except OSError as error:
            reasons.append(f"{place}: {error}")
    raise LoadError("the driver cannot be loaded; install it, or give its path: "
                    + "; ".join(reasons))
