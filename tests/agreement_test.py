"""One session of edits with a crash, its recovery, store, restore, tags and a rebuild, by the Linux
and by the Windows build of the host on copies of the same file: outputs, exit codes, files and the trace
are the same at every step. LINUX_HOST and WINDOWS_HOST (a command) name the two, WINE_PREFIX wine's
folder, FFD_SAMPLES the samples."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
WINDOWS_TEMP = "drive_c/users/*/Temp"
# What differs from run to run: time and process, addresses, handles, names made of the time; and
# the directories of the system.
LOCAL = re.compile(r"(?m)^\S+ \S+ |(?<= = )0x[0-9a-f]{5,}$"
                   r"|((?:rhFile_p|hNewFile|hSourceFile|hDestFile|m_psDirHeader) = ).*"
                   r"|\d{10}(?=\.csf|\.MP3)|/etc(?=/XKIV)|C:/windows/system32(?=/XKIV)"
                   r"|C:/users/[^/]+/Temp(?=/)")


class Side:
    def __init__(self, command, folder, temp):
        self.command, self.folder, self.temp = command, folder, temp
        shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", folder / "a.mp3")
        shutil.copy(SAMPLES / "insert-22k-mono.mp3", folder / "clip.mp3")
        shutil.copy(SAMPLES / "speech-vbr.mp3", folder / "vbr.mp3")
        speech = (SAMPLES / "speech-22k-mono-tagged.mp3").read_bytes()
        (folder / "info.mp3").write_bytes(speech[:206] + bytes(9) + b"Info\0\0\0\3\0\0\0\1\0\0\0\1"
                                          + bytes(179) + speech[410:])

    def run(self, *arguments):
        """What the step showed, and what lies on the disk behind it."""
        environment = {**os.environ, "TMPDIR": str(self.folder), "XKIVLOG": "all:trace.log"}
        run = subprocess.run([*self.command, "--json", *arguments], cwd=self.folder,
                             env=environment, capture_output=True)
        output = self.without_places(run.stdout.decode().replace("\\\\", "/"))
        output = re.sub(r'(?<="free_bytes": )\d+', "", output)
        log = self.folder / "trace.log"
        trace = self.without_places(log.read_text().replace("\\", "/"))
        log.unlink()
        files = {path.name: path.read_bytes() for path in self.folder.iterdir()
                 if path.is_file() and path.suffix != ".csf"}
        stored = []
        for path in self.temp():
            stored.append(path.read_bytes())
            path.unlink()
        return run.returncode, output, files, stored, LOCAL.sub(r"\1", trace).splitlines()

    def without_places(self, text):
        return text.replace("\r\n", "\n").replace("Z:", "").replace(str(self.folder), "")


class AgreementTest(unittest.TestCase):
    maxDiff = None

    def test_session(self):
        with tempfile.TemporaryDirectory() as linux, tempfile.TemporaryDirectory() as windows:
            linux, windows = pathlib.Path(linux), pathlib.Path(windows)
            prefix = pathlib.Path(os.environ["WINE_PREFIX"])
            sides = [
                Side([os.environ["LINUX_HOST"]], linux, lambda: linux.glob("*.csf")),
                Side(os.environ["WINDOWS_HOST"].split(";"), windows,
                     lambda: prefix.glob(WINDOWS_TEMP + "/*.csf")),
            ]
            sides[1].run("info", "a.mp3")  # wine makes its folder
            for path in prefix.glob(WINDOWS_TEMP + "/*.csf"):
                path.unlink()
            steps = [
                (0, "info", "a.mp3"),
                (3, "edit", "a.mp3", "seek", "10000", "insert", "clip.mp3", "map", "crash"),
                (0, "map", "a.mp3"),
                (0, "info", "a.mp3"),
                (3, "edit", "a.mp3", "seek", "1s", "delete", "2s", "store", "undo", "seek", "0",
                 "overwrite", "clip.mp3", "restore", "show", "map", "read", "4000", "out.bin",
                 "delete", "1s", "crash"),
                (3, "edit", "a.mp3", "show", "undo", "seek", "end", "insert", "clip.mp3", "store",
                 "crash"),
                (1, "edit", "a.mp3", "restore"),
                (0, "edit", "a.mp3", "map", "seek", "500", "delete", "10000", "show"),
                (0, "info", "a.mp3"),
                (0, "edit", "a.mp3", "seek", "end", "insert", "clip.mp3"),
                (0, "map", "a.mp3"),
                (1, "info", "vbr.mp3"),
                (1, "info", "missing.mp3"),
                (1, "info", "missing/a.mp3"),
                (1, "edit", "a.DIR", "show"),
                (0, "recover", "--info-frame", "info.mp3"),
                (0, "split", "info.mp3", "2s", "end-1s"),
                (1, "split", "info.mp3", "2s"),
                (0, "join", "--force", "clip.mp3", "info-1.mp3", "info-2.mp3", "info-3.mp3"),
                (1, "join", "clip.mp3", "a.mp3"),
            ]
            stored = 0
            for code, *arguments in steps:
                with self.subTest(arguments=arguments):
                    left, right = (side.run(*arguments) for side in sides)
                    self.assertEqual(left[0], code, left[1])
                    self.assertEqual(right[1], left[1])
                    self.assertEqual(right[0], code)
                    self.assertEqual(right[2].keys(), left[2].keys())
                    self.assertEqual([n for n in left[2] if left[2][n] != right[2][n]], [])
                    self.assertEqual(right[3], left[3])
                    different = [pair for pair in zip(left[4], right[4]) if pair[0] != pair[1]]
                    self.assertEqual(different[:5], [])
                    self.assertEqual(len(left[4]), len(right[4]))
                    stored += len(left[3])
            self.assertEqual(stored, 2)


if __name__ == "__main__":
    unittest.main()
