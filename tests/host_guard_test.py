"""What ffdhost does among others: users who may write in the same folder, files made to do harm,
and descriptors that lead nowhere. FFDHOST names the program, FFD_SAMPLES the directory of the
samples. Runs as root where a second user is needed."""

import json
import os
import pathlib
import resource
import shutil
import stat
import struct
import subprocess
import unittest

import sandbox
from sandbox import AS_ROOT, NOBODY, SAMPLES, Sandbox, entry

HOST = pathlib.Path(sandbox.HOST)
SOUND = sandbox.sample("speech-16k-mono")
EDITS = entry(1, 0, 9000)  # a .DIR file: of the audio the first 9000 bytes play
# A sanitizer takes address space of its own, and looks into /proc.
UNWATCHED = unittest.skipIf(b"__asan_" in HOST.read_bytes(), "under a sanitizer")


class GuardTest(Sandbox):
    def setUp(self):
        super().setUp()
        self.file = self.copy("speech-16k-mono", "a.mp3")

    # ---- Standard output ----

    def test_output_that_leads_nowhere(self):
        commands = (("info", "a.mp3"), ("map", "a.mp3"), ("check", "a.mp3"), ("recover", "a.mp3"),
                    ("--json", "info", "a.mp3"), ("read", "a.mp3"), ("--version",), ("--help",),
                    ("map", "a.mp3", "--svg", "-"), ("edit", "a.mp3", "delete", "500", "undo"),
                    ("check", "."), ("--json", "check", "."), ("edit", "--dry-run", "a.mp3", "show"),
                    ("record", "--help"), ("edit", "a.mp3", "show", "crash"),
                    ("--json", "edit", "a.mp3", "crash"), ("record", "a.mp3"))
        for command in commands:
            self.assertEqual(self.file.read_bytes(), SOUND)
            for how in ({"stdout": open("/dev/full", "w")},
                        {"stdout": None, "preexec_fn": lambda: os.close(1)}):
                with open(SAMPLES / "speech-16k-mono.mp3", "rb") as stream:
                    run = self.host(*command, code=1, stdin=stream, **how)
                self.assertIn(b"standard output", run.stderr, command)

    def test_missing_descriptors(self):
        expected = None
        for closed in ((), (0,), (2,), (0, 1, 2)):
            self.file.write_bytes(SOUND)
            self.host("edit", "a.mp3", "seek", "9000", "delete", "500", "show",
                      code=1 if 1 in closed else 0,
                      preexec_fn=lambda: [os.close(number) for number in closed])
            expected = expected or self.file.read_bytes()
            self.assertEqual(self.file.read_bytes(), expected, closed)
        self.assertNotEqual(expected, SOUND)

    # ---- What is read ----

    @UNWATCHED
    def test_memory(self):
        empty_tags = b"ID3\4\0\0\0\0\0\0" * 300_000
        ape_tags = struct.pack("<8s4I8x", b"APETAGEX", 2000, 32, 0, 0) * 100_000
        blocks = (16 << 20) // 12 - 1
        rows = (struct.pack("<3I", 1, at, at + 3) for at in range(3 * blocks, 0, -3))
        many = b"".join(rows) + bytes(16)
        for files in ({"c.mp3": empty_tags + SOUND + ape_tags}, {"c.mp3": SOUND, "c.DIR": many}):
            for name, content in files.items():
                (self.dir / name).write_bytes(content)
            limit = 1024 * 1024 * (64 + 16 * 16 * ("c.DIR" in files))
            left_out = blocks - 10_000 if "c.DIR" in files else None
            for command in (("check",), ("info",), ("map",), ("map", "--svg", "out"),
                            ("read", "-o", "out")):
                code = 1 if left_out and command == ("check",) else 0
                said = self.host("--json", *command, "c.mp3", code=code, preexec_fn=lambda: resource.setrlimit(
                    resource.RLIMIT_AS, (limit, limit))).stdout
                self.assertLess(len(said), 4_000_000)
                if command == ("info",):
                    for rows, more in (("in_front", 290_000), ("behind", 90_000)):
                        if not left_out:
                            self.assertEqual(json.loads(said)["files"][0][rows][10_000:], [{"left_out": more}])
                elif command == ("map",) and left_out:
                    self.assertEqual(json.loads(said)["blocks"][10_000:], [{"left_out": left_out}])
            text = self.host("map" if left_out else "info", "c.mp3").stdout
            self.assertIn(b"and %d more" % (left_out or 290_000), text)
            self.assertLess((self.dir / "out").stat().st_size, 250_000)

    @UNWATCHED
    @AS_ROOT
    def test_driver_without_proc(self):
        """The driver comes from beside the program, and never from the working directory."""
        root = self.dir / "root"
        libraries = [HOST.parent / "libxkivmp3.so", HOST.parent / "libxkivlog.so"]
        for library in subprocess.run(["ldd", HOST, *libraries], capture_output=True, text=True,
                                      check=True).stdout.split():
            if library.startswith("/") and ".so" in library and library[-1] != ":":
                place = root / library[1:]
                place.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(library, place)
        for folder, files in (("bin", [HOST]), ("work", libraries)):
            (root / folder).mkdir(parents=True, exist_ok=True)
            for path in files:
                shutil.copy(path, root / folder)
        shutil.copy(self.file, root / "work")

        def run(code):
            return self.host("info", "a.mp3", code=code, executable="/bin/ffdhost",
                             cwd=None, preexec_fn=lambda: (os.chroot(root), os.chdir("/work")))
        self.assertIn(b"ffdhost: /bin/libxkivmp3.so: ", run(1).stderr)
        for path in libraries:
            shutil.copy(path, root / "bin")
        run(0)

    # ---- What is made ----

    def test_outputs_are_as_private_as_the_dictation(self):
        for mode in (0o600, 0o640, 0o444, 0o666):
            self.file.write_bytes(SOUND)
            (self.dir / "a.DIR").write_bytes(EDITS)
            self.file.chmod(mode)
            (self.dir / "a.DIR").chmod(mode)
            for command in (("read", "a.mp3", "-o", "out"), ("map", "a.mp3", "--svg", "out"),
                            ("edit", "a.mp3", "read", "9", "out", "crash"),
                            ("recover", "--copy", "a.mp3")):
                # A crash leaves the .DIR file, for the recovery to take over.
                self.host(*command, code=3 if command[0] == "edit" else 0, umask=0)
                for made in ("out", "a.kept/a.mp3", "a.kept/a.DIR"):
                    if (self.dir / made).exists():
                        self.assertEqual(stat.S_IMODE((self.dir / made).stat().st_mode), mode, made)
                        (self.dir / made).unlink()
            kept = self.dir / "a.kept"
            self.assertEqual(kept.stat().st_mode & 0o022, 0)
            kept.rmdir()
            self.file.unlink()

    def test_parts_are_as_private_as_all_they_come_from(self):
        shutil.copy(self.file, self.dir / "b.mp3")
        for first, second, expected in ((0o640, 0o604, 0o600), (0o444, 0o666, 0o444)):
            self.file.chmod(first)
            (self.dir / "b.mp3").chmod(second)
            self.host("join", "--force", "out.mp3", "a.mp3", "b.mp3", umask=0)
            self.assertEqual(stat.S_IMODE((self.dir / "out.mp3").stat().st_mode), expected)
            self.host("split", "--force", "a.mp3", "1s", umask=0)
            self.assertEqual(stat.S_IMODE((self.dir / "a-2.mp3").stat().st_mode), first)

    def test_outputs_on_a_full_disk(self):
        (self.dir / "out").write_bytes(b"old")
        before = sorted(os.listdir(self.dir))
        for command in (("read", "a.mp3", "-o", "out"), ("map", "a.mp3", "--svg", "out"),
                        ("edit", "a.mp3", "read", "9s", "out"), ("split", "a.mp3", "1s"),
                        ("join", "--force", "out", "a.mp3"), ("record", "--new", "b.mp3")):
            with open(self.file, "rb") as stream:
                run = self.host(*command, code=1, stdin=stream, preexec_fn=lambda:
                                resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100)))
            self.assertIn(b"the output cannot be written: file too large", run.stderr, command)
            self.assertEqual((self.dir / "out").read_bytes(), b"old")
            self.assertEqual(sorted(os.listdir(self.dir)), before, command)

    @AS_ROOT
    def test_copies_give_no_rights_away(self):
        directory = self.dir / "a.DIR"
        for owner, mode, kept_mode in ((NOBODY, 0o6755, 0o644), (NOBODY, 0o4640, 0o640),
                                       (0, 0o2600, 0o600)):
            self.file.write_bytes(SOUND)
            directory.write_bytes(EDITS)
            os.chown(self.file, owner, owner)
            self.file.chmod(mode)
            self.host("recover", "--copy", "a.mp3")
            copy = (self.dir / "a.kept/a.mp3").stat()
            self.assertEqual((copy.st_uid, copy.st_gid, stat.S_IMODE(copy.st_mode)),
                             (owner, owner, kept_mode))
            shutil.rmtree(self.dir / "a.kept")
        # Who may read the dictation by its group only makes a copy that nobody else can read.
        os.chown(self.dir, NOBODY, NOBODY)
        self.file.write_bytes(SOUND)
        directory.write_bytes(EDITS)
        for path in (self.file, directory):
            os.chown(path, 0, 12345)
            path.chmod(0o660)
        self.host("recover", "--copy", "a.mp3", user=NOBODY, group=NOBODY, extra_groups=[12345])
        copy = (self.dir / "a.kept/a.mp3").stat()
        self.assertEqual((copy.st_uid, copy.st_gid, stat.S_IMODE(copy.st_mode)),
                         (NOBODY, 12345, 0o660))

    def test_copies_follow_no_link(self):
        secret = self.dir / "secret"
        secret.write_bytes(EDITS)
        link, sound = self.dir / "a.DIR", self.dir / "b.mp3"
        link.symlink_to(secret)
        sound.symlink_to("a.mp3")
        (self.dir / "b.DIR").write_bytes(EDITS)
        for name in ("a.mp3", "b.mp3"):
            run = self.host("recover", "--copy", name, code=1)
            self.assertEqual(list(self.dir.glob("*.kept*")), [], run.stderr)
        # A name that leads nowhere yet is taken, too.
        link.unlink()
        link.write_bytes(EDITS)
        (self.dir / "a.kept").symlink_to(self.dir / "nowhere")
        self.host("recover", "--copy", "a.mp3")
        self.assertEqual(sorted(os.listdir(self.dir / "a.kept1")), ["a.DIR", "a.mp3"])

    @AS_ROOT
    def test_nobody_leads_copies_elsewhere(self):
        """Whoever may write in the folder replaces that of the copies as soon as it is there."""
        victim = self.dir / "victim"
        victim.mkdir(mode=0o700)
        self.dir.chmod(0o777)
        self.file.write_bytes(SOUND * 2000)
        (self.dir / "a.DIR").write_bytes(EDITS)
        attack = "while ! mv a.kept away 2>/dev/null; do :; done; ln -s victim a.kept"
        attacker = subprocess.Popen(["sh", "-c", attack], cwd=self.dir, user=NOBODY, group=NOBODY)
        run = self.host("recover", "--copy", "a.mp3", code=1)
        attacker.wait()
        # What it meets depends on how far it was when the folder went.
        self.assertRegex(run.stderr, b"moved the folder away|replaced while|Not a directory")
        self.assertEqual(os.listdir(victim), [])
        self.assertEqual(os.listdir(self.dir / "away"), [])
        self.assertEqual((self.dir / "a.DIR").read_bytes(), EDITS)


if __name__ == "__main__":
    unittest.main()
