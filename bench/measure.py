"""What the scripts of this folder share: making the files, running jobs in turn, medians."""

import math
import os
import pathlib
import random
import shutil
import struct
import subprocess
import time
from statistics import median

TOP = pathlib.Path(__file__).resolve().parent.parent
HOUR_FRAMES = 155871
HOUR_BYTES_PER_SECOND = 16000


class Skipped(Exception):
    """A job that can't be done here, with the reason."""


def flush(path):
    """Waits until the bytes of the file are on the disk."""
    descriptor = os.open(path, os.O_RDWR)
    try:
        os.fdatasync(descriptor)
    finally:
        os.close(descriptor)


def copy_of(source, target):
    """A fresh copy, on the disk and in the page cache, with nothing of an earlier job beside it."""
    for suffix in (".mp3", ".DIR", ".CLM"):
        target.with_suffix(suffix).unlink(missing_ok=True)
    for suffix in (".plain", ".plain.DIR"):
        pathlib.Path(str(target) + suffix).unlink(missing_ok=True)
    shutil.copyfile(source, target)
    flush(target)
    return target


def make_hour(path):
    """An hour of speech and some more, by the encoder: 128 kbit/s, 44100 Hz stereo, no tag, no
    information frame, and that many frames; checked, whether made now or found."""
    if not path.exists():
        sample = TOP / "tests" / "samples" / "speech-44k-stereo.mp3"
        unfinished = path.with_suffix(".part")
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-stream_loop", "-1", "-i", sample, "-t",
                        "4071.7", "-c:a", "libmp3lame", "-b:a", "128k", "-write_xing", "0",
                        "-id3v2_version", "0", "-write_id3v1", "0", "-f", "mp3", unfinished],
                       check=True)
        unfinished.rename(path)
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_packets", "-show_entries",
                            "stream=codec_name,sample_rate,channels,bit_rate,nb_read_packets",
                            "-of", "csv=p=0", path], check=True, capture_output=True, text=True)
    if probe.stdout.strip() != f"mp3,44100,2,128000,{HOUR_FRAMES}":
        raise SystemExit(f"{path} is not the file that was meant: {probe.stdout.strip()}")
    return path


def make_bytes(path, hour, size):
    """A file of whole frames of the hour, of nearly this size: its front, or copies of it."""
    whole = hour.read_bytes()
    with open(path, "wb") as file:
        left = size
        while left >= len(whole):
            file.write(whole)
            left -= len(whole)
        # 49 frames of 128 kbit/s at 44100 Hz have 20480 bytes: then the padding begins anew.
        file.write(whole[:left // 20480 * 20480])
    flush(path)
    return path


def make_blocks(sound, blocks):
    """A .DIR file that cuts the audio of a file without tags into so many blocks and plays them in
    an order of its own, the same each time."""
    size = sound.stat().st_size
    cuts = [size * i // blocks for i in range(blocks + 1)]
    stride = next(s for s in range(blocks * 5 // 8 + 1, 2 * blocks + 2)
                  if math.gcd(s, blocks) == 1)
    order = [i * stride % blocks for i in range(blocks)]
    entries = b"".join(struct.pack("<B3xII", 1, cuts[i], cuts[i + 1]) for i in order)
    sound.with_suffix(".DIR").write_bytes(entries.ljust(65536, b"\0"))


def run(command, **options):
    """Runs a program to its end; what it prints."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, **options)
    if done.returncode != 0:
        raise SystemExit(f"{command}: {done.stderr}")
    return done.stdout


def peer(name):
    """The path of a program of somebody else's."""
    found = shutil.which(name)
    if found is None:
        raise Skipped(f"{name} is not installed")
    return found


class Race:
    """Jobs that are done in turn, round after round, so that a change of the machine's mood meets all
    of them, and in another order each time, since a job finds the caches as the one before it left
    them. A job is a pair: what to do before, unmeasured, and what to measure."""

    def __init__(self, rounds):
        self.rounds = rounds
        self.jobs = {}
        self.times = {}

    def add(self, name, work, before=lambda: None):
        self.jobs[name] = (before, work)

    def go(self):
        names = list(self.jobs)
        self.times = {name: [] for name in names}
        for turn in range(-1, self.rounds):  # the first to warm up
            order = names.copy()
            random.Random(turn).shuffle(order)
            for name in order:
                before, work = self.jobs[name]
                before()
                begin = time.perf_counter()
                work()
                if turn >= 0:
                    self.times[name].append(time.perf_counter() - begin)
        return self

    def milliseconds(self, name):
        return 1000 * median(self.times[name])

    def ratio(self, name, other):
        """The median of the ratios of the rounds."""
        return median([a / b for a, b in zip(self.times[name], self.times[other])])


def rounds_of(text):
    """The lines of numbers that `jobs edits` and `jobs reads` print, as columns in seconds."""
    lines = [line.split() for line in text.splitlines() if line and line[0].isdigit()]
    return [[int(value) / 1e9 for value in column] for column in zip(*lines)]
