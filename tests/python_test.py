"""The Python module over the driver of this build, which XKIVMP3 names. FFD_SAMPLES names the
directory of the samples, FFD_HEADER the header that the module mirrors, FFD_FRAMES_CALLS a library
of the calls of another."""

import copy
import ctypes
import os
import pathlib
import pickle
import random
import re
import shutil
import subprocess
import sys
import threading

import pytest
import xkivmp3
from xkivmp3 import _driver

SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
SPEECH = "speech-22k-mono-tagged.mp3"  # tags of 202 and 128 bytes around 80457 of audio
CLIP = (SAMPLES / "insert-22k-mono.mp3").read_bytes()  # 16509 bytes


@pytest.fixture
def path(tmp_path):
    return shutil.copy(SAMPLES / SPEECH, tmp_path / "letter.mp3")


def test_session(path):
    before = path.read_bytes()
    with xkivmp3.open(path, "r+") as letter:
        assert letter.format == xkivmp3.Format(1, 22050, 8000, 208)
        assert (letter.length, letter.file_size, round(letter.seconds, 3)) == (80457, 80787, 10.057)
        assert letter.borders(8000) == (7941, 8150)
        assert letter.seek(7941) == letter.tell() == 7941
        letter.insert(CLIP)
        assert (letter.position, letter.length) == (7941 + 16509, 96966)
        letter.store()
        letter.delete(1000)
        letter.undo()
        letter.overwrite(memoryview(CLIP)[:209])
        assert letter.length == 96966
        letter.restore()
        letter.delete(2**40)
        assert (letter.length, letter.read(), letter.seek(2**40)) == (24450, b"", 24450)
        letter.undo()
        letter.seek(7941)
        assert letter.read(16509) == CLIP and letter.read(4) == before[202 + 7941:][:4]
    assert letter.closed and sorted(os.listdir(path.parent)) == ["letter.mp3"]
    assert path.read_bytes() == before[:202 + 7941] + CLIP + before[202 + 7941:]
    letter.close()


def test_frames(path):
    audio = path.read_bytes()[202:-128]
    with xkivmp3.open(path) as letter:
        frames = list(letter.frames())
        assert b"".join(frame.data for frame in frames) == audio
        assert [frame.offset for frame in frames[:3]] == [0, 208, 417]
        assert {(f.bitrate, f.sampling_rate, f.channels, f.is_info) for f in frames} == {
            (64, 22050, 1, False)}
        letter.seek(100)  # inside a frame
        assert next(letter.frames()) == frames[1]


def test_frames_are_those_of_the_header():
    """The module and ffd_frames.h hold the same rules twice: C cannot be called without a compiler."""
    header = ctypes.CDLL(os.environ["FFD_FRAMES_CALLS"])
    dice = random.Random(1)
    info = (CLIP[:4] + bytes(9) + b"Info").ljust(208, b"\0")
    samples = [path.read_bytes() for path in sorted(SAMPLES.glob("*.mp3"))]
    things = [b"\xff\xf3\x90", b"ID3\4\0\0\0\0\0\5hello", b"ID3\5\0\0\0\0\0\5", b"TAG", b"LYRICS",
              b"APETAGEX\xd0\7\0\0\x28\0\0\0\1\0\0\0\0\0\0" b"\xa0".ljust(9, b"\0"), info,
              CLIP[:4].ljust(208, b"\0"), b"TAG".ljust(128), dice.randbytes(300)]
    streams = [dice.randbytes(100_000), bytes(b & 3 | 0xfc for b in dice.randbytes(20_000)), *samples]
    for _ in range(80):
        cuts = [dice.choice(samples) for _ in range(3)]
        begins = [dice.randrange(len(cut)) for cut in cuts]
        streams.append(b"".join(dice.choice([cut[begin:begin + dice.randrange(3000)],
                                             dice.choice(things)])
                                for cut, begin in zip(cuts * 4, begins * 4)))
    for stream in streams:
        most = len(stream) // 24 + 1
        offsets, lengths, infos = ((kind * most)() for kind in (ctypes.c_uint64, ctypes.c_uint32, ctypes.c_int))
        for piece, how in (1, 2), (77, 1), (1000, 0), (10**6, 2), (10**6, 1):
            if piece == 1 and len(stream) > 20_000:
                continue
            count = header.frames_of(stream, ctypes.c_size_t(len(stream)), ctypes.c_size_t(piece), how, offsets,
                                     lengths, infos)
            expected = [(offsets[i], stream[offsets[i]:][:lengths[i]], bool(infos[i]))
                        for i in range(count)]
            reader = xkivmp3.FrameReader()
            found = [frame for at in range(0, len(stream), piece)
                     for frame in reader.put(stream[at:at + piece])]
            found += [[], reader.pause(), reader.end()][how]
            assert [(f.offset, f.data, f.is_info) for f in found] == expected
        borders = (ctypes.c_uint64 * 2)()
        for position in 0, len(stream), *(dice.randrange(len(stream) + 1) for _ in range(5)):
            header.borders_of(stream, ctypes.c_size_t(len(stream)), ctypes.c_size_t(position), borders)
            assert xkivmp3.find_borders(stream, position) == tuple(borders)


