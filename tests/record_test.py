"""Records live streams with ffdhost. FFDHOST names the program, FFD_SAMPLES the directory of the
samples. The kills of a long recording are a program of their own, with as many as one likes:

    FFDHOST=build/ffdhost FFD_SAMPLES=tests/samples python3 tests/record_test.py kills 200 10800
"""

import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HOST = os.environ["FFDHOST"]
SAMPLES = pathlib.Path(os.environ["FFD_SAMPLES"])
TAGS = 202, 128  # bytes in front of and behind the speech
AT = 40124  # a border of its frames, near the middle


def frames_of(audio):
    """Frames of 64 kbit/s at 22050 Hz: 208 bytes and the padding."""
    place = 0
    while place < len(audio):
        length = 208 + (audio[place + 2] >> 1 & 1)
        yield audio[place:place + length]
        place += length


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


def feed(pipe, stream, bytes_per_second, sent, stop):
    """Writes a stream at a pace; notes when so many bytes had been sent."""
    begun, done = time.monotonic(), 0
    try:
        while done < len(stream) and not stop.is_set():
            due = int((time.monotonic() - begun) * bytes_per_second)
            if due > done:
                done += os.write(pipe.fileno(), stream[done:due])
                sent.append((done, time.monotonic()))
            time.sleep(0.005)
    except BrokenPipeError:
        pass


def kill_again_and_again(folder, kills, stream, speed):
    """Records a stream into the middle of the speech; after each kill and the next open it goes on
    with the first frame that is missing. The result is the longest time that a kill lost, and how
    many hit the first write, of one frame, which then plays behind all else."""
    sound, done, worst, astray = Sound(folder), 0, 0.0, 0
    dice = random.Random(1)
    mean = len(stream) / (8000 * speed) / kills
    for kill in range(kills):
        kept_file = sound.path.read_bytes()
        recorder = sound.record("--at", AT + done)
        sent, stop = [(0, time.monotonic())], threading.Event()
        feeder = threading.Thread(target=feed, args=(recorder.stdin, stream[done:], 8000 * speed,
                                                     sent, stop))
        feeder.start()
        time.sleep(dice.uniform(0, 2 * (mean + 0.3)))
        recorder.kill()
        killed = time.monotonic()
        stop.set()
        feeder.join()
        recorder.communicate()
        before = sound.audio[:AT] + stream[:done] + sound.audio[AT:]
        audio = sound.next_open()
        if audio != before and audio.startswith(before):
            astray += 1
            sound.path.write_bytes(kept_file)
            audio = before
        kept = len(audio) - len(sound.audio) - done
        expected = sound.audio[:AT] + stream[:done + kept] + sound.audio[AT:]
        if audio != expected:
            raise AssertionError(f"kill {kill}: {kept} bytes kept, and others than were sent")
        lost = next((killed - when for count, when in sent if count > kept), 0.0)
        worst = max(worst, lost)
        if lost > 1:
            raise AssertionError(f"kill {kill}: {lost:.2f} s are lost")
        done += kept
    recorder = sound.record("--at", AT + done)
    recorder.communicate(stream[done:])
    if sound.next_open() != sound.audio[:AT] + stream + sound.audio[AT:]:
        raise AssertionError("the whole recording is not what was sent")
    said = subprocess.run(["mpg123", "-q", "-t", sound.path], capture_output=True, text=True)
    if said.returncode or "rror" in said.stderr:
        raise AssertionError(said.stderr)
    return worst, done, astray


class RecordTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.dir = pathlib.Path(temporary.name)
        self.sound = Sound(self.dir)
        self.clip = (SAMPLES / "insert-22k-mono.mp3").read_bytes()
        self.frames = list(frames_of(self.clip))

    def test_streams(self):
        audio, clip = self.sound.audio, self.clip
        id3 = b"ID3\3\0\0\0\0\0\5" + bytes(5)
        info = self.frames[0][:4] + bytes(9) + b"Info" + bytes(208)
        info = info[:len(self.frames[0])]
        second = sum(len(frame) for frame in self.frames[:38])  # 7941, the next one ends at 8150
        vbr = clip * 5 + (SAMPLES / "insert-44k-stereo.mp3").read_bytes()
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
            ((SAMPLES / "insert-44k-stereo.mp3").read_bytes(), "44100 Hz, 128 kbit/s", audio),
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

    def test_a_new_file(self):
        path = self.dir / "new.mp3"
        for expected in (self.clip, self.clip + self.clip):
            subprocess.run([HOST, "record", "--new", path], input=self.clip, check=True,
                           capture_output=True)
            self.assertEqual(path.read_bytes(), expected)

    def test_a_stop_closes_and_a_second_recorder_is_refused(self):
        for stop in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
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

    def test_kills(self):
        kill_again_and_again(self.dir, 6, self.clip * 60, 60)


if __name__ == "__main__":
    if sys.argv[1:2] == ["kills"]:
        count, seconds = int(sys.argv[2]), int(sys.argv[3])
        with tempfile.TemporaryDirectory() as place:
            made = pathlib.Path(place) / "stream.mp3"
            subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                            f"anoisesrc=r=22050:d={seconds}:a=0.3:seed=1", "-b:a", "64k",
                            "-reservoir", "0", "-write_xing", "0", "-id3v2_version", "0", made],
                           check=True)
            begun = time.monotonic()
            lost, recorded, astray = kill_again_and_again(pathlib.Path(place), count,
                                                          made.read_bytes(), 30)
            print(f"{count} kills in {time.monotonic() - begun:.0f} s, {recorded} bytes recorded "
                  f"between them; the most that one lost: {lost:.2f} s; "
                  f"{astray} hit the first write")
    else:
        unittest.main()
