"""Whole MP3 frames out of bytes that come in pieces: for what goes into a dictation, and for the
places to edit at.

The rules are those of ffd_frames.h, told a second time: a header of C cannot be called without a
compiler. A test holds both against each other."""

from __future__ import annotations

import operator
import re
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import NamedTuple

__all__ = ["Borders", "Frame", "FrameReader", "find_borders", "frames"]

#: So many bytes in front of a position and behind it are enough to find its borders in.
BORDER_REACH = 8192

# kbit/s by bitrate index and Hz by sampling rate index, of MPEG 2 and 2.5 and of MPEG 1.
_BITRATES = ((0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160),
             (0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320))
_SAMPLING_RATES = ((22050, 24000, 16000), (44100, 48000, 32000))

_HEADER, _ID3V2_HEADER, _ID3V1, _APE_HEADER = 4, 10, 128, 32

Data = bytes | bytearray | memoryview


def check_data(data: Data) -> Data:
    """A number or a list of numbers would silently become bytes, too."""
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"{type(data).__name__}: frames are bytes, a bytearray or a memoryview")
    return data


def not_negative(value: int) -> int:
    """A position or a length."""
    value = operator.index(value)
    if value < 0:
        raise ValueError(f"{value}: positions and lengths are not negative")
    return value


@dataclass(frozen=True)
class Frame:
    """A whole frame."""

    data: bytes
    """The frame, with its header."""
    offset: int
    """Of its first byte: counted from the beginning of the stream, or the dictation position."""
    is_info: bool
    """Whether it is no audio but tells players the length of its file ("Xing", "Info", "VBRI").
    Leave such a frame out of what goes into another file."""

    @property
    def bitrate(self) -> int:
        """In kbit/s. All frames of a dictation must have the same."""
        return _bitrate(self.data, 0)

    @property
    def sampling_rate(self) -> int:
        """In Hz."""
        return _sampling_rate(self.data, 0)

    @property
    def channels(self) -> int:
        """1 or 2."""
        return _channels(self.data, 0)

    @property
    def seconds(self) -> float:
        """How long the frame plays."""
        return (1152 if _is_mpeg1(self.data, 0) else 576) / self.sampling_rate

    def same_kind(self, other: Frame) -> bool:
        """Whether the two can belong to one file: version, layer and sampling rate are the same.
        The bitrate may differ, and the driver refuses that at the next open."""
        return _same_kind(self.data, 0, other.data, 0)


class Borders(NamedTuple):
    """The borders of frames around a position."""

    before: int
    """The last one at or before the position."""
    behind: int
    """The first one at or behind it."""


class FrameReader:
    """Cuts a stream into frames. What is none is left out: tags, noise, a frame cut short."""

    def __init__(self) -> None:
        self._held = bytearray()
        self._begin = 0  # of what is not yet decided upon, in the bytes held
        self._offset = 0  # of the first byte held, in the stream
        self._skip = 0  # bytes of a tag that are still to come
        self._given = 0
        self._at_border = True

    def put(self, data: Data) -> Iterator[Frame]:
        """Takes the next bytes and gives the frames that are whole and borne out by what stands
        behind them. Run through it before the next call."""
        check_data(data)
        del self._held[:self._begin]
        self._offset += self._begin
        self._begin = 0
        self._held += data
        return self._run("goes on")

    def pause(self) -> Iterator[Frame]:
        """No bytes come for a while: a frame that is whole does not wait for them."""
        return self._run("pauses")

    def end(self) -> Iterator[Frame]:
        """No more bytes come."""
        return self._run("ends")

    def _run(self, how: str) -> Iterator[Frame]:
        while True:
            held, at = self._held, self._begin
            left = len(held) - at
            if self._skip and left:
                step = min(left, self._skip)
                self._skip -= step
                self._begin += step
                continue
            if left < _HEADER:
                if how == "ends":
                    self._begin = len(held)
                return
            if _is_header(held, at):
                decision = self._is_frame(how)
                if decision is None:
                    return
                if decision:
                    data = bytes(held[at:at + _length(held, at)])
                    is_info = _is_info(data) or (self._given == 0 and not any(data[_HEADER:]))
                    self._begin += len(data)
                    self._at_border = True
                    self._given += 1
                    yield Frame(data, self._offset + at, is_info)
                    continue
            elif left < _APE_HEADER and how != "ends":
                return  # it may be a tag
            else:
                self._skip = self._tag(at, left)
            if not self._skip:  # on to what may begin a frame or a tag
                self._at_border = False
                following = re.compile(b"[\xffI]").search(held, at + 1)
                self._begin = following.start() if following else len(held)

    def _is_frame(self, how: str) -> bool | None:
        """Whether the header at the beginning is that of a whole frame; None for not yet. Four bytes
        may look like one by chance, so the end of the frame must bear it out; where a frame is due
        less is asked."""
        held, at = self._held, self._begin
        left, length = len(held) - at, _length(held, at)
        is_due = self._at_border and self._given > 0
        if left >= length + _HEADER:
            if _goes_on(held, at, at + length):
                return True
            torn = self._is_torn(how) if is_due else True
            return None if torn is None else not torn
        if how == "goes on" or (how == "pauses" and (not is_due or left < length)):
            return None
        return left == length or (left > length and self._at_border)

    def _is_torn(self, how: str) -> bool | None:
        """Whether bytes went missing inside the frame at the beginning, whose end nothing follows:
        then the next one, of the same bitrate and followed itself, begins before that end."""
        held, at = self._held, self._begin
        for place in range(at + 1, min(at + _length(held, at), len(held) - _HEADER + 1)):
            if not (_is_header(held, place) and _same_kind(held, at, held, place)
                    and _bitrate(held, at) == _bitrate(held, place)):
                continue
            end = place + _length(held, place)
            if end + _HEADER > len(held):
                if how == "goes on":
                    return None
                if end == len(held):
                    return True
            elif _goes_on(held, place, end):
                return True
        return False

    def _tag(self, at: int, left: int) -> int:
        """The length of the tag at a place; 0 for none. Away from a border three letters are too
        little."""
        held = self._held
        if held[at] == ord("I") and left >= _ID3V2_HEADER:
            size = held[at + 6:at + 10]
            if (held[at:at + 3] != b"ID3" or held[at + 3] > 4 or held[at + 5] & 0x0F
                    or any(byte & 0x80 for byte in size)):
                return 0
            footer = _ID3V2_HEADER if held[at + 5] & 0x10 else 0
            return (size[0] << 21 | size[1] << 14 | size[2] << 7 | size[3]) + _ID3V2_HEADER + footer
        if not self._at_border or left < _APE_HEADER:
            return 0
        if held[at:at + 3] == b"TAG":
            return _ID3V1
        if held[at:at + 8] != b"APETAGEX":
            return 0
        return _APE_HEADER + (int.from_bytes(held[at + 12:at + 16], "little")
                              if held[at + 23] & 0x20 else 0)


