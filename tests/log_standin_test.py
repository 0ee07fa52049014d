"""A log library of somebody else's, with the seven operations alone, in the place of the own one: it
gets every call that a log of everything has as a line, and what it does to errno changes nothing. FFDHOST names the host, STANDIN_DIRECTORY the
folder of that library, FFD_SAMPLES the samples."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])


class StandinTest(unittest.TestCase):
    def session(self, temporary, **variables):
        """What a session prints and leaves, and the lines of its log in words."""
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", folder / "a.mp3")
            log = folder / "log"
            environment = {**os.environ, "TMPDIR": str(folder / temporary),
                           "XKIVLOG": f"all:{log}", "STANDIN": str(log), **variables}
            done = subprocess.run([os.environ["FFDHOST"], "edit", "a.mp3", "seek", "1s", "delete",
                                   "2s", "undo", "delete", "1s", "read", "1s", "part", "store"],
                                  cwd=folder, env=environment, capture_output=True)
            lines = [line.split() for line in log.read_text().splitlines()]
            log.unlink()
            files = {file.name: file.read_bytes() for file in folder.iterdir()}
            return (done.returncode, done.stdout, done.stderr, files), lines

    def test_every_call_arrives_and_decides_nothing(self):
        for temporary, code in (("missing", 1), (".", 0)):
            own, lines = self.session(temporary)
            standin, kinds = self.session(temporary, LD_LIBRARY_PATH=os.environ["STANDIN_DIRECTORY"])
            self.assertEqual(own, standin)
            self.assertEqual(own[0], code)
            self.assertGreater(len(lines), 1000)
            self.assertEqual([line[2] for line in lines], [line[0] for line in kinds])
        entered = {line[5].lstrip("-") for line in lines if line[2] == "ENTRY"}
        self.assertLess({"CKivDirFile::get_dir_header()", "CKivDirFile::is_read_only()",
                         "CKivDirFile::get_data_length()", "PtrdiffTToDWord(.)"}, entered)


if __name__ == "__main__":
    unittest.main()
