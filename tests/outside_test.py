"""What a close leaves behind, judged by programs that know nothing of the driver: mpg123 and ffmpeg
decode it, ffprobe counts its frames, mp3val and mp3check look for anything out of place. FFDHOST
names the host, FFD_SAMPLES the directory of the samples."""

import re
import shutil
import subprocess
import unittest

from sandbox import SAMPLES, Sandbox, frames_of, sample


class Format:
    """A sample, taken apart into head, frames and tail by its constant frame length."""

    def __init__(self, name, frame_bytes, head, tail):
        self.name, data = name, sample(name)
        end = len(data) - tail
        self.head, self.tail = data[:head], data[end:]
        self.frames = list(frames_of(data[head:end], frame_bytes))

    def border(self, frame):
        """The dictation position of a frame."""
        return sum(map(len, self.frames[:frame]))


FORMATS = [
    Format("speech-22k-mono-tagged", 208, 202, 128),
    Format("speech-44k-stereo", 417, 0, 0),
    Format("speech-16k-mono", 108, 0, 0),
]


class OutsideTest(Sandbox):
    def setUp(self):
        super().setUp()
        self.file = self.dir / "a.mp3"

    def edit(self, form, *operations):
        self.copy(form.name, "a.mp3")
        self.host("edit", self.file, *operations)
        self.assertEqual(sorted(p.name for p in self.dir.glob("a.*")), ["a.mp3"])

    def clip(self, form, first, last):
        path = self.dir / "clip.mp3"
        path.write_bytes(b"".join(form.frames[first:last]))
        return path

    def judge(self, frame_count):
        """No program complains, and all count the same frames."""
        def run(*command):
            done = subprocess.run([*command, self.file], capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, (command, done.stdout, done.stderr))
            return done.stdout + done.stderr

        self.assertEqual(run("mpg123", "-q", "-t"), "")
        decode = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-i", self.file, "-f", "null",
                                 "-"], capture_output=True, text=True)
        self.assertEqual((decode.returncode, decode.stderr), (0, ""))
        count = run("ffprobe", "-v", "error", "-count_frames", "-show_entries",
                    "stream=nb_read_frames", "-of", "csv=p=0")
        self.assertEqual(int(count), frame_count)
        verdict = run("mp3val")
        found = re.search(r"INFO: .*: (\d+) MPEG frames", verdict)
        self.assertEqual(int(found.group(1)), frame_count, verdict)
        verdict = re.sub(r"WARNING: .*: (No supported tags in the file)?\n", "", verdict)
        self.assertNotRegex(verdict, "WARNING|ERROR|PROBLEM")
        check = subprocess.run(["mp3check", "-e", self.file], capture_output=True, text=True)
        lines = [line for line in check.stdout.splitlines()[1:]
                 if not re.match("202 bytes of junk before first|valid id3 tag trailer", line)]
        self.assertEqual((lines, check.stderr), ([], ""))

    def test_edits_at_frame_borders(self):
        for form in FORMATS:
            with self.subTest(form.name):
                clip = self.clip(form, 10, 30)
                self.edit(form, "seek", form.border(50), "insert", clip,
                          "seek", form.border(20), "delete", form.border(30) - form.border(20),
                          "seek", 0, "overwrite", clip)
                frames = form.frames
                # 20 frames inserted, 10 deleted; an overwrite takes as many bytes as it brings,
                # and frames differ by a byte of padding.
                kept = (frames[10:30] + frames[30:50] + frames[10:30] + frames[50:])
                data = self.file.read_bytes()
                self.assertEqual(data[:len(form.head)], form.head)
                self.assertEqual(data[len(data) - len(form.tail):], form.tail)
                audio = data[len(form.head):len(data) - len(form.tail)]
                self.assertTrue(audio.endswith(b"".join(kept[-100:])))
                self.judge(len(kept))

    def test_edits_inside_frames_leave_whole_frames(self):
        for form in FORMATS:
            with self.subTest(form.name):
                clip = self.clip(form, 5, 25)
                one, two = 20, 41
                begin, end = form.border(two) + 33, form.border(two + 2) + 57
                self.edit(form, "seek", begin, "delete", end - begin,
                          "seek", form.border(one) + 77, "insert", clip)
                frames = form.frames
                expected = (frames[:one + 1] + frames[5:25] + frames[one + 1:two + 1]
                            + frames[two + 3:])
                self.assertEqual(self.file.read_bytes(),
                                 form.head + b"".join(expected) + form.tail)
                self.judge(len(expected))

    def test_a_crash_and_what_the_next_close_makes_of_it(self):
        for form in FORMATS:
            with self.subTest(form.name):
                self.copy(form.name, "a.mp3")
                clip = self.clip(form, 0, 15)
                self.host("edit", self.file, "seek", form.border(33), "insert", clip, "crash", code=3)
                self.host("edit", self.file, "show")
                expected = form.frames[:33] + form.frames[:15] + form.frames[33:]
                self.assertEqual(self.file.read_bytes(),
                                 form.head + b"".join(expected) + form.tail)
                self.judge(len(expected))

    def test_info_frames_of_encoders(self):
        """Two frames of one encoder never meet in a file, and what the first tells is mended."""
        source = SAMPLES / "insert-22k-mono.mp3"

        def host(*arguments):
            return self.host(*arguments).stdout

        for encoder in (("lame", "--quiet", "--cbr", "-b", "64", source),
                        ("ffmpeg", "-v", "error", "-y", "-i", source, "-b:a", "64k",
                         "-id3v2_version", "0")):
            subprocess.run([*encoder, self.file], check=True)
            data = self.file.read_bytes()
            whole = data + data[208:]
            clip = shutil.copy(self.file, self.dir / "clip.mp3")
            self.assertNotIn(b"wrong", host("info", clip) + host("check", clip))
            self.assertEqual(host("read", clip, "--from", 100, "--length", 300), data[208:400])
            for said in (host("edit", self.file, "seek", "end", "insert", clip),
                         host("info", self.file), host("check", self.file)):
                self.assertIn(b"ffdhost recover --info-frame -- ", said)
            self.assertEqual(self.file.read_bytes(), whole)
            player = ("mpg123", "-t", self.file)
            self.assertIn(b"Frankenstein", subprocess.run(player, stderr=-1).stderr)
            host("recover", "--info-frame", self.file)
            frames = int.from_bytes(data[21:25], "big") * 2
            mended = self.file.read_bytes()
            self.assertEqual(mended[:21] + mended[29:167] + mended[169:],
                             whole[:21] + whole[29:167] + whole[169:])
            self.assertEqual(mended[21:29], frames.to_bytes(4, "big") +
                             len(whole).to_bytes(4, "big"))
            # Only one of the two encoders has got its checksum right.
            self.assertEqual(mended[167:169] == whole[167:169], encoder[0] == "ffmpeg")
            self.assertNotIn(b"Warning", subprocess.run(player, stderr=-1).stderr)
            length = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration",
                                     "-of", "csv=p=0", self.file], stdout=-1).stdout
            self.assertAlmostEqual(float(length), frames * 576 / 22050, places=3)
            # Back to what the encoder made: its own checksum comes back.
            host("edit", self.file, "seek", len(data), "delete", "1h")
            host("recover", "--info-frame", self.file)
            self.assertEqual(self.file.read_bytes(), data)


if __name__ == "__main__":
    unittest.main()