def frames(pieces: Iterable[Data]) -> Iterator[Frame]:
    """The frames of a stream that comes in pieces of any size, as they become whole."""
    reader = FrameReader()
    for piece in pieces:
        yield from reader.put(piece)
    yield from reader.end()


def find_borders(data: Data, position: int) -> Borders:
    """The borders of frames around a position in MP3 data that may begin and end in the middle of
    frames. Where no frame is found the ends of the data count as borders."""
    position = not_negative(position)
    before, behind = 0, len(check_data(data))
    reader = FrameReader()
    reader._at_border = False
    reader._held += data
    for frame in reader.end():
        begin, end = frame.offset, frame.offset + len(frame.data)
        if begin <= position:
            before = begin
        if begin >= position:
            behind = begin
            break
        if end <= position:
            before = end
        if end >= position:
            behind = end
            break
    return Borders(before, behind)


# The fields of a frame header, four bytes at a place.

_Data = bytes | bytearray


def _is_header(data: _Data, at: int) -> bool:
    return (data[at] == 0xFF and data[at + 1] & 0xE0 == 0xE0 and data[at + 1] & 0x18 != 0x08
            and data[at + 1] & 0x06 != 0 and 0x10 <= data[at + 2] < 0xF0
            and data[at + 2] & 0x0C != 0x0C)


def _is_mpeg1(data: _Data, at: int) -> bool:
    return data[at + 1] & 0x08 != 0


def _bitrate(data: _Data, at: int) -> int:
    return _BITRATES[_is_mpeg1(data, at)][data[at + 2] >> 4]


def _sampling_rate(data: _Data, at: int) -> int:
    rate = _SAMPLING_RATES[_is_mpeg1(data, at)][data[at + 2] >> 2 & 3]
    return rate if data[at + 1] & 0x10 else rate // 2  # half of it for MPEG 2.5


def _channels(data: _Data, at: int) -> int:
    return 1 if data[at + 3] >> 6 == 3 else 2


def _length(data: _Data, at: int) -> int:
    factor = 144000 if _is_mpeg1(data, at) else 72000
    return _bitrate(data, at) * factor // _sampling_rate(data, at) + (data[at + 2] >> 1 & 1)


def _same_kind(one: _Data, at: int, other: _Data, there: int) -> bool:
    return (one[at] == other[there] and (one[at + 1] ^ other[there + 1]) & 0xFE == 0
            and (one[at + 2] ^ other[there + 2]) & 0x0C == 0)


def _goes_on(data: _Data, frame: int, behind: int) -> bool:
    """Whether a frame or a tag stands where a frame has ended."""
    return ((_is_header(data, behind) and _same_kind(data, frame, data, behind))
            or data[behind:behind + 3] in (b"ID3", b"TAG")
            or data[behind:behind + 4] in (b"APET", b"LYRI"))


def _is_info(frame: bytes) -> bool:
    if frame[1] & 0x06 != 0x02:  # Layer III
        return False
    is_mono = _channels(frame, 0) == 1
    offset = _HEADER + ((17 if is_mono else 32) if _is_mpeg1(frame, 0) else 9 if is_mono else 17)
    checksum = 0 if frame[1] & 1 else 2
    silence = frame[_HEADER + checksum:]
    place = len(frame) - len(silence.lstrip(b"\0"))
    word = frame[place:place + 4]
    return ((word == b"VBRI" and place == 36)
            or (word in (b"Xing", b"Info") and place in (offset, offset + checksum)))
