"""docs/json.md against what every command prints with --json, in both directions. FFDHOST names the
program, FFD_SAMPLES the directory of the samples."""

import json
import resource
import subprocess
import unittest

from json_page import Page
from sandbox import AUDIO, CLIP, HOST, TAGGED, Sandbox, entry, sample
from support_test import NAME, marker

COMMANDS = (  # files that are made, where they are not those of before; and the command
    ({"a.mp3": TAGGED, "clip.mp3": CLIP, "vbr.mp3": sample("speech-vbr")},
     "info a.mp3 none.mp3"), ({}, "bogus"), ({}, "check a.mp3 vbr.mp3"), ({}, "map a.mp3 --svg out"),
    ({}, "read a.mp3 -o out"), ({}, "edit a.mp3 seek none"), ({}, "edit none.mp3 show"),
    ({}, "recover a.mp3"), ({}, "recover none.mp3"), ({}, "check none.mp3"), ({}, "record --at 1s --length 1s a.mp3"),
    ({"wrong.mp3": sample("insert-44k-stereo")}, "record wrong.mp3"),
    ({}, "edit --dry-run --snap a.mp3 seek 100 insert clip.mp3 store delete 1s undo show crash"),
    ({}, "edit a.mp3 map seek 9000 insert clip.mp3 map seek 5 delete 1s undo delete 1s store delete 1s "
         "restore map read 99 out undo show"),
    ({}, "edit a.mp3 seek 9000 insert clip.mp3 seek 1s delete 5s crash"), ({}, "info a.mp3"),
    ({}, "map a.mp3"), ({}, "edit --dry-run a.mp3 show"), ({}, "check a.mp3"),
    ({}, "recover --copy a.mp3"), ({}, "recover a.mp3"),
    ({"a.mp3": AUDIO, "a.DIR": entry(1, 0, 8)[:-1], "1234567890.MP3": b"",
      "a.DIR.bad": b"", "a.CLM": b""}, "check a.mp3"),
    ({"x.DIR": b"x"}, "check x.mp3"), ({"a.CLM": b""}, "recover a.mp3"),
    ({"a.DIR": entry(1, 0, 900) + entry(3, 900, 80457)}, "map a.mp3"), ({}, "check a.mp3"),
    ({"a.DIR": entry(3, 0, 80457)}, "check a.mp3"),
    ({"a.DIR": b"", "a.mp3": b"\0" * 9}, "check a.mp3"),
    ({"a.mp3": AUDIO[:208] + b"noise" + AUDIO[:4] + bytes(9) + b"Info" + bytes(191) + AUDIO[:3] + b"\0"
      + AUDIO[4:208] + AUDIO[:99]}, "check a.mp3"),
    ({"a.mp3": AUDIO[:4] + bytes(9) + b"Info\0\0\0\1\0\0\0\1" + bytes(183) + AUDIO[208:]}, "check a.mp3"),
    ({"a.mp3": AUDIO[:4] + bytes(9) + b"Info" + bytes(191) + AUDIO[208:]}, "check a.mp3"),
    ({"a.mp3": AUDIO[:4] + bytes(9) + b"Info\0\0\0\3\0\0\0\1\0\0\0\1" + bytes(179) + AUDIO[208:]},
     "info a.mp3"), ({}, "edit a.mp3 show"), ({}, "record a.mp3"), ({}, "split a.mp3 1s"),
    ({}, "join new.mp3 a.mp3"), ({}, "join new.mp3 a.mp3"),
    ({"a.mp3": AUDIO}, "limited edit a.mp3 delete 1s insert clip.mp3"), ({}, "limited record a.mp3"),
    ({"b.DIR": entry(1, 0, 900), NAME: AUDIO, "b.CLM": marker(b"", AUDIO, "b.mp3")},
     "edit b.mp3 map"),
)


def limit():
    """Less than the sound file: a rebuild fails."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (70000, 70000))


class JsonTest(Sandbox):
    def run_host(self, command):
        _, limited, words = command.rpartition("limited ")
        said = subprocess.run([HOST, "--json", *words.split()], input=CLIP, cwd=self.dir,
                              capture_output=True, preexec_fn=limit if limited else None).stdout
        with self.subTest(command=command):
            self.page.check(json.loads(said))

    def test_page(self):
        self.page = Page()
        for files, command in COMMANDS:
            for name, data in files.items():
                (self.dir / name).write_bytes(data)
            self.run_host(command)
        self.busy("b.mp3")
        self.run_host("check b.mp3")
        self.assertEqual(self.page.unseen(), set())


if __name__ == "__main__":
    unittest.main()
