"""What users get for inputs that are not as they should be, and for more than one. FFDHOST names the
program, FFD_SAMPLES the directory of the samples. Runs as root where a second user is needed."""

import json
import os
import resource
import shlex
import shutil
import signal
import subprocess
import time
import unittest
import zlib

from sandbox import AS_ROOT, HOST, NOBODY, Sandbox, entry

READERS = ("info {}", "map {}", "read {} -o out", "split {} 1s", "join out {}")
WRITERS = ("edit {} show", "record {}", "recover {}")
ALL = (*READERS, "check {}", *WRITERS)
# Command lines with their exit code and what the one line on stderr says, the name of the file in front.
TABLE = [(command.format(name), 1, f"{name}: {words}") for commands, name, words in (
    (ALL, "none.mp3", "there is no such file"), (ALL, "link.mp3", "the link leads to no file"),
    (ALL, "circle.mp3", "the links lead in a circle"),
    (ALL, "none/a.mp3", "there is no such file"), (ALL, "pipe.mp3", "it is no regular file"),
    (ALL, "device.mp3", "it is no regular file"),
    ((*READERS[1:], *WRITERS), "folder.mp3", "it is a directory"),
    ((*READERS, *WRITERS), "busy.mp3", "it is in use by another program"),
    ((*READERS, *WRITERS[:2]), "text.mp3", "the file holds no MP3 frame"),
    ((*READERS, *WRITERS[:2]), "vbr.mp3", "the operation or the kind of file is not supported"),
    (WRITERS[2:], "vbr.mp3", "its bitrate is not constant"),
    (WRITERS[:2], "linked.mp3", "linked.DIR is no regular file"),
    (WRITERS[2:], "linked.mp3", "linked.DIR: it is no regular file"),
) for command in commands] + [
    ("info piped.mp3", 1, "piped.DIR: it is no regular file"),
    ("map piped.mp3", 1, "piped.DIR: it is no regular file"),
    ("map linked.mp3", 1, "linked.DIR: it is a symbolic link"),
    ("", 2, "a command is missing"), ("bogus", 2, "'bogus' is no command"),
    ("inof a.mp3", 2, "'inof' is no command; did you mean 'info'?"),
    ("info", 2, "FILE is required"), ("edit a.mp3", 2, "OP is required"),
    ("edit -- a.mp3", 2, "OP is required"),
    *((command, 2, "an argument is empty") for command in (
        "read a.mp3 -o ''", "read a.mp3 --length ''", "map a.mp3 --svg ''", "info a.mp3 --driver ''")),
    ("info --jsno a.mp3", 2, "'--jsno' is no option of 'ffdhost info'; did you mean '--json'?"),
    ("--wait x info a.mp3", 2, "--wait: 'x' is no number of seconds"),
    ("read a.mp3 --from -3s", 2, "a.mp3: '-3s' counts from the present position"),
    ("record a.mp3 --at +3s", 2, "a.mp3: '+3s' counts from the present position"),
    ("record a.mp3 --length 0", 2, "a.mp3: a length of 0 records nothing"),
    ("record --new none/x.mp3", 1, "none/x.mp3: no file can be written there"),
    ("read a.mp3 --from 1x", 2, "a.mp3: '1x' is"), ("record a.mp3 --at x", 2, "a.mp3: 'x' is"),
    ("edit a.mp3 delete 5 insrt clip.mp3", 2, "a.mp3: 'insrt' is no operation; did you mean 'insert'?"),
    ("edit a.mp3 delete 5 read 5s", 2, "a.mp3: 'read' needs an output file"),
    ("edit a.mp3 delete 5 read 5s -", 2, "a.mp3: standard output takes"),
    ("edit a.mp3 insert - insert -", 2, "a.mp3: standard input can be taken only once"),
    ("edit a.mp3 delete 5 insert vbr.mp3", 1, "vbr.mp3: the operation or the kind of file is not supported"),
    ("edit a.mp3 delete 5 insert other.mp3", 1, "other.mp3: the clip does not fit"),
    ("edit a.mp3 delete 5 overwrite none.mp3", 1, "none.mp3: there is no such file"),
    ("edit a.mp3 delete 5 insert pipe.mp3", 1, "pipe.mp3: it is no regular file"),
    ("edit a.mp3 delete 5 insert a.mp3", 1, "a.mp3: a file cannot be entered into itself"),
    ("edit a.mp3 delete 5 read 5s none/out", 1, "none/out: no file can be written there"),
    ("edit a.mp3 delete 5 read 5s a.mp3", 1, "a.mp3: the output would overwrite"),
    ("edit a.mp3 insert clip.mp3 read 5s clip.mp3", 1, "clip.mp3: the output would overwrite"),
    ("edit a.mp3 delete 1h", 1, "a.mp3: no frame would be left"),
    ("edit a.DIR show", 1, "a.DIR: there is no such file"),
    ("read a.mp3 -o a.mp3", 1, "a.mp3: the output would overwrite"),
    ("read a.mp3 -o ./a.DIR", 1, "./a.DIR: the output would overwrite"),
    ("map a.mp3 --svg a.DIR", 1, "a.DIR: the output would overwrite"),
    ("read a.mp3 -o left.DIR", 1, "left.DIR: the driver keeps edits and interrupted closes in files that end so"),
    ("read a.mp3 -o left.mp3", 1, "left.mp3: a session that did not close has left edits for a file"),
    ("read a.mp3 -o /dev/full", 1, "/dev/full: the output cannot be written: no space left on device"),
    ("map a.mp3 --svg /dev/full", 1, "/dev/full: the output cannot be written: no space left on device"),
    ("record a.mp3", 1, "standard input: the stream has no MP3 frame"),
    ("--driver none.so info a.mp3", 1, "none.so: the driver does not exist"),
    ("--driver text.mp3 info a.mp3", 1, "text.mp3: "),
    ("--json read a.mp3", 2, "standard output cannot take the audio"),
    ("--json map a.mp3 --svg -", 2, "standard output cannot take the picture"),
    *((command.format("secret.mp3"), "nobody", "secret.mp3: permission denied") for command in ALL),
    *((command.format("a.mp3"), "nobody", "a.mp3: permission denied: the file may not be written")
      for command in WRITERS[:2]),
    ("recover a.mp3", "nobody", "a.mp3: permission denied: a.DIR may not be made"),
]


