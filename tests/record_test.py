"""Records streams with ffdhost. FFDHOST names the program, FFD_SAMPLES the directory of the samples.
What kills leave of a recording bench/kills.py shows."""

import json
import os
import pathlib
import pty
import re
import resource
import shutil
import signal
import struct
import subprocess
import time
import unittest

from sandbox import CLIP, HOST, SAMPLES, Sandbox, frames_of, sample

STOPS = signal.SIGINT, signal.SIGTERM, signal.SIGHUP
for each in STOPS:  # a run in the background would hand them down as ignored
    signal.signal(each, signal.SIG_DFL)
TAGS = 202, 128  # bytes in front of and behind the speech
AT = 40124  # a border of its frames, near the middle


class Sound:
    """A copy of the speech, and what it ought to play."""

    def __init__(self, folder):
        self.path = pathlib.Path(shutil.copy(SAMPLES / "speech-22k-mono-tagged.mp3", folder))
        self.audio = self.path.read_bytes()[TAGS[0]:-TAGS[1]]

    def record(self, *options, **how):
        return subprocess.Popen([HOST, "record", self.path, *map(str, options)],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, **how)

    def next_open(self):
        run = subprocess.run([HOST, "edit", self.path, "show"], capture_output=True, text=True)
        if run.returncode:
            raise AssertionError(run.stderr)
        return self.path.read_bytes()[TAGS[0]:-TAGS[1]]


