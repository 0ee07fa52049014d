"""Runs each example on copies of the samples: all print the same lengths and leave the same file. Runs
the session that README.md shows: ffdhost says what stands there. EXAMPLES holds the commands, one a line,
their words set apart by "|"; FFD_SAMPLES names the directory of the samples, HOST that of ffdhost, if
that is to be run."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
# The 80457 bytes of the sound and the 16509 of the clip; the frames that begin and end within two
# seconds have 15882.
SHOWN = ("opened   80457 bytes\ninserted 96966 bytes\n"
         "deleted  81084 bytes\nundone   96966 bytes\n")
BORDER = 7941  # the last one at or before the first second, which has 8000 bytes


class ExamplesTest(unittest.TestCase):
    def test_sessions(self):
        for line in os.environ["EXAMPLES"].splitlines():
            command = line.strip("|").split("|")
            with self.subTest(command=command), tempfile.TemporaryDirectory() as folder:
                folder = pathlib.Path(folder)
                sound = shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", folder / "letter.mp3")
                clip = folder / "stream.mp3"
                before = pathlib.Path(sound).read_bytes()
                added = (SAMPLES / "insert-22k-mono.mp3").read_bytes()
                info = (added[:4] + bytes(9) + b"Info").ljust(208, b"\0")
                clip.write_bytes(before[:202] + info + added + before[-128:])  # with tags
                run = subprocess.run([*command, sound, clip], capture_output=True,
                                     text=True)
                self.assertEqual((run.returncode, run.stdout), (0, SHOWN), run.stderr)
                self.assertEqual(sorted(os.listdir(folder)), ["letter.mp3", "stream.mp3"])
                after = pathlib.Path(sound).read_bytes()
                cut = 202 + BORDER  # the tags have 202 and 128 bytes
                self.assertEqual(after, before[:cut] + added + before[cut:])
                for files in (folder / "none.mp3", clip), (sound, folder / "none.mp3"):
                    missing = subprocess.run([*command, *files], capture_output=True, text=True)
                    self.assertEqual(missing.returncode, 1)
                    self.assertIn("none.mp3", missing.stderr)

    @unittest.skipUnless(os.environ.get("HOST"), "no ffdhost of this machine")
    def test_readme(self):
        page = (SAMPLES.parent.parent / "README.md").read_text()
        session = re.search(r"^```\n(\$ .*?)^```$", page, re.S | re.M)[1]
        with tempfile.TemporaryDirectory() as folder:
            os.symlink(SAMPLES.parent, pathlib.Path(folder, "tests"))
            for command, shown in re.findall(r"^\$ (.*\n)((?:[^$].*\n)*)", session, re.M):
                run = subprocess.run(command, shell=True, cwd=folder, text=True, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, env={
                                         "PATH": f"{os.environ['HOST']}:{os.environ['PATH']}"})
                self.assertEqual(run.stdout, shown, command)


if __name__ == "__main__":
    unittest.main()