class InputsTest(Sandbox):
    def setUp(self):
        super().setUp()
        for name, new_name in (("speech-22k-mono-tagged", "a"), ("insert-22k-mono", "clip"),
                               ("speech-vbr", "vbr"), ("speech-44k-stereo", "other")):
            self.copy(name, f"{new_name}.mp3")

    def host(self, *words, code=0, **options):
        return super().host(*words, code=code, stdin=subprocess.DEVNULL, text=True, **options)

    def seen(self):
        """What is in the folder; of the files a sum."""
        return {path.name: path.is_file() and zlib.crc32(path.read_bytes())
                for path in self.dir.iterdir() if path.name != "device.mp3"}

    def test_table(self):
        copy = self.dir / "a.mp3"
        for name in ("busy", "left", "linked", "piped", "secret"):
            shutil.copy(copy, self.dir / f"{name}.mp3")
        (self.dir / "left.DIR").write_bytes(entry(1, 0, 9000))
        (self.dir / "linked.DIR").symlink_to("a.mp3")
        (self.dir / "secret.mp3").chmod(0o600)
        (self.dir / "text.mp3").write_text("no frame in here\n" * 100)
        (self.dir / "link.mp3").symlink_to("nowhere")
        (self.dir / "circle.mp3").symlink_to("circle.mp3")
        (self.dir / "device.mp3").symlink_to("/dev/zero")
        (self.dir / "folder.mp3").mkdir()
        for name in "pipe.mp3", "piped.DIR":
            os.mkfifo(self.dir / name)
        self.busy("busy.mp3")
        before = self.seen()
        for command, code, words in TABLE:
            user = {"user": NOBODY, "group": NOBODY} if code == "nobody" else {}
            code = 1 if user else code
            if user and os.geteuid() != 0:
                continue
            with self.subTest(command=command):
                document = json.loads(self.host("--json", *shlex.split(command), code=code, **user).stdout)
                failed = document["files"][0] if "files" in document else document
                self.assertTrue(failed["failure"]["advice"])
                line = f"{failed['failure']['file']}: {failed['failure']['message']}"
                if "--json" not in command:
                    said = self.host(*shlex.split(command), code=code, **user).stderr
                    line = next(line for line in said.splitlines() if "warning: " not in line)
                    self.assertTrue(line.startswith("ffdhost: "), said)
                    self.assertIn(f"{failed['failure']['name']} ({failed['failure']['status']})", said)
                self.assertIn(words, line)
                self.assertEqual(self.seen(), before)


    def test_many_files(self):
        folder = self.dir / "folder"
        (folder / "sub.mp3").mkdir(parents=True)
        for name in ("b.MP3", "a.mp3", "sub.mp3/x.mp3"):
            shutil.copy(self.dir / "a.mp3", folder / name)
        (folder / "link.mp3").symlink_to("b.MP3")
        (folder / "lost.mp3").symlink_to("nowhere")
        (folder / "notes.txt").write_text("no sound")
        # Without their sound files, as an interrupted close may leave them.
        (folder / "gone.DIR").write_bytes(entry(1, 0, 9000))
        (folder / "closed.CLM").write_bytes(bytes(32) + b"closed.Mp3" + bytes(250))
        document = json.loads(self.host("--json", "info", "clip.mp3", "folder", "none.mp3", "a.mp3",
                                        code=1).stdout)
        self.assertEqual([(file["file"], file["ok"]) for file in document["files"]], [
            ("clip.mp3", True), ("folder/a.mp3", True), ("folder/b.MP3", True),
            ("folder/closed.Mp3", False), ("folder/gone.mp3", False), ("folder/link.mp3", True),
            ("folder/lost.mp3", False), ("none.mp3", False), ("a.mp3", True)])
        self.assertEqual(document["summary"], {"files": 9, "good": 5, "attention": 0, "failed": 4,
                                               "milliseconds": 4 * 10057 + 2063})
        text = self.host("check", "folder", code=1)
        self.assertEqual(text.stderr.splitlines()[0], "ffdhost: folder/lost.mp3: the link leads to no file")
        summary = text.stdout[text.stdout.index("Files  "):].splitlines()
        self.assertEqual(summary[0].split(maxsplit=1)[1], "6: 3 good, 2 to look after, 1 failed")
        self.assertEqual([line.split(":")[0].split() for line in summary[1:]], [
            ["Attention", "folder/closed.Mp3"], ["Attention", "folder/gone.mp3"],
            ["Failed", "folder/lost.mp3"]])
        (self.dir / "empty").mkdir()
        self.assertEqual(self.host("check", "empty").stdout.split(), ["Files", "0"])
        self.assertNotIn("Files", self.host("check", "a.mp3").stdout)

    @AS_ROOT
    def test_check_without_permission(self):
        """All that can be read is told: in a folder, and of a file, that may not be written."""
        as_nobody = {"user": NOBODY, "group": NOBODY}
        self.host("edit", "a.mp3", "seek", "1s", "delete", "1s", "crash", code=3)
        allowed = json.loads(self.host("--json", "check", "a.mp3", code=1).stdout)["files"][0]
        for mode, directory in ((0o644, "taken over"), (0o600, "may not be read")):
            (self.dir / "a.DIR").chmod(mode)
            told = json.loads(self.host("--json", "check", "a.mp3", code=1, **as_nobody).stdout)["files"][0]
            self.assertEqual(told["sound"]["format"], allowed["sound"]["format"])
            self.assertEqual(told["sound"]["frames"], allowed["sound"]["frames"])
            self.assertEqual(told["directory"], allowed["directory"])
            self.assertEqual((told["next_open"]["status"], told["next_open"]["directory"]), (29, directory))
            self.assertIn("permission denied", told["findings"][0]["text"])
            self.assertEqual("edits_waiting" in [each["code"] for each in told["findings"]], mode == 0o644)
        (self.dir / "secret").mkdir(mode=0o700)
        self.assertIn("secret: permission denied", self.host("check", "secret", code=1, **as_nobody).stderr)

    def test_wait(self):
        shutil.copy(self.dir / "a.mp3", self.dir / "busy.mp3")
        recorder = self.busy("busy.mp3")
        begun, used = time.monotonic(), resource.getrusage(resource.RUSAGE_CHILDREN)
        self.assertIn("in use", self.host("--wait", "1.5", "info", "busy.mp3", code=1).stderr)
        self.assertGreaterEqual(time.monotonic() - begun, 1.5)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.assertLess(after.ru_utime + after.ru_stime - used.ru_utime - used.ru_stime, 0.75)
        for command, stop, code in (("info busy.mp3", signal.SIGINT, -signal.SIGINT),
                                    ("record busy.mp3", signal.SIGTERM, 1),
                                    ("check busy.mp3", None, 0), ("edit busy.mp3 show", None, 0)):
            with subprocess.Popen([HOST, "--wait", "60", *command.split()], cwd=self.dir,
                                  stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL) as waiter:
                if recorder.poll() is None:
                    time.sleep(0.5)
                    self.assertIsNone(waiter.poll(), command)
                if stop:
                    waiter.send_signal(stop)
                else:
                    recorder.stdin.close()
                    recorder.wait()
                self.assertEqual(waiter.wait(), code, command)


if __name__ == "__main__":
    unittest.main()