REFUSED = [
    (lambda path: xkivmp3.open(path.parent / "none.mp3"), xkivmp3.FileIOError, 29),
    (lambda path: xkivmp3.open(path.with_suffix(".DIR"), "r+"), xkivmp3.InvalidPath, 1),
    (lambda path: xkivmp3.open(f"{path}\0"), xkivmp3.InvalidPath, 1),
    (lambda path: xkivmp3.open(shutil.copy(__file__, path.with_name("text.mp3"))), xkivmp3.NoFrames, 9),
    (lambda path: xkivmp3.open(SAMPLES / "speech-vbr.mp3"), xkivmp3.NotSupported, 19),
    (lambda path: xkivmp3.open(path).insert(CLIP), xkivmp3.ReadOnly, 34),
    (lambda path: xkivmp3.open(path, "r+").undo(), xkivmp3.NothingToUndo, 24),
    (lambda path: xkivmp3.open(path, "r+").restore(), xkivmp3.NoStoredStatus, 33),
]


@pytest.mark.filterwarnings("ignore::ResourceWarning")
@pytest.mark.parametrize("step, kind, status", REFUSED)
def test_refusals(path, step, kind, status):
    with pytest.raises(kind) as caught:
        step(path)
    error = caught.value
    assert error.status == status and error.advice == xkivmp3.Status(status).advice
    assert all(part in str(error) for part in (error.filename, f", {status})", error.advice))
    assert ".mp3" in error.filename or ".DIR" in error.filename
    assert str(pickle.loads(pickle.dumps(error))) == str(error)


def test_uses_that_no_status_stands_for(path):
    letter = xkivmp3.open(os.fsencode(path), "r+")
    copies = [copy.copy, copy.deepcopy, pickle.dumps]  # of a handle, whose end would end it for both
    counts = [letter.seek, letter.delete, letter.borders, letter.warn_below,
              lambda position: xkivmp3.find_borders(CLIP, position)]
    uses = [letter.insert, letter.overwrite, letter.read, *counts, xkivmp3.FrameReader().put,
            lambda data: xkivmp3.find_borders(data, 0), lambda data: list(xkivmp3.frames([data])),
            xkivmp3.Driver, xkivmp3.open, lambda driver: xkivmp3.open(path, driver=driver),
            lambda listener: xkivmp3.open(path, on_message=listener)]
    for kind, argument, calls in ((TypeError, 1.5, uses), (TypeError, [1, 2], uses),
                                  (TypeError, 1000, uses[:2]), (ValueError, -1, counts),
                                  (TypeError, letter, copies), (TypeError, xkivmp3.Driver(), copies),
                                  (ValueError, "w", [lambda mode: xkivmp3.open(path, mode)])):
        for call in calls:
            with pytest.raises(kind):
                call(argument)
    assert (letter.name, letter.position, letter.length) == (str(path), 0, 80457)
    letter.close()
    for call in (letter.read, letter.__enter__, lambda: next(letter.frames()), lambda: letter.seek(0),
                 lambda: letter.length, lambda: letter.borders(0), lambda: letter.insert(CLIP)):
        with pytest.raises(xkivmp3.NotOpen):
            call()


