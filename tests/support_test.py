"""Holds 'ffdhost check' and 'ffdhost recover' against what the driver then does, on files in many
states. FFDHOST names the program, FFD_SAMPLES the directory of the samples."""

import json
import os
import pathlib
import random
import shutil
import struct
import subprocess
import unittest
import zlib

from json_page import Page
from sandbox import AUDIO, HOST, SAMPLES, TAGGED, Sandbox, entry, frames_of, sample

STEREO = sample("speech-44k-stereo")
NAME = "1795385906.MP3"


def fingerprint(data):
    value = 0xCBF29CE484222325
    for (word,) in struct.iter_unpack("<Q", data + bytes(-len(data) % 8)):
        value = (value ^ word) * 0x100000001B3 & 0xFFFFFFFFFFFFFFFF
        value ^= value >> 32
    return value


def marker(old, new, sound="a.mp3", rebuilt=NAME):
    """The marker of a close that was to put the bytes `new` in the place of `old`."""
    rest = struct.pack("<IIIQ260s260s", len(old), len(new), 0,
                       fingerprint(new) if len(old) == len(new) else 0, sound.encode(),
                       rebuilt.encode())
    return b"XKIVCLM1" + struct.pack("<I", zlib.crc32(rest)) + rest


class SupportTest(Sandbox):
    def setUp(self):
        super().setUp()
        self.root = self.dir
        self.dir = self.root / "folder"
        self.clip = shutil.copy(SAMPLES / "insert-22k-mono.mp3", self.root / "clip.mp3")

    def host(self, *arguments, where=None):
        run = subprocess.run([HOST, "--json", *map(str, arguments)], capture_output=True,
                             cwd=where or self.dir)
        self.assertIn(run.returncode, (0, 1, 3), (arguments, run.stderr[-600:]))
        document = json.loads(run.stdout)
        Page().check(document)
        return run.returncode, document["files"][0] if "files" in document else document

    def make(self, files):
        shutil.rmtree(self.dir, ignore_errors=True)
        self.dir.mkdir()
        for name, data in files.items():
            if data is None:
                (self.dir / name).mkdir()
            else:
                (self.dir / name).write_bytes(data)

    def seen(self, where=None):
        """Names, bytes and times of everything in the folder."""
        files = sorted((where or self.dir).rglob("*"))
        return [(path.name, path.stat().st_mtime_ns, path.is_file() and path.read_bytes())
                for path in files]

    def crashed(self, sound, *operations):
        """The files that a crash behind the operations leaves."""
        self.make({"a.mp3": sound})
        self.assertEqual(self.host("edit", "--force", "a.mp3", *operations, "crash")[0], 3)
        return {path.name: path.read_bytes() for path in self.dir.iterdir()}

    def check(self, name="a.mp3"):
        """The result of check, which must change nothing in the folder."""
        before, folder = self.seen(), self.dir.stat().st_mtime_ns
        code, result = self.host("check", name)
        self.assertEqual((self.seen(), self.dir.stat().st_mtime_ns), (before, folder))
        self.assertEqual(result["ok"], code == 0)
        self.assertEqual(code == 1, any(each["level"] == "attention"
                                        for each in result["findings"]))
        self.assertNotIn("disagreement", [each["code"] for each in result["findings"]])
        return result

    def agree(self, files, verdict=None, name="a.mp3"):
        """Checks the files, and lets the driver open them for writing, and close them."""
        self.make(files)
        result = self.check(name)
        told = result["next_open"]
        if verdict:
            self.assertEqual(result["verdict"]["code"], verdict, result["verdict"]["text"])
        names = {path.name for path in self.dir.iterdir()}
        for step in told["steps"]:
            names.remove(step["file"])
            if step["new_name"]:
                names.add(step["new_name"])
        copy = self.root / "copy"
        shutil.rmtree(copy, ignore_errors=True)
        shutil.copytree(self.dir, copy)

        code, opened = self.host("edit", name, "show", "crash", where=copy)
        self.assertEqual(code == 3, told["status"] == 0, told)
        left = {path.name for path in copy.iterdir()}
        directory = pathlib.Path(name).stem + ".DIR"
        if told["status"] == 0:
            self.assertEqual(opened["operations"][0]["dictation"], told["dictation"])
            self.assertEqual(left, names | {directory})
        else:
            self.assertEqual(opened["failure"]["status"], told["status"])
            if "a.DIR" in files and files["a.DIR"]:  # or else the host does not ask the driver
                self.assertEqual(left | {directory}, names | {directory})

        before, inode = self.seen(), self.inode(name)
        close = told["close"] or {"status": told["status"]}
        closed = self.foretold_bytes(close["after"]["parts"]) if told["close"] else None
        if told["close"]:
            self.assertEqual(close["needed_bytes"], close["rebuild"] * result["sound"]["size"])
        code, recovery = self.host("recover", name)
        if close["status"] == 0 and (close["after"]["status"]
                                     or close["rebuild"] and told["unnamed_bytes"]):
            self.assertEqual((code, recovery["failure"]["status"], self.seen()), (1, 31, before))
            code, recovery = self.host("recover", "--copy", name)
            names.add("a.kept")
        self.assertEqual(code == 0, close["status"] == 0)
        if code == 0:
            if "a.CLM" in names and close["rebuild"]:  # somebody's file
                names = names - {"a.CLM"} | {"a.CLM.bad"}
            self.assertEqual({path.name for path in self.dir.iterdir()}, names - {directory})
            if "closed" in recovery and name not in [step["new_name"] for step in told["steps"]]:
                self.assertEqual(self.inode(name) != inode, close["rebuild"])
            self.assertEqual(recovery.get("dictation", told["dictation"]), told["dictation"])
            if "closed" in recovery:
                self.assertEqual("stays the same" in close["reason"], close["rebuild"] and
                                 closed == (copy / name).read_bytes())
                self.assertEqual((self.dir / name).read_bytes(), closed)
            if "after" in recovery:
                after = recovery["after"]
                self.assertEqual(after["next_open"]["status"], close["after"]["status"])
                self.assertEqual(after["sound"]["size"], close["after"]["size"])
                if close["after"]["status"] == 0:
                    self.assertEqual(after["next_open"]["dictation"], close["after"]["dictation"])
        else:
            self.assertEqual((recovery["failure"]["status"], self.seen()), (told["status"], before))
        return result

    def foretold_bytes(self, parts):
        """The file that a close leaves, out of the parts that check tells of."""
        return b"".join(
            (self.dir / part["file"]).read_bytes()[part["file_offset"]:][:part["size"]]
            if "file" in part else bytes.fromhex(part["bytes"]) for part in parts)

    def inode(self, name):
        path = self.dir / name
        return path.stat().st_ino if path.exists() else None

    # ---- What is beside the file ----

    def test_edits_of_a_crash(self):
        for sound in (TAGGED, AUDIO):
            for operations in ((), ("seek", 24000, "insert", self.clip),
                               ("seek", 9999, "delete", 5000, "undo", "delete", 700),
                               ("seek", "end", "insert", self.clip),
                               ("seek", 100, "overwrite", self.clip, "insert", self.clip)):
                files = self.crashed(sound, *operations)
                self.agree(files, "edits_waiting" if operations else "sound")
                # The file cut behind the crash, and longer than the directory knows.
                for cut in (1, 208, 16509, 16510, 60000):
                    self.agree({**files, "a.mp3": files["a.mp3"][:-cut]})
                self.agree({**files, "a.mp3": files["a.mp3"] + AUDIO[:2085]})
                self.agree({**files, "a.mp3": STEREO})

        # Bytes behind this cut look like the header of a frame of another bitrate.
        self.agree(self.crashed(TAGGED, "seek", 40589, "delete", 529), "edits_waiting")
        self.agree(self.crashed(TAGGED, "delete", 99999), "close_spoils")

        # The command to type is one that a shell takes.
        self.make({"a $b.mp3": AUDIO, "a $b.DIR": entry(1, 0, 300)})
        told = subprocess.run([HOST, "check", "a $b.mp3"], capture_output=True, cwd=self.dir)
        self.assertIn(b" Run: ffdhost recover --copy -- 'a $b.mp3'\n", told.stdout)

        # The length after a close is that of the whole frames in the file.
        self.make(self.crashed(TAGGED, "seek", 12345, "delete", 1000))
        told = subprocess.run([HOST, "recover", "a.mp3"], capture_output=True, cwd=self.dir, text=True)
        _, after = self.host("check", "a.mp3")
        self.assertRegex(told.stdout,
                         rf"\nClosed .*\({after['next_open']['dictation']['bytes']} bytes\)\n")

    def test_what_is_missing_and_what_is_not_named(self):
        size = len(AUDIO)  # audio positions are file offsets here
        missing = self.agree({"a.mp3": AUDIO, "a.DIR": entry(1, 0, 900)
                              + entry(1, size + 100, size + 300) + entry(3, 2000, 2300)})
        self.assertEqual(missing["next_open"]["missing_bytes"], 200)
        # From 900 to the next frame is what trailed the audio, by the rules of recovery.
        frame = min(AUDIO.find(b"\xff\xf3" + bytes((byte,)), 900) for byte in (0x80, 0x82)
                    if AUDIO.find(b"\xff\xf3" + bytes((byte,)), 900) > 0)
        self.assertEqual(missing["next_open"]["unnamed_bytes"], 2000 - frame + size - 2300)
        repaired = self.agree({"a.mp3": AUDIO[:4000], "a.DIR": entry(1, 3000, 3900)
                               + entry(1, 0, 3000)}, "edits_waiting")["next_open"]
        self.assertEqual((repaired["directory"], repaired["dictation"]["bytes"]),
                         ("taken over and repaired", 4000))
        self.assertIn("position 3000 has 1000 bytes instead of 900", repaired["repair"])

    def test_torn_directories(self):
        files = self.crashed(TAGGED, "seek", 24000, "insert", self.clip, "seek", 5, "delete", 999)
        good = files["a.DIR"]
        used = good.index(bytes(12), 48)
        chance = random.Random(7)
        torn = [good[:size] for size in (1, 11, 12, 13, 24, 36, used, used + 1, 65535)]
        for _ in range(40):
            image = bytearray(good)
            image[chance.randrange(used + 1)] ^= 1 << chance.randrange(8)
            torn.append(bytes(image))
        damaged = {self.agree({**files, "a.DIR": image})["next_open"]["directory"]
                   for image in torn}
        self.assertEqual(damaged, {"taken over", "taken over and repaired", "set aside"})
        # A block grows only if it is the last in the file, and an empty one not beside another.
        for image in (entry(1, 100, 700) + entry(1, 1000, 1100),
                      entry(1, 0, 700) + entry(1, 700, 700), entry(1, 700, 700) + entry(1, 0, 700)):
            self.agree({"a.mp3": AUDIO, "a.DIR": image})
        seen = self.agree({**files, "a.DIR": good[:13], "a.DIR.bad": b"x", "a.DIR.bad1": b"y",
                           "b.DIR.bad": b"", "a.DIR.bad1x": b"", NAME: b"", "0001.MP3": b"",
                           NAME + "x": b""}, "directory_damaged")
        self.assertEqual((seen["copies"], seen["set_aside"]), ([NAME], ["a.DIR.bad", "a.DIR.bad1"]))
        for image, verdict in ((b"", "sound"), (bytes(65536), "sound"), (entry(1, 0, 0), "sound"),
                               (bytes(16 * 1024 * 1024 + 1), "directory_damaged"),
                               (None, "refused")):
            self.agree({"a.mp3": TAGGED, "a.DIR": image}, verdict)

    def test_markers(self):
        edits = self.crashed(AUDIO, "seek", 24000, "insert", self.clip)
        old, directory = edits["a.mp3"], edits["a.DIR"]
        new = AUDIO[:3000] + AUDIO[:6270]
        moved = bytes(reversed(old))  # of the same size
        mark = marker(old, new)
        for files, directory_left in (
                ({"a.mp3": old, NAME: new}, "taken over"),
                ({"a.mp3": old, NAME: new[:-1]}, "taken over"),
                ({"a.mp3": old + b"x", NAME: new}, "gone with the interrupted close"),
                ({NAME: new}, "gone with the interrupted close"),
                ({"a.mp3": new}, "gone with the interrupted close"),
                ({"a.mp3": old}, "taken over"),
                ({"a.mp3": AUDIO}, "gone with the interrupted close")):
            result = self.agree({**files, "a.DIR": directory, "a.CLM": mark}, "close_interrupted")
            self.assertEqual(result["next_open"]["directory"], directory_left, files.keys())
        for files in ({NAME: new[:-1]}, {}):
            self.agree({**files, "a.DIR": directory, "a.CLM": mark}, "refused")
        self.agree({"a.mp3": old, "a.CLM": mark}, "close_interrupted")
        # Of one size the fingerprint decides.
        order = old[24000:] + old[:24000]
        for sound, there in ((old, "taken over"), (order, "gone with the interrupted close")):
            told = self.agree({"a.mp3": sound, "a.DIR": directory, "a.CLM": marker(old, order)})
            self.assertEqual(told["next_open"]["directory"], there)
        for verdict, images in (
                ("marker_not_whole", (b"", mark[:-1], mark[:20] + b"\1" + mark[21:])),
                ("edits_waiting",  # it is somebody's file
                 (mark + b"x", marker(old, new, "b.mp3"), marker(old, new, "../a.mp3"),
                  marker(old, new, rebuilt="../x.MP3"), marker(old, moved, rebuilt=".x")))):
            for image in images:
                self.agree({"a.mp3": old, NAME: new, "a.DIR": directory, "a.CLM": image}, verdict)
        self.agree({"a.mp3": old, NAME: new, "a.mpga": old, "a.DIR": directory,
                    "a.CLM": marker(old, new, "a.mpga")}, "refused")

    def test_files_in_use(self):
        self.make({"a.mp3": AUDIO})
        os.mkfifo(self.root / "pipe")
        run = subprocess.Popen([HOST, "edit", "a.mp3", "delete", "500", "read", "5",
                                self.root / "pipe"], cwd=self.dir, stdout=subprocess.PIPE)
        for _ in range(2):
            run.stdout.readline()  # the file is open, and the delete is done
        self.assertEqual(self.check()["verdict"]["code"], "in_use")
        for options in ((), ("--info-frame",)):
            code, refused = self.host("recover", *options, "a.mp3")
            self.assertEqual((code, refused["failure"]["status"]), (1, 29))
        self.assertEqual(len((self.root / "pipe").read_bytes()), 5)
        run.communicate()
        self.assertEqual(run.returncode, 0)
        self.assertEqual(self.check()["verdict"]["code"], "sound")

    # ---- The file itself ----

    def test_frames(self):
        frames = list(frames_of(AUDIO))[:12]
        ten, more = b"".join(frames[:10]), b"".join(frames[10:])
        at = len(ten)
        stereo = STEREO[:417 + (STEREO[2] >> 1 & 1)]
        slower = ten[:2] + bytes((ten[2] & 0x0D | 0x70,)) + ten[3:182]  # 56 kbit/s
        two_channels = ten[:3] + b"\0" + ten[4:208]

        def walked(data, verdict):
            return self.agree({"a.mp3": data}, verdict)["sound"]["frames"]

        self.assertEqual(walked(TAGGED, "sound")["file_from"], 202)
        vbr = walked(ten + slower + more, "refused")
        self.assertEqual(vbr["bitrates"], [{"bitrate": 56, "frames": 1},
                                           {"bitrate": 64, "frames": 12}])
        self.assertEqual(vbr["different"], {"count": 1, "first": {
            "number": 11, "file_offset": at, "differences": [
                {"what": "bitrate", "expected": "64 kbit/s", "found": "56 kbit/s"}]}})
        mixed = walked(ten + stereo + more, "bytes_between_frames")
        self.assertEqual(mixed["different"]["first"]["number"], 11)
        self.assertEqual([each["what"] for each in mixed["different"]["first"]["differences"]],
                         ["MPEG version", "sampling rate", "bitrate", "channels"])
        self.assertEqual(mixed["gaps"], {"count": 1, "bytes": len(stereo), "first": {
            "kind": "frames of another kind", "file_offset": at, "size": len(stereo)}})
        self.assertEqual(walked(ten + two_channels + more, "sound")["different"]["count"], 1)
        gaps = walked(TAGGED[:202] + ten + b"TAG" + bytes(125) + more + b"noise" + ten,
                      "bytes_between_frames")["gaps"]
        self.assertEqual(gaps, {"count": 2, "bytes": 133, "first": {
            "kind": "ID3v1 tag", "file_offset": 202 + at, "size": 128}})
        for tail, by_tag in ((b"", False), (b"TAG" + bytes(125), True)):
            cut = walked(ten + frames[10][:150] + tail, "last_frame_cut")["cut"]
            self.assertEqual(cut, {"number": 11, "file_offset": at, "by_tag": by_tag,
                                   "missing_bytes": len(frames[10]) - 150})
        info = ten[:4] + bytes(9) + b"Info\0\0\0\1\0\0\3\xe7" + ten[25:]
        self.assertEqual(walked(info, "sound")["info_frame"],
                         {"kind": "Info", "frames": 999, "bytes": None, "wrong": True})
        # Counts that edits are about to change are left to the close.
        self.make({"a.mp3": info, "a.DIR": entry(1, 0, 300)})
        before = self.seen()
        code, refused = self.host("recover", "--info-frame", "a.mp3")
        self.assertEqual((code, refused["failure"]["status"], self.seen()), (1, 5, before))

    def test_what_is_refused(self):
        tag = b"ID3\4\0\0\0\0\0\x05" + bytes(5)
        for files, status in (
                ({"a.mp3": sample("speech-vbr")}, 19),
                ({"a.mp3": b"no frame"}, 9), ({"a.mp3": b""}, 9), ({"a.mp3": AUDIO[:4]}, 9),
                ({"a.mp3": b"ID3\3\0\0\x7f\x7f\x7f\x7f" + AUDIO}, 26), ({"a.mp3": tag}, 26),
                ({"a.mp3": tag + b"ID"}, 26), ({"a.mp3": tag + b"x"}, 9),
                ({"a.mp3": b"ID3\5" + tag[4:] + AUDIO[:900]}, 0),
                ({"a.DIR": entry(1, 0, 9)}, 29)):
            self.assertEqual(self.agree(files)["next_open"]["status"], status, files)
        self.agree({".mp3": AUDIO}, "refused", ".mp3")
        self.agree({"a.DIR": AUDIO}, "refused", "a.DIR")
        # The driver searches in blocks of 1024 bytes, and passes over a header at some ends.
        for size in range(1020, 1034):
            for header in (4, 5, 6, 7, 8):
                self.make({"a.mp3": AUDIO[:208] + bytes(size - header) + AUDIO[:header]})
                self.check()

    # ---- A session that only pretends ----

    def test_dry_run(self):
        """Changes nothing, and tells what the same session then does."""
        out = self.dir / "out.mp3"
        session = ("insert", self.clip, "seek", 24000, "insert", self.clip, "store", "delete", 700,
                   "read", 100, out, "restore", "seek", 999, "overwrite", self.clip, "map")
        for files, last, code in (({"a.mp3": TAGGED}, "show", 0),
                                  ({"a.mp3": TAGGED, "a.DIR": entry(1, 0, 300)}, "crash", 3),
                                  ({NAME: TAGGED, "a.CLM": marker(AUDIO, TAGGED),
                                    "a.DIR": entry(1, 0, 300)}, "show", 0)):
            self.make(files)
            before = self.seen(), self.dir.stat().st_mtime_ns, sorted(self.root.iterdir())
            backup = ("--backup",) if "a.CLM" not in files else ()
            told_code, told = self.host("edit", "--dry-run", *backup, "a.mp3", *session, last)
            self.assertEqual((self.seen(), self.dir.stat().st_mtime_ns,
                              sorted(self.root.iterdir())), before)
            done_code, done = self.host("edit", *backup, "a.mp3", *session, last)
            self.assertEqual((told_code, done_code), (code, code))
            self.assertEqual(told["operations"], done["operations"])
            taken_over = 1 if "a.DIR" in files and backup else 0
            self.assertEqual((told["taken_over_blocks"], done["taken_over_blocks"]), (taken_over,) * 2)
            sizes = {}
            for change in told["changes"]:
                name = change["file"]
                sizes[name] = change["size_after"]
                if change["change"] in ("rename", "remove"):
                    del sizes[name]
                if "new_name" in change:
                    sizes[change["new_name"]] = change["size_after"]
            self.assertEqual({name: size for name, size in sizes.items() if name[-4:] not in (".csf", "kept")},
                             {str(path): path.stat().st_size for path in self.dir.rglob("*.*") if path.is_file()})

    # ---- The copy ----

    def test_copy(self):
        edits = self.crashed(TAGGED, "seek", 24000, "insert", self.clip)
        mark = marker(edits["a.mp3"], AUDIO)
        self.make({**edits, "a.CLM": mark, NAME: AUDIO, "a.kept": b"mine", "other.mp3": b"x"})
        before = {path.name: (path.read_bytes(), path.stat().st_mtime_ns)
                  for path in self.dir.iterdir()}
        code, recovery = self.host("recover", "--copy", "a.mp3")
        kept = self.dir / "a.kept1"
        self.assertEqual((code, recovery["copy"]), (0, [
            f"a.kept1/{name}" for name in ("a.mp3", "a.DIR", "a.CLM", NAME)]))
        self.assertEqual({path.name: (path.read_bytes(), path.stat().st_mtime_ns)
                          for path in kept.iterdir()},
                         {name: before[name] for name in ("a.mp3", "a.DIR", "a.CLM", NAME)})
        self.assertEqual((self.dir / "a.kept").read_bytes(), b"mine")
        self.assertEqual(self.host("recover", "a.mp3", where=kept)[0], 0)
        self.assertEqual((kept / "a.mp3").read_bytes(), (self.dir / "a.mp3").read_bytes())
        code, again = self.host("recover", "--copy", "a.mp3")
        self.assertEqual((code, again["copy"], (self.dir / "a.kept2").exists()), (0, None, False))


if __name__ == "__main__":
    unittest.main()
