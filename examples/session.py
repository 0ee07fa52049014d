"""session.py DRIVER SOUND CLIP: the session of session.c, in Python and its ctypes alone:

    python3 examples/session.py build/libxkivmp3.so letter.mp3 addition.mp3
"""

import ctypes
import os
import sys
from ctypes import POINTER, Structure, byref, c_char_p, c_uint32, c_uint64, c_void_p

READ, READ_WRITE, OPEN_EXISTING, INSERT, END = 1, 2, 2, 1, 0xFFFFFFFF


class CallbackParams(Structure):
    _fields_ = [("hDriver", c_void_p), ("dwCallback", c_uint64), ("dwHostValue", c_uint32),
                ("dwPadding", c_uint32), ("dwUser", c_uint64)]


class ReadHandle(Structure):
    _fields_ = [(name, c_uint32) for name in ("size", "valid", "start", "end")]


class Driver:
    """The slots that this session has a use for, with the types of ffd.h."""

    def __init__(self, library):
        if os.name == "nt":  # a whole path, so that the driver's own folder is searched, too
            library = os.path.abspath(library)
        table = (c_void_p * 24).in_dll(ctypes.CDLL(library), "FFD_Function_Table")

        def slot(number, *arguments, result=c_uint64):
            return ctypes.CFUNCTYPE(result, c_void_p, *arguments)(table[number])

        self.get_size_of_data = slot(4, c_uint32, POINTER(POINTER(ReadHandle)))
        self.seek = slot(10, c_uint32, POINTER(c_uint32))
        self.close = slot(12)
        self.read = slot(14, POINTER(ReadHandle), c_uint32, c_char_p)
        self.write = slot(15, c_uint32, c_uint32, c_char_p)
        self.delete = slot(16, c_uint32)
        self.undo = slot(17)
        self.get_wfx = slot(20, c_char_p, c_uint32)
        self.create_file = ctypes.CFUNCTYPE(
            c_void_p, c_char_p, c_uint32, c_uint32, c_void_p, CallbackParams, POINTER(c_uint64),
            c_void_p)(table[13])

    def open(self, path, access):
        status = c_uint64()
        callback = CallbackParams(hDriver=1)  # must not be null
        sound = self.create_file(os.fsencode(path), access, OPEN_EXISTING, None, callback,
                                 byref(status), None)
        check(path, status.value)
        return sound


def check(what, status):
    if status:
        sys.exit(f"{what}: status {status}")


def main(library, path, clip_path):
    driver = Driver(library)

    clip = driver.open(clip_path, READ)
    rest = POINTER(ReadHandle)()
    check("size", driver.get_size_of_data(clip, END, byref(rest)))
    audio = ctypes.create_string_buffer(rest.contents.size)
    check("read", driver.read(clip, rest, len(audio), audio))
    check("close", driver.close(clip))

    sound = driver.open(path, READ_WRITE)
    wfx = ctypes.create_string_buffer(30)
    check("format", driver.get_wfx(sound, wfx, len(wfx)))
    second = int.from_bytes(wfx.raw[8:12], "little")

    def show(what):
        end = c_uint32()
        check("seek", driver.seek(sound, END, byref(end)))
        check("seek", driver.seek(sound, position, byref(c_uint32())))
        print(f"{what:9}{end.value} bytes")

    position = second
    show("opened")
    check("insert", driver.write(sound, INSERT, len(audio), audio))
    position += len(audio)
    show("inserted")
    check("delete", driver.delete(sound, 2 * second))
    show("deleted")
    check("undo", driver.undo(sound))
    show("undone")
    check("close", driver.close(sound))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit("usage: session.py DRIVER SOUND CLIP")
    main(*sys.argv[1:])