def test_a_close_that_fails_and_one_that_is_forgotten(path):
    os.link(path, other := path.with_name("other.mp3"))
    with xkivmp3.open(other, "r+"):
        with pytest.raises(xkivmp3.FileIOError, match="letter.mp3: close"):
            with xkivmp3.open(path, "r+") as letter:
                letter.insert(CLIP)
    assert letter.closed and path.with_suffix(".DIR").exists()
    with pytest.warns(ResourceWarning, match="letter.mp3: not closed"):
        assert xkivmp3.open(path, "r+").length == 96966
    assert not path.with_suffix(".DIR").exists()


def test_one_call_at_a_time(path):
    with xkivmp3.open(path) as letter:
        other = threading.Thread(target=letter.tell)
        with _driver.lock:  # as in the middle of a call
            other.start()
            other.join(0.1)
            assert other.is_alive()
        other.join()


def test_messages(path, tmp_path):
    (disk := tmp_path / "disk").mkdir()
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=40m", "none", disk]).returncode != 0:
        pytest.skip("no small disk can be mounted")
    told = []

    def listen(message, value):
        told.append((message, value))
        if letter.position == 3 * len(CLIP):  # the write is done, and slots may be called
            raise InterruptedError

    try:
        with xkivmp3.open(shutil.copy(path, disk), "r+", on_message=listen) as letter:
            letter.insert(CLIP)
            assert told == []
            letter.warn_below(2**30)
            letter.insert(CLIP)
            assert told[0][0] == xkivmp3.Message.DISKSPACE_WARNING and 2**23 < told[0][1] < 2**24
            (disk / "more").write_bytes(bytes(31_500_000))
            with pytest.raises(InterruptedError):
                letter.insert(CLIP)
            assert told[1:] == [(xkivmp3.Message.OUT_OF_DISKSPACE, 2**30)]
            assert letter.length == 80457 + 3 * len(CLIP)
    finally:
        subprocess.run(["umount", disk], check=True)


def test_it_mirrors_the_header():
    header = pathlib.Path(os.environ["FFD_HEADER"]).read_text().replace("\\\n", "\n")
    texts = r'((?:"[^"]*"\s*)+)'
    words = {name: tuple("".join(re.findall(r'"([^"]*)"', text)) for text in rest)
             for name, *rest in re.findall(rf"X\(FFD_(\w+),\s*{texts},\s*{texts}\)", header)}
    codes = dict(re.findall(r"#define FFD_(\w+) UINT64_C\((\d+)\)", header))
    assert {s.name: (str(s.value), s.meaning, s.advice) for s in xkivmp3.Status} == {
        name: (code, *words[name]) for name, code in codes.items()}
    assert [name for name, _ in _driver.Table._fields_] == re.findall(
        r"^ +\S+ (\w+); +/\*\*< slot \d+", header, re.M)
    assert [ctypes.sizeof(kind) for kind in (_driver.Table, _driver.CallbackParams,
                                             _driver.ReadHandle, _driver.WaveFormat)] == [
        192, 32, 16, 30]


def test_where_the_driver_is_looked_for(tmp_path):
    library = pathlib.Path(os.environ["XKIVMP3"])
    module = pathlib.Path(xkivmp3.__file__).parent

    def load(where, argument="", **environment):
        environment = {"PYTHONPATH": str(where), "PATH": os.environ["PATH"], **environment}
        script = f"import xkivmp3; print(xkivmp3.Driver({argument}).path)"
        run = subprocess.run([sys.executable, "-c", script], cwd=library.parent, env=environment,
                             capture_output=True, text=True)
        return run.stdout.strip() or run.stderr.strip().splitlines()[-1]

    beside = shutil.copytree(module, tmp_path / "xkivmp3")
    for name in (library.name, "libxkivlog.so"):
        shutil.copy(library.parent / name, beside)
    assert load(tmp_path) == str(beside / library.name)
    assert load(tmp_path, XKIVMP3=str(library)) == str(library)
    assert load(module.parent, repr(os.path.join(".", library.name))) == str(library)
    for answer in (load(module.parent), load(module.parent, repr(library.name)),
                   load(module.parent, XKIVMP3=os.path.join(".", library.name)),
                   load(module.parent, "'libc.so.6'"), load(module.parent, "'/none.so'")):
        assert "LoadError" in answer, answer
