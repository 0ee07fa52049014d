"""What the tests of ffdhost share: the samples, a folder for each test, and the program run in it. FFDHOST
names the program, FFD_SAMPLES the directory of the samples."""

import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import unittest

HOST = os.environ["FFDHOST"]
SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
NOBODY = 65534  # another user, for tests that run as root
AS_ROOT = unittest.skipUnless(os.geteuid() == 0, "needs a second user")


def sample(name):
    return (SAMPLES / f"{name}.mp3").read_bytes()


TAGGED = sample("speech-22k-mono-tagged")
HEAD, AUDIO, TAIL = TAGGED[:202], TAGGED[202:-128], TAGGED[-128:]  # the tags around its frames
CLIP = sample("insert-22k-mono")  # of the same format, without tags


def frames_of(audio, least=208):
    """Frames of one bitrate, with the padding that each tells of; 208: of the speech above."""
    place = 0
    while place < len(audio):
        assert audio[place] == 0xFF, place
        following = place + least + (audio[place + 2] >> 1 & 1)
        yield audio[place:following]
        place = following


def entry(status, start, end, reserved=0):
    """One of a .DIR file."""
    return struct.pack("<BBHII", status, reserved, 0, start, end)


class Sandbox(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.dir = pathlib.Path(temporary.name)
        self.dir.chmod(0o755)

    def copy(self, name, new_name):
        return pathlib.Path(shutil.copy(SAMPLES / f"{name}.mp3", self.dir / new_name))

    def host(self, *arguments, code=0, **options):
        """Runs the program, which must end with this exit code."""
        options = {"cwd": self.dir, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": 120,
                   **options}
        run = subprocess.run([HOST, *map(str, arguments)], **options)
        self.assertEqual(run.returncode, code, run)
        return run

    def busy(self, name):
        """A recorder that has the file open."""
        recorder = subprocess.Popen([HOST, "record", name], cwd=self.dir, stdin=subprocess.PIPE,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(recorder.communicate)
        while not (self.dir / name).with_suffix(".DIR").exists():
            self.assertIsNone(recorder.poll())
        return recorder