class RecordTest(Sandbox):
    def setUp(self):
        super().setUp()
        self.sound = Sound(self.dir)
        self.clip = CLIP
        self.frames = list(frames_of(self.clip))

    def test_streams(self):
        audio, clip = self.sound.audio, self.clip
        id3 = b"ID3\3\0\0\0\0\0\5" + bytes(5)
        info = self.frames[0][:4] + bytes(9) + b"Info" + bytes(208)
        info = info[:len(self.frames[0])]
        second = sum(len(frame) for frame in self.frames[:38])  # 7941, the next one ends at 8150
        vbr = clip * 5 + sample("insert-44k-stereo")
        good = [
            ((), clip, audio + clip, "2.063 (16509 bytes) at position 80457\n"),
            (("--at", AT - 90), id3 + info + clip, audio[:AT] + clip + audio[AT:], "40124\n"),
            (("--at", AT, "--overwrite"), clip, None, "over 16509 bytes"),
            (("--at", "0", "--length", "1s"), clip, clip[:second] + audio, "(7941 bytes)"),
            (("--at", "end"), clip[50:-50], audio + b"".join(self.frames[1:-1]), "16"),
        ]
        for options, stream, expected, words in good:
            with self.subTest(options=options):
                sound = Sound(self.dir)
                out, error = sound.record(*options).communicate(stream)
                self.assertIn(words, out.decode(), error)
                after = sound.next_open()
                if expected is None:
                    self.assertEqual(len(after), len(audio))
                    self.assertEqual(after[:AT + len(clip)], audio[:AT] + clip)
                    self.assertTrue(audio.endswith(after[AT + len(clip):]))
                else:
                    self.assertEqual(after, expected)
        bad = [
            (b"", "no MP3 frame", audio),
            (bytes(5 << 20), "no frame was found", audio),
            (sample("insert-44k-stereo"), "44100 Hz, 128 kbit/s", audio),
            (vbr, "what came before is recorded", audio + clip * 5),
        ]
        for stream, words, expected in bad:
            with self.subTest(words=words):
                sound = Sound(self.dir)
                recorder = sound.record()
                error = recorder.communicate(stream)[1]
                self.assertEqual(recorder.returncode, 1)
                self.assertIn(words, error.decode())
                self.assertEqual(sound.next_open(), expected)

    def test_an_info_frame_of_the_dictation(self):
        info = (self.frames[0][:4] + bytes(32) + b"VBRI" + bytes(6) + struct.pack(">2I", 99, 2)).ljust(208, b"\0")
        self.sound.path.write_bytes(info + self.sound.audio)
        out = self.sound.record().communicate(info + self.clip)[0].decode()
        self.assertRegex(out, "Info frame +VBRI, tells of 2 frames and 99 bytes, which is wrong. .*--info-frame")
        subprocess.run([HOST, "recover", "--info-frame", self.sound.path], check=True, capture_output=True)
        frames = sum(1 for _ in frames_of(self.sound.audio + self.clip))
        counts = struct.pack(">2I", 208 + len(self.sound.audio + self.clip), frames)
        self.assertEqual(self.sound.path.read_bytes(),
                         (info[:46] + counts + info[54:] + self.sound.audio + self.clip))

    def test_a_new_file(self):
        path = self.dir / "new.mp3"
        for expected in (self.clip, self.clip + self.clip):
            subprocess.run([HOST, "record", "--new", path], input=self.clip, check=True,
                           capture_output=True)
            self.assertEqual(path.read_bytes(), expected)

    def test_a_stop_closes_and_a_second_recorder_is_refused(self):
        for stop in STOPS:
            sound = Sound(self.dir)
            recorder = sound.record()
            recorder.stdin.write(self.clip)
            recorder.stdin.flush()
            grown = time.monotonic() + 20
            while (sound.path.stat().st_size < len(self.clip) + len(sound.audio)
                   and time.monotonic() < grown):
                time.sleep(0.05)
            second = sound.record()
            self.assertIn("29", second.communicate()[1].decode())
            self.assertEqual(second.returncode, 1)
            recorder.send_signal(stop)
            self.assertEqual(recorder.wait(), 0)
            recorder.communicate()
            self.assertFalse(sound.path.with_suffix(".DIR").exists())
            self.assertEqual(sound.path.read_bytes()[TAGS[0]:-TAGS[1]], sound.audio + self.clip)

    def test_a_file_that_goes_away(self):
        def replace(path):
            path.unlink()
            path.write_bytes(b"mine")
        for at, go, words in ((len(self.sound.audio), pathlib.Path.unlink, ""), (AT, pathlib.Path.unlink, ""),
                              (AT, lambda path: path.rename(self.dir / "b.mp3"), ""),
                              (AT, replace, "Nothing is lost: the whole dictation is in"),
                              (AT, lambda path: path.parent.rename(self.dir / "moved"), "its folder is gone")):
            home = self.dir / "home"
            home.mkdir()
            sound = Sound(home)
            recorder = sound.record("--at", at)
            for way in (lambda path: None, go):
                recorder.stdin.write(self.clip)
                recorder.stdin.flush()
                time.sleep(0.8)
                way(sound.path)
            out, error = recorder.communicate(self.clip)
            self.assertEqual(recorder.returncode, 1 if words else 0, error)
            self.assertIn(words, error.decode())
            if not home.exists():
                (self.dir / "moved").rename(home)
                sound.next_open()
            self.assertIn(sound.audio[:at] + self.clip * 3 + sound.audio[at:],
                          [path.read_bytes()[TAGS[0]:-TAGS[1]] for path in home.iterdir()])
            shutil.rmtree(home)

    def test_a_second_stop_leaves_what_a_crash_would(self):
        recorder = self.sound.record("--at", AT)
        recorder.stdin.write(self.clip)
        recorder.stdin.flush()
        time.sleep(1)
        for each in signal.SIGSTOP, signal.SIGINT, signal.SIGTERM, signal.SIGCONT:
            recorder.send_signal(each)
        self.assertIn(b"the next open for writing finds it", recorder.communicate()[1])
        self.assertEqual(recorder.returncode, -signal.SIGINT)
        self.assertTrue(self.sound.path.with_suffix(".DIR").exists())
        audio = self.sound.audio
        self.assertEqual(self.sound.next_open(), audio[:AT] + self.clip + audio[AT:])

    def test_a_full_directory_is_closed_and_opened(self):
        audio = self.sound.audio * 15
        borders = [0]
        for frame in frames_of(audio):
            borders.append(borders[-1] + len(frame))
        # The first frame finds it full, or, inside the last entry, the end of what it replaces.
        for entries, frame, options in (5461, 100, ()), (5459, 5600, ("--overwrite",)):
            self.sound.path.write_bytes(audio)
            cuts = borders[:entries] + [len(audio)]
            rows = b"".join(struct.pack("<3I", 1, *cut) for cut in zip(cuts, cuts[1:]))
            self.sound.path.with_suffix(".DIR").write_bytes(rows.ljust(65536, b"\0"))
            at = borders[frame]
            said = self.sound.record("--json", "--at", at, *options).communicate(self.clip)[0]
            after = self.sound.path.read_bytes()
            self.assertEqual(json.loads(said)["reopened"], 1)
            self.assertEqual(after[:at + len(self.clip)], audio[:at] + self.clip)
            tail = borders[frame + 79 * len(options)]  # as many frames as the clip has
            self.assertEqual(after[at + len(self.clip):], audio[tail:])

    def test_a_write_that_fails(self):
        limit = len(self.sound.audio) + len(self.clip) * 10
        recorder = self.sound.record(
            "--json", "--at", AT,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        said = json.loads(recorder.communicate(self.clip * 20)[0])
        kept = said["recorded"]["bytes"]
        self.assertEqual((said["failure"]["status"], said["ok"]), (29, False))
        self.assertGreater(kept, len(self.clip))
        audio = self.sound.audio
        self.assertEqual(self.sound.next_open(), audio[:AT] + (self.clip * 20)[:kept] + audio[AT:])

    @unittest.skipIf(os.geteuid(), "no right to mount a small disk")
    def test_a_terminal_and_a_disk_that_fills(self):
        terminal, its_end = pty.openpty()
        mount = 'mount -t tmpfs -o size=13m none "$0" && cp "$2" "$0/a.mp3" && exec "$1" record "$0/a.mp3"'
        recorder = subprocess.Popen(["unshare", "-m", "sh", "-c", mount, self.dir, HOST,
                                     SAMPLES / "speech-22k-mono-tagged.mp3"],
                                    stdin=subprocess.PIPE, stdout=its_end, stderr=its_end)
        os.close(its_end)
        for _ in range(25):
            recorder.stdin.write(self.clip * 2)
            recorder.stdin.flush()
            time.sleep(0.03)
        time.sleep(0.7)  # drawn once more
        recorder.stdin.close()
        self.assertEqual(recorder.wait(), 0)
        said = os.read(terminal, 100_000).decode()
        os.close(terminal)
        low, used_up = said.index("disk space is getting low"), said.index("disk space is used up")
        self.assertLess(low, used_up)
        self.assertEqual(said.count("warning"), 2)
        drawn = r"\rrecorded \d:\d\d\.\d{3}, at \d:\d\d\.\d{3}, disk lasts \d+ min"
        # Drawn over and over, cleared for a warning, and ended by a line break.
        self.assertGreater(len(re.findall(drawn, said)), 1)
        self.assertRegex(said, drawn + r" *\r +\r(\x1b\[1;33m)?ffdhost:.{,5} warning")
        self.assertRegex(said, r"\S *\r\nRecorded")  # a warning may be the last, too


if __name__ == "__main__":
    unittest.main()
