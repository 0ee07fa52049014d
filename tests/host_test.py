"""Drives ffdhost as a user does, on real MP3 files. FFDHOST names the program, FFD_SAMPLES the
directory of the samples. Expected bytes are cut out of the samples here, not asked of the driver."""

import contextlib
import fcntl
import itertools
import json
import os
import pathlib
import pty
import re
import shutil
import signal
import struct
import subprocess
import termios
import unittest
import xml.etree.ElementTree

from json_page import Page
from sandbox import AUDIO, CLIP, HEAD, HOST, SAMPLES, TAGGED, TAIL, Sandbox, entry, frames_of, sample

SVG = "{http://www.w3.org/2000/svg}"
BORDERS = [0, *itertools.accumulate(map(len, frames_of(AUDIO)))]


def border(wanted):
    """The last frame border of the speech at or before a byte."""
    return max(each for each in BORDERS if each <= wanted)


class HostTest(Sandbox):
    def setUp(self):
        super().setUp()
        self.file = self.copy("speech-22k-mono-tagged", "a.mp3")
        self.dir_file = self.dir / "a.DIR"
        self.clip = self.copy("insert-22k-mono", "clip.mp3")

    def json(self, *arguments, code=0):
        document = json.loads(self.host("--json", *arguments, code=code).stdout)
        Page().check(document)
        self.assertEqual(document.get("ok"), code == 0)
        return document["files"][0] if "files" in document else document

    def assert_untouched(self):
        self.assertEqual(self.file.read_bytes(), TAGGED)
        self.assertFalse(self.dir_file.exists())

    # ---- Looking ----

    def test_info(self):
        for name, tags, version, channels, rate, bitrate, frame in (
                ("speech-22k-mono-tagged", 330, "2", 1, 22050, 64, 208),
                ("speech-44k-stereo", 0, "1", 2, 44100, 128, 417),
                ("speech-16k-mono", 0, "2", 1, 16000, 24, 108)):
            info = self.json("info", SAMPLES / f"{name}.mp3")
            size = len(sample(name))
            self.assertEqual(info["format"], {
                "mpeg_version": version, "layer": 3, "channels": channels, "sampling_rate": rate,
                "bitrate": bitrate, "bytes_per_second": bitrate * 125, "frame_size": frame}, name)
            self.assertEqual(info["dictation"]["bytes"], size - tags, name)
            self.assertEqual(info["dictation"]["milliseconds"], (size - tags) * 8 // bitrate, name)
            self.assertEqual(info["file_size"], size, name)

    def test_info_names_what_stands_around_the_audio(self):
        front = b"ID3\4\0\0\0\0\1\2" + bytes(130) + b"ID3\3\0\0\0\0\0\5" + bytes(5)
        lyrics = b"LYRICSBEGININD0000200"
        lyrics += b"%06dLYRICS200" % len(lyrics)
        ape = struct.pack("<8s4I8x", b"APETAGEX", 2000, 52, 1, 0x80000000)
        behind = (ape + b"\6\0\0\0\0\0\0\0Title\0Speech" + ape + lyrics
                  + b"TAG" + bytes(122) + b"\0\7\0")
        self.file.write_bytes(front + b"noise" + AUDIO + b"junk" + behind)
        self.dir_file.write_bytes(b"")
        info = self.json("info", self.file)
        first, end = len(front) + 5, len(front) + 5 + len(AUDIO)
        self.assertEqual(info["first_frame_offset"], first)
        self.assertEqual(info["in_front"], [
            {"kind": "ID3v2", "version": "2.4.0", "file_offset": 0, "size": 140},
            {"kind": "ID3v2", "version": "2.3.0", "file_offset": 140, "size": 15},
            {"kind": "other", "file_offset": 155, "size": 5}])
        self.assertEqual(info["behind"], [
            {"kind": "other", "file_offset": end, "size": 4},
            {"kind": "APE", "version": "2", "file_offset": end + 4, "size": 84},
            {"kind": "Lyrics3", "version": "2", "file_offset": end + 88, "size": 36},
            {"kind": "ID3v1", "version": "1.1", "file_offset": end + 124, "size": 128}])
        self.assertEqual(info["leftover_directory"], {"file": str(self.dir_file), "size": 0})
        # Sizes that lie must not take the parser out of the file.
        self.file.write_bytes(AUDIO + struct.pack("<8s4I8x", b"APETAGEX", 2000, 0xFFFFFFFF, 1,
                                                  0x80000000) + b"999999LYRICS200")
        self.assertEqual(self.json("info", self.file)["behind"],
                         [{"kind": "other", "file_offset": len(AUDIO), "size": 47}])

    def test_read(self):
        self.assertEqual(self.host("read", self.file).stdout, AUDIO)
        out = self.dir / "out"
        for options, expected in (
                ((), AUDIO),
                (("--from", "1s", "--length", "750ms"), AUDIO[8000:14000]),
                (("--from", "100", "--length", "4294967295"), AUDIO[100:]),
                (("--from", "4294967295"), b"")):
            read = self.json("read", self.file, "-o", out, *options)
            self.assertEqual(out.read_bytes(), expected, options)
            self.assertEqual(read["read"]["bytes"], len(expected), options)
        self.assert_untouched()

    def test_nothing_is_lost_in_silence(self):
        # What the driver would take for a file of its own.
        (self.dir / "n.DIR").mkdir()
        for name in "a.DIR", "clip.clm", "n.mp3":
            for command in (("record", "--new", name), ("record", "--force", "--new", "a.DIR"),
                            ("read", self.clip, "-o", name), ("join", name, self.clip),
                            ("edit", self.clip, "read", "1s", name), ("map", self.clip, "--svg", name)):
                if command[0] == "record" or name != "n.mp3":
                    self.host(*command, code=1, input=CLIP)
                    self.assertFalse((self.dir / name).exists(), command)
        self.host("edit", self.file, "seek", "end", "insert", self.clip, "crash", code=3)
        whole = len(AUDIO) + len(CLIP)
        directory = self.dir_file.read_bytes()
        # The edits of a file that is gone would go to whatever takes its name.
        other, left = self.dir / "b.mp3", self.dir / "b.DIR"
        shutil.copy(self.dir_file, left)
        for command in (("read", self.clip, "-o", other), ("record", "--new", other),
                        ("edit", self.clip, "read", "1s", other), ("map", self.clip, "--svg", other)):
            run = self.host(*command, code=1, input=CLIP)
            self.assertIn(b"would be lost", run.stderr)
            self.assertFalse(other.exists())
            self.host(*command, "--force", input=CLIP)
            self.assertTrue(other.exists())
            self.assertEqual(left.with_name("b.DIR.bad").read_bytes(), directory)
            left.with_name("b.DIR.bad").rename(left)
            other.unlink()
        for place in ("a.wav", "a.svg"):  # which its own edits can't go to
            self.host("read", self.file, "-o", self.dir / place)
        for command in (("read", self.clip, "--from", "1h", "-o", "out"),
                        ("record", self.clip, "--at", "1h")):
            run = self.host(*command, input=CLIP)
            self.assertIn(b"is beyond the end of", run.stderr)
        text = self.host("edit", "--backup", self.file, "seek", 300, "delete", 1000).stdout.decode()
        self.assertIn("did not close: 2 blocks in", text)
        closed = self.file.stat().st_size - len(HEAD + TAIL)  # in whole frames
        self.assertNotEqual(closed, whole - 1000)
        self.assertIn(f"({closed} bytes)", text.splitlines()[-1])
        self.assertEqual((self.dir / "a.kept" / "a.DIR").read_bytes(), directory)
        self.host("edit", "--force", self.file, "delete", "1h")

    def test_snapped_places(self):
        begin, end = (border(place) for place in (3209, 6209))
        done = self.json("edit", "--snap", self.file, "seek", begin + 100, "delete", end - begin - 90,
                         "seek", "1h")["operations"]
        self.assertEqual([each.get("snapped", 0) for each in done], [-100, 90, 0])
        self.assertEqual(self.host("read", self.file).stdout, AUDIO[:begin] + AUDIO[end:])
        # Where frames differ in size, so do a clip and what it takes the place of.
        file = self.copy("speech-44k-stereo", "b.mp3")
        sound = sample("speech-44k-stereo")
        borders = [0, *itertools.accumulate(map(len, frames_of(sound, 417)))]
        for place in range(13000, 40000, 3100):
            file.write_bytes(sound)
            done = self.json("edit", "--snap", file, "seek", 3000, "delete", 2417, "seek", place, "undo",
                             "overwrite", SAMPLES / "insert-44k-stereo.mp3")["operations"][-1]
            self.assertIn(done["from"], borders)
            self.assertIn(done["from"] + done["replaced"], borders)

    def test_positions(self):
        long_file = self.dir / "long.mp3"  # more than an hour, 3000 bytes a second
        piece = sample("speech-16k-mono")
        long_file.write_bytes(piece * (12_000_000 // len(piece)))
        good = {"0": 0, "12345": 12345, "750ms": 2250, "0.5ms": 1, "62.5s": 187500, "2s": 6000,
                "1:02.5": 187500, "0:00.001": 3, "1:02:03.5": 11170500, "1m30s": 270000,
                "-5s": 255000, "+1500": 256500, "1h1m": 10980000, "end-3s": long_file.stat().st_size - 9000}
        good["90:00"] = good["end"] = good["9999999:00"] = long_file.stat().st_size
        operations = [word for text in good for word in ("seek", text)]
        done = self.json("edit", long_file, *operations)["operations"]
        self.assertEqual([each["position"] for each in done], list(good.values()))
        for text in ("+", "-", "end+1s", "+-1", "1m90s", "1m2m", "1m5ms", " 1", "1:60",
                     "60:60:00", "1:2:3:4", "1:", ":5", "5x", "1.5",
                     "4294967296", "0.0000001s", "0.0001ms", "ms", "s", "1e3s", "End", "5k",
                     "99999999s", "1:-5", "0x10"):
            failure = self.json("edit", self.file, "delete", "5", "seek", text, code=2)["failure"]
            self.assertEqual((failure["status"], failure["name"]), (25, "FFD_INVALID_PARAMETER"))
            self.assertEqual((failure["operation"], failure["file"]), ("seek", str(self.file)))
        self.assert_untouched()

    # ---- Editing ----

    def test_insert_in_the_middle(self):
        at = border(len(AUDIO) // 2)
        clip = CLIP * (700_000 // len(CLIP) + 1)  # goes in piece by piece
        self.clip.write_bytes(clip)
        expected = AUDIO[:at] + clip + AUDIO[at:]
        edit = self.json("edit", self.file, "map", "seek", at, "insert", self.clip, "show", "map",
                         "seek", 0, "read", "4294967295", "all")
        before, _, insert, show, after, *_ = edit["operations"]
        self.assertEqual([block["size"] for block in before["blocks"]], [len(AUDIO)])
        self.assertEqual((insert["from"], insert["bytes"]), (at, len(clip)))
        self.assertEqual(show["position"]["bytes"], at + len(clip))
        self.assertEqual(show["dictation"]["bytes"], len(expected))
        size, first = len(TAGGED), len(HEAD)
        columns = ("state", "file_from", "file_to", "dictation_from", "dictation_to", "size")
        self.assertEqual([tuple(block[key] for key in columns) for block in after["blocks"]], [
            ("live", first, first + at, 0, at, at),
            ("live", size, size + len(clip), at, at + len(clip), len(clip)),
            ("live", first + at, first + len(AUDIO), at + len(clip), len(expected),
             len(AUDIO) - at)])
        self.assertTrue(after["current"])
        self.assertEqual((self.dir / "all").read_bytes(), expected)
        self.assertEqual(edit["closed"], {"status": 0, "name": "FFD_NOERROR"})
        self.assertEqual(self.file.read_bytes(), HEAD + expected + TAIL)
        self.assertFalse(self.dir_file.exists())

    def test_overwrite_delete_undo_restore(self):
        edit = self.json(
            "edit", self.file, "seek", 1000, "overwrite", self.clip, "seek", 1000, "read", "1000",
            "over", "store", "delete", 300, "delete", 500, "undo", "map", "restore", "map", "show")
        done = edit["operations"]
        length = max(len(AUDIO), 1000 + len(CLIP))
        self.assertEqual(done[1]["replaced"], min(len(CLIP), len(AUDIO) - 1000))
        self.assertEqual((self.dir / "over").read_bytes(), CLIP[:1000])
        self.assertEqual([done[i]["deleted"]["bytes"] for i in (5, 6)], [300, 500])
        self.assertEqual(done[7]["brought_back"]["bytes"], 500)
        states = [block["state"] for block in done[8]["blocks"]]
        self.assertEqual(states.count("deleted"), 2)  # the overwrite's and the first delete's
        # What a restore changes reaches the .DIR file with the next edit only.
        self.assertTrue(done[8]["current"])
        self.assertFalse(done[10]["current"])
        self.assertEqual(done[11]["dictation"]["bytes"], length)
        self.assertEqual(done[11]["position"]["bytes"], 2000)
        # So does what the open repairs.
        self.file.write_bytes(AUDIO[:4000])
        self.dir_file.write_bytes(entry(1, 3000, 3900) + entry(1, 0, 3000))
        run = self.host("edit", self.file, "map")
        self.assertIn(b"follows the repair of the block", run.stderr)

    def test_edits_before_a_failure_are_kept(self):
        edit = self.json("edit", self.file, "insert", self.clip, "undo", "delete", 500, code=1)
        self.assertEqual((edit["failure"]["operation"], edit["failure"]["status"],
                          edit["failure"]["name"]), ("undo", 24, "FFD_NOTHING_TO_UNDO"))
        self.assertEqual([each["op"] for each in edit["operations"]], ["insert", "undo"])
        self.assertEqual(edit["closed"]["status"], 0)
        self.assertEqual(self.file.read_bytes(),
                         HEAD + CLIP + AUDIO + TAIL)

    def test_crash(self):
        at = border(3000)
        run = self.host("--json", "edit", self.file, "seek", at, "insert", self.clip, "crash",
                        "delete", 5000, code=3)
        self.assertTrue(json.loads(run.stdout)["crashed"])
        self.assertIn(b"a.DIR", run.stderr)
        self.assertEqual(self.json("info", self.file)["leftover_directory"]["size"], 65536)
        left = self.json("map", self.file)
        self.assertTrue(left["edited"])
        self.assertEqual([block["size"] for block in left["blocks"]],
                         [at, len(CLIP), len(AUDIO) - at])
        # As an interrupted close leaves it: reading points to the open that mends the file.
        self.file.rename(self.dir / "12345.MP3")
        for command in ("info", "map", "read"):
            self.assertIn(b"ffdhost recover", self.host(command, self.file, code=1).stderr)
        (self.dir / "12345.MP3").rename(self.file)
        self.json("edit", self.file, "show")
        self.assertEqual(self.host("read", self.file).stdout,
                         AUDIO[:at] + CLIP + AUDIO[at:])
        self.assertFalse(self.dir_file.exists())
        self.assertNotIn(b"interrupted", self.host("info", self.file).stderr)
        (self.dir / "a.CLM").write_bytes(b"")
        for command in ("info", "map"):
            self.assertIn(b"a close was interrupted", self.host(command, self.file).stderr)

    def test_interrupt(self):
        at = border(3000)
        temp = self.dir / "temp"
        temp.mkdir()
        for stop in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            self.file.write_bytes(TAGGED)
            run = subprocess.Popen([HOST, "edit", self.file, "seek", str(at)] +
                                   ["insert", self.clip] * 4000, cwd=self.dir,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env={**os.environ, "TMPDIR": str(temp)})
            for _ in range(5):
                run.stdout.readline()
            run.send_signal(stop)
            said = run.communicate()[1]
            self.assertEqual((run.returncode, list(temp.iterdir())), (-stop, []))
            self.assertIn(b"interrupted: the edits so far are kept", said)
            self.host("edit", self.file, "show")
            after = self.host("read", self.file).stdout
            inserts, rest = divmod(len(after) - len(AUDIO), len(CLIP))
            self.assertEqual(rest, 0)
            self.assertGreaterEqual(inserts, 3)  # two of the lines tell of the open and the seek
            self.assertEqual(after, AUDIO[:at] + CLIP * inserts + AUDIO[at:])

    def test_standard_input_and_output(self):
        at = border(3000)
        temp = self.dir / "temp"
        temp.mkdir()
        self.host("edit", self.file, "seek", at, "insert", "-", input=CLIP,
                  env={**os.environ, "TMPDIR": str(temp)})
        self.assertEqual(list(temp.iterdir()), [])
        self.assertEqual(self.host("read", self.file, "-o", "-").stdout,
                         AUDIO[:at] + CLIP + AUDIO[at:])

    def on_terminal(self, stream, *arguments, **environment):
        """What a terminal of 61 columns gets to see of one of the two streams."""
        keyboard, screen = pty.openpty()
        fcntl.ioctl(screen, termios.TIOCSWINSZ, struct.pack("4H", 20, 61, 0, 0))
        subprocess.run([HOST, *map(str, arguments)], cwd=self.dir, **{stream: screen},
                       env={**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", **environment})
        os.close(screen)
        text = b""
        with contextlib.suppress(OSError):  # the end
            while True:
                text += os.read(keyboard, 10000)
        os.close(keyboard)
        return text.decode()

    def test_colour(self):
        self.assertIn("\033[", self.on_terminal("stderr", "info", "none.mp3"))
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            self.assertNotIn("\033", self.on_terminal("stderr", "info", "none.mp3", **environment))
        self.assertNotIn(b"\033", self.host("info", "none.mp3", code=1).stderr)

    def test_names_of_others(self):
        """Nothing in a name reaches a terminal as a command, or a shell as more than a word."""
        for name, shown in (
                (b"a'$(touch x)`touch x`\\'\".mp3", None), (b"-a!! ;&|~*#=%.mp3", None),
                (b"a\x1b[2K\r\n\t\x7f.mp3", rb"a\x1B[2K\x0D\x0A\x09\x7F.mp3"),
                (b"\xc2\x9b\xe2\x80\xae\xe2\x81\xa6.mp3", rb"\u009B\u202E\u2066.mp3"),
                (b"\xff\xc0\xaf\xed\xa0\x80\xc3\xa4.mp3",
                 rb"\xFF\xC0\xAF\xED\xA0\x80" b"\xc3\xa4.mp3")):
            path = os.fsencode(self.dir) + b"/" + name
            pathlib.Path(os.fsdecode(path)).write_bytes(AUDIO)
            pathlib.Path(os.fsdecode(path[:-4] + b".CLM")).write_bytes(b"")
            for json_flag in ((), ("--json",)):
                run = subprocess.run([HOST, *json_flag, "info", "--", name], capture_output=True,
                                     cwd=self.dir, check=True)
                said = (run.stdout + run.stderr).decode()
                self.assertFalse([letter for letter in said if letter != "\n" and (
                    ord(letter) < 32 or 127 <= ord(letter) < 160 or letter in "\u202e\u2066")])
            self.assertEqual(json.loads(run.stdout)["files"][0]["file"], name.decode(errors="replace"))
            warning, word = run.stderr.strip().split(b" run: ffdhost recover --copy -- ")
            self.assertIn((shown or name) + b": a close", warning)
            for shell in ("bash", "sh"):
                told = subprocess.run([shell, "-c", rb"printf '%s\0' " + word], cwd=self.dir,
                                      capture_output=True).stdout
                self.assertEqual(told.count(b"\0"), 1)
                self.assertTrue(told == name + b"\0" or shell == "sh", (told, word))
        self.assertFalse((self.dir / "x").exists())

    # ---- The map drawn ----

    def edit_for_a_map(self):
        """Inserts the clip at 24000 and deletes 2000 bytes at 10000: of 96966 bytes, 94966 play."""
        self.file.write_bytes(TAGGED + CLIP)
        self.dir_file.write_bytes(entry(1, 0, 10000) + entry(11, 10000, 12000) +
                                  entry(1, 12000, 24000) + entry(1, 80585, 97094) +
                                  entry(1, 24000, 80457))

    def picture(self, name, plays, audio):
        """The kinds of both lanes and the titles of the bands; checks the widths of the lanes."""
        text = self.host("map", self.dir / name, "--svg", "-").stdout
        root = xml.etree.ElementTree.fromstring(text.decode("utf-8"))
        groups = {group.get("id"): list(group) for group in root.iter(SVG + "g")}
        lanes = [[piece for piece in groups[lane] if piece.tag == SVG + "rect"]
                 for lane in ("playing", "file")]
        widths = [sum(float(piece.get("width")) for piece in lane) for lane in lanes]
        self.assertAlmostEqual(widths[0], widths[1] * plays / audio, delta=1)
        self.assertLess(len(text), 150_000)
        self.assertFalse({"href", "src"} & {key for each in root.iter() for key in each.keys()})
        return (*([piece.get("class") for piece in lane] for lane in lanes),
                [band.findtext(SVG + "title") for band in groups["bands"] if len(band)], root)

    def test_picture(self):
        self.edit_for_a_map()
        for stem, shown in (('a<&">', 'a<&">'), ("a\udcff\x1b\uffff", "a\\xFF\\x1B\\uFFFF")):
            for path in (self.file, self.dir_file):
                shutil.copy(path, self.dir / (stem + path.suffix))
            playing, lying, bands, root = self.picture(stem + ".mp3", 94966, 96966)
            self.assertEqual(playing, ["old", "old", "new", "old"])
            self.assertEqual(lying, ["old", "undo", "old", "old", "new"])
            self.assertEqual([title[:7] for title in bands], [f"block {i}" for i in range(5)])
            self.assertEqual(root.findtext(SVG + "title"), f"Map of {shown}.mp3")
            self.assertIn("ID3v1 1.1, 128 bytes", [each.text for each in root.iter(SVG + "text")])
        self.dir_file.unlink()
        self.file.write_bytes(TAGGED)
        self.assertEqual(self.picture("a.mp3", 1, 1)[:3], (["old"], ["old"], ["block 0"]))
        self.assert_untouched()

    def test_picture_of_a_full_directory(self):
        for order in (range(5461), [i * 1000 % 5461 for i in range(5461)]):
            self.dir_file.write_bytes(b"".join(
                entry(3 if i % 5 == 0 else 1, i * 14, i * 14 + 14) for i in order))
            bands = self.picture("a.mp3", 4368 * 14, 5461 * 14)[2]
            self.assertEqual(sum(int(title.split()[0]) for title in bands), 4368)

    def test_strip(self):
        self.edit_for_a_map()
        coloured = self.on_terminal("stdout", "map", self.file)
        self.assertIn("\033[", coloured)
        lines = self.on_terminal("stdout", "map", self.file, NO_COLOR="1").splitlines()
        at = next(i for i, line in enumerate(lines) if set(line) == set("▒█u"))
        # The cut at 10000, and the new audio from 22000 to 38509, of 94966 bytes.
        self.assertEqual(lines[at], 6 * "▒" + "u" + 7 * "▒" + 11 * "█" + 36 * "▒")
        self.assertEqual(lines[at + 1].index("|0:02"), 10)
        self.assertNotIn("\033", "".join(lines))
        self.assertEqual(re.sub("\033[^m]*m", "", coloured).splitlines(), lines)
        ascii_lines = self.on_terminal("stdout", "map", self.file, LC_ALL="C").splitlines()
        self.assertTrue(all(line.isascii() for line in ascii_lines))
        self.assertNotIn("█", self.host("map", self.file).stdout.decode())
        self.assertTrue(json.loads(self.on_terminal("stdout", "--json", "map", self.file)))

    # ---- Files of parts ----

    def test_split_and_join(self):
        length = border(300)
        info = AUDIO[:4] + bytes(9) + b"Info" + bytes(length - 17)
        self.file.write_bytes(HEAD + info + AUDIO[length:] + TAIL)
        original = self.file.read_bytes()
        places = [border(place) for place in (length, 8000, 24100)]
        places += [border(len(AUDIO) - 2999), len(AUDIO)]
        parts = self.json("split", self.file, places[1] + 100, "+2s",
                          f"end-{len(AUDIO) - places[3]}")["parts"]
        names = [f"a-{number}.mp3" for number in range(1, 5)]
        self.assertEqual([os.path.basename(part["file"]) for part in parts], names)
        for name, begin, end in zip(names, places, places[1:]):
            self.assertEqual((self.dir / name).read_bytes(), AUDIO[begin:end], name)
        joined = self.json("join", "new.mp3", self.file, *names)
        audio = AUDIO[length:]
        self.assertEqual((self.dir / "new.mp3").read_bytes(), audio + audio)
        self.assertEqual(joined["dictation"]["bytes"], len(audio) * 2)
        self.host("split", self.file, *range(8000, 76000, 8000), "-o", self.dir / "p")
        self.host("join", "--force", "new.mp3", *sorted(self.dir.glob("p-*.mp3")))
        self.assertEqual((self.dir / "new.mp3").read_bytes(), audio)
        self.assertEqual(len(list(self.dir.glob("p-??.mp3"))), 10)
        # A last frame that is cut off is in no part.
        self.clip.write_bytes(CLIP[:-100])
        self.json("join", "--force", "new.mp3", self.clip)
        self.assertTrue(CLIP.startswith((self.dir / "new.mp3").read_bytes()))
        self.assertIn(len(CLIP) - (self.dir / "new.mp3").stat().st_size, (208, 209))

        self.copy("speech-44k-stereo", "other.mp3")
        edited = self.copy("speech-16k-mono", "edited.mp3")
        self.host("edit", edited, "delete", 500, "crash", code=3)
        before = {path: path.read_bytes() for path in self.dir.iterdir()}
        for arguments, words, code in (
                (("split", self.file, "1s"), "a-1.mp3: the name is taken", 1),
                (("split", self.file, "-o", "x", "2s", "1s"), "nothing would be left", 1),
                (("split", self.file, "-o", "x", "0"), "nothing would be left", 1),
                (("split", self.file, "-o", "x", "1h"), "nothing would be left", 1),
                (("split", self.file, "-o", "x", "soon"), "'soon' is no position", 2),
                (("split", self.file, "-o", "x/x", "1s"), "no file can be written there", 1),
                (("split", edited, "1s"), "edits of a session that did not close", 1),
                (("join", "new.mp3", self.file), "the name is taken", 1),
                (("join", "--force", "a.mp3", self.clip, self.file), "overwrite the file", 1),
                (("join", "x.mp3", self.file, "other.mp3"), "44100 Hz, that of", 1),
                (("join", "x.mp3", self.file, edited), "its bitrate is 24", 1),
                (("join", "edited.wav", self.file), "has left edits for a file of this name", 1),
                (("join", "x.mp3", self.file, "none.mp3"), "none.mp3: there is no such file", 1)):
            self.assertIn(words, self.host(*arguments, code=code).stderr.decode(), arguments)
            self.assertEqual({path: path.read_bytes() for path in self.dir.iterdir()}, before)
        self.assertEqual(self.file.read_bytes(), original)

    def test_outputs_that_are_stopped(self):
        join = "join", "new.mp3", *[self.file] * 2000
        self.host(*join)
        (self.dir / "new.mp3").rename(self.dir / "all.mp3")
        for command, made in ((join, []), (("read", "all.mp3", "-o", "new.mp3"), []),
                              (("edit", "--backup", "all.mp3", "show"), ["all.kept"])):
            for stop in signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL:
                run = subprocess.Popen([HOST, *command], cwd=self.dir, stderr=subprocess.PIPE)
                while not list(self.dir.glob("*.ffdpart")) + list(self.dir.glob("*.kept/*")):
                    self.assertIsNone(run.poll())
                run.send_signal(stop)
                said = run.communicate()[1]
                self.assertEqual(run.returncode, -stop)
                if stop != signal.SIGKILL:
                    self.assertIn(b"interrupted", said)
                    self.assertEqual(list(self.dir.glob("new*")) + list(self.dir.glob("*.kept")), [])
            self.host(*command)  # takes the place of what was killed
            self.assertEqual([path.name for path in self.dir.glob("new*")], [] if made else ["new.mp3"])
            (self.dir / "new.mp3").unlink(missing_ok=True)

    # ---- What is refused ----

    def test_damaged_directory_files(self):
        self.assertFalse(self.json("map", self.file)["edited"])
        good = entry(1, 0, 300) + entry(3, 300, 400) + entry(11, 500, 500) + entry(1, 400, 500)
        self.dir_file.write_bytes(good)
        blocks = self.json("map", self.file)["blocks"]
        self.assertEqual([(block["state"], block["dictation_from"]) for block in blocks],
                         [("live", 0), ("deleted", None), ("deleted, undoable", None),
                          ("live", 300)])
        for damaged in (good + b"\1\0\0", entry(2, 0, 300), entry(1, 300, 0), entry(1, 0, 9, 1),
                        entry(1, 0, 300) + entry(3, 299, 301), entry(1, 0, 0) * 5462,
                        bytes(16 * 1024 * 1024 + 1)):
            self.dir_file.write_bytes(damaged)
            failure = self.json("map", self.file, code=1)["failure"]
            self.assertEqual((failure["status"], failure["name"], failure["file"]),
                             (31, "FFD_DIRECTORY_MISMATCH", str(self.dir_file)), damaged[:24])
        for unused in (b"", bytes(65536), entry(1, 0, 0)):
            self.dir_file.write_bytes(unused)
            self.assertFalse(self.json("map", self.file)["edited"], unused[:24])

    def test_clips_of_another_format(self):
        other = self.copy("speech-44k-stereo", "other.mp3")
        said = self.host("edit", self.file, "insert", other, code=1).stderr.decode()
        for words in ("insert failed", str(other), "FFD_NOT_SUPPORTED (19)", "44100 Hz",
                      "128 kbit/s", "--force"):
            self.assertIn(words, said)
        forced = self.host("edit", "--force", self.file, "insert", other, "crash", code=3)
        self.assertIn(b"does not fit", forced.stderr)
        self.assertEqual(self.file.read_bytes(), TAGGED + sample("speech-44k-stereo"))


if __name__ == "__main__":
    unittest.main()
