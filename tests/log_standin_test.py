"""A log library of somebody else's, with the seven operations alone, in the place of the own one: it
gets every call that a log of everything has as a line. FFDHOST names the host, STANDIN_DIRECTORY the
folder of that library, FFD_SAMPLES the samples."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])


class StandinTest(unittest.TestCase):
    def kinds(self, column, **variables):
        """The kinds of the calls of a session in their order, from this column of the log."""
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", folder / "a.mp3")
            log = folder / "log"
            environment = {**os.environ, "TMPDIR": str(folder), "XKIVLOG": f"all:{log}",
                           "STANDIN": str(log), **variables}
            subprocess.run([os.environ["FFDHOST"], "edit", "a.mp3", "seek", "1s", "delete", "2s",
                            "undo", "store", "delete", "1s", "read", "1s", "part"], cwd=folder,
                           env=environment, check=True, capture_output=True)
            return [line.split()[column] for line in log.read_text().splitlines()]

    def test_every_call_arrives(self):
        own = self.kinds(2)
        standin = self.kinds(0, LD_LIBRARY_PATH=os.environ["STANDIN_DIRECTORY"])
        self.assertGreater(len(own), 1000)
        self.assertEqual(own, standin)


if __name__ == "__main__":
    unittest.main()
