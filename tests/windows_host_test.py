"""The Windows host with names beyond ASCII under two code pages, and hosts in another folder than the
driver. WINDOWS_BUILD names the build directory, WINE the command that runs a program, FFD_SAMPLES the samples."""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["WINDOWS_BUILD"])
SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
GERMAN, JAPANESE = "Müller.mp3", "口述 表.mp3"  # the third letter ends in the byte of '\' in page 932


class HostTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        for name in (GERMAN, JAPANESE):
            shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", self.folder / name)
        for part, names in (("driver", ("XKIVMP3.dll", "XKIVLOG.dll")),
                            ("host", ("ffdhost.exe", "example_session_c.exe", "example_session_cpp.exe"))):
            (self.folder / part).mkdir()
            for name in names:
                shutil.copy(BUILD / name, self.folder / part)
        # As a Windows that knows no such setting has it.
        program = (BUILD / "ffdhost.exe").read_bytes()
        self.assertEqual(program.count(b"<activeCodePage "), 1)
        (self.folder / "host/old.exe").write_bytes(
            program.replace(b"<activeCodePage ", b"<inactiveCodePg ").replace(b"</activeCodePage>", b"</inactiveCodePg>"))
        for locale in ("de_DE.UTF-8", "ja_JP.UTF-8"):
            subprocess.run(["localedef", "-i", locale[:5], "-f", "UTF-8", self.folder / locale],
                           check=True, capture_output=True)

    def run_host(self, program, *arguments, locale="de_DE.UTF-8"):
        return subprocess.run([*os.environ["WINE"].split(";"), self.folder / "host" / program, *arguments],
                              cwd=self.folder, capture_output=True, text=True,
                              env={**os.environ, "LC_ALL": locale, "LOCPATH": str(self.folder)})

    def document(self, program, command, name, locale):
        run = self.run_host(program, "--driver", "driver/XKIVMP3.dll", "--json", command, name, locale=locale)
        document = json.loads(run.stdout)
        document = document.get("files", [document])[0]
        self.assertEqual(document["file"], name)
        return document

    def test_names(self):
        for locale in ("de_DE.UTF-8", "ja_JP.UTF-8"):
            for name in (GERMAN, JAPANESE):
                for command in ("info", "check", "map"):
                    with self.subTest(locale=locale, name=name, command=command):
                        self.assertIs(self.document("ffdhost.exe", command, name, locale)["ok"], True)
                with self.subTest(locale=locale, name=name, program="old"):
                    can = (locale, name) in (("de_DE.UTF-8", GERMAN), ("ja_JP.UTF-8", JAPANESE))
                    document = self.document("old.exe", "info", name, locale)
                    self.assertIs(document["ok"], can)
                    if not can:
                        self.assertIn("code page", document["failure"]["message"])

    def test_driver_in_a_folder_of_its_own(self):
        clip = str(SAMPLES / "insert-22k-mono.mp3")
        for program in ("example_session_c.exe", "example_session_cpp.exe"):
            shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", self.folder / "letter.mp3")
            run = self.run_host(program, "driver/XKIVMP3.dll", "letter.mp3", clip)
            self.assertEqual(run.returncode, 0, run.stderr)


if __name__ == "__main__":
    unittest.main()
