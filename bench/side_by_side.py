#!/usr/bin/env python3
"""The driver beside the programs that people use and beside what the machine can do at best: runs
all of them in turn on the same hour of speech and prints medians and ratios as tables.

    bench/side_by_side.py [--rounds N] [--work FOLDER]

needs the build of the preset "bench", ffmpeg, and, for the rows that name them, mp3val, mpg123 and
mp3splt; a program that is missing is skipped by name. FOLDER keeps the files for the next time."""

import argparse
import pathlib
import subprocess
import sys
import tempfile

import measure
from measure import HOUR_BYTES_PER_SECOND, Race, Skipped, copy_of, median, peer, run

BUILD = measure.TOP / "build-bench"
JOBS = BUILD / "jobs"
DRIVER = BUILD / "libxkivmp3.so"
SILENT = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def table(title, head, rows):
    print(f"\n### {title}\n")
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join(row) + " |", flush=True)


def process(*command):
    command = [str(word) for word in command]
    return lambda: subprocess.run(command, check=True, **SILENT)


def add_peer(race, name, make):
    try:
        race.add(name, *make())
    except Skipped as why:
        print(f"skipped: {name}: {why}", file=sys.stderr)


def compare(title, race, first):
    """A table: each job with its median and how many times the first job's time that is."""
    table(title, ["whole process", "median", "times the driver's"],
          [[name, f"{race.milliseconds(name):.1f} ms", f"{race.ratio(name, first):.2f}"]
           for name in race.jobs])


def opens(hour, rounds):
    race = Race(rounds)
    race.add("the driver: open, info, close", process(JOBS, "open", DRIVER, hour))
    race.add("plain loop, 64 KiB reads", process(JOBS, "loop", hour))
    add_peer(race, "mp3val", lambda: [process(peer("mp3val"), hour)])
    add_peer(race, "ffprobe, counting packets", lambda: [process(
        peer("ffprobe"), "-v", "error", "-count_packets", "-show_entries",
        "stream=nb_read_packets", hour)])
    add_peer(race, "mpg123, scanning", lambda: [process(
        peer("mpg123"), "-q", "--index", "-t", "-n", "1", hour)])
    race.go()
    ours = "the driver: open, info, close"
    print(f"\nbar: {race.ratio(ours, 'plain loop, 64 KiB reads'):.2f} x the plain loop (1.6)")
    compare("Finding every frame of an hour", race, ours)


def cuts(hour, folder, rounds):
    race = Race(rounds)
    middle = hour.stat().st_size // 2 / HOUR_BYTES_PER_SECOND
    ours, plain = "the driver: open, delete, close", "cp of the whole file, then a flush"
    cut, copy, out = folder / "cut.mp3", folder / "copy.mp3", folder / "out.mp3"

    def fresh():
        copy_of(hour, cut)

    def gone():
        copy.unlink(missing_ok=True)
        out.unlink(missing_ok=True)

    def cp():
        subprocess.run(["cp", hour, copy], check=True)
        measure.flush(copy)

    def clock(seconds):
        return f"{int(seconds // 60)}.{int(seconds % 60)}.{int(seconds * 100 % 100):02d}"

    def splt():
        program = peer("mp3splt")

        def work():
            for name, begin, end in (("a", "0.0", clock(middle)), ("b", clock(middle + 10), "EOF")):
                subprocess.run([program, "-Q", "-d", folder, "-o", name, hour, begin, end],
                               check=True, **SILENT)
            with open(out, "wb") as joined:
                subprocess.run(["cat", folder / "a.mp3", folder / "b.mp3"], check=True,
                               stdout=joined)
            measure.flush(out)
        return work, gone

    def concat():
        parts = folder / "parts"
        parts.write_text(f"file '{hour}'\noutpoint {middle}\nfile '{hour}'\ninpoint {middle + 10}\n")
        copy_streams = process(peer("ffmpeg"), "-v", "error", "-y", "-f", "concat", "-safe", "0",
                               "-i", parts, "-c", "copy", out)

        def work():
            copy_streams()
            measure.flush(out)
        return work, gone

    race.add(ours, process(JOBS, "cut", DRIVER, cut, 10), fresh)
    race.add(plain, cp, gone)
    add_peer(race, "mp3splt, two parts joined, then a flush", splt)
    add_peer(race, "ffmpeg, stream copy with concat, then a flush", concat)
    race.go()
    print(f"\nbar: {race.ratio(ours, plain):.2f} x cp and a flush (1.3)")
    compare("Taking 10 s out of the middle of an hour", race, ours)


def against_plain(sound, job, arguments, rounds):
    """Columns of seconds: the driver, the plain calls, and the plain calls of the other kind."""
    return measure.rounds_of(run([JOBS, job, DRIVER, sound, *arguments, rounds]))


def ratio(columns, other):
    return median([a / b for a, b in zip(columns[0], columns[other])])


def inside(hour, folder, rounds):
    """The jobs within a process. Bars for an insert and an overwrite: 1.3 times the same calls up to
    500 entries, 2.5 times with 5,000."""
    rows = []
    sound = folder / "edit.mp3"
    jobs = [(f"{kind}, {entries:,} entries", entries, "edits", [kind], 30)
            for entries in (1, 500, 5000) for kind in ("insert", "overwrite", "delete")]
    jobs.append(("read 5,000 blocks in 4 KiB pieces", 5000, "reads", [], 9))
    for name, entries, job, arguments, repeats in jobs:
        columns = [[], [], []]
        for _ in range(max(rounds, 2)):
            copy_of(hour, sound)
            if entries > 1:
                measure.make_blocks(sound, entries)
            for column, more in zip(columns, against_plain(sound, job, arguments, repeats)):
                column += more
        unit, factor = ("ms", 1e3) if job == "reads" else ("µs", 1e6)
        rows.append([name, *(f"{factor * median(column):.1f} {unit}" for column in columns),
                     f"{ratio(columns, 1):.2f}", f"{ratio(columns, 2):.2f}"])
    table("Edits and reads beside the plain system calls",
          ["job", "the driver", "the same calls", "fewer calls", "ratio to the same",
           "ratio to the fewer"], rows)


def memory(hour, folder):
    rows = []
    for size in (1 << 20, hour.stat().st_size, 1 << 30):
        sound = measure.make_bytes(folder / "large.mp3", hour, size)
        row = [f"{size / 1e6:,.0f} MB"]
        for job in (["open", DRIVER, sound], ["cut", DRIVER, sound, 10]):
            words = run([JOBS, *job], env={"JOBS_MEMORY": "1"}).split()
            row.append(f"{int(words[words.index('peak-bytes') + 1]) / 1024:,.0f} KiB")
        rows.append(row)
        sound.unlink()
    table("Peak memory above the start of the process",
          ["file", "open for reading, info, close", "open, delete, close with a rebuild"], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=21)
    parser.add_argument("--work", type=pathlib.Path)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=arguments.work) as folder:
        folder = pathlib.Path(folder)
        hour = measure.make_hour((arguments.work or folder).resolve() / "hour.mp3")
        opens(hour, 3 * arguments.rounds)  # short enough for as many
        cuts(hour, folder, arguments.rounds)
        inside(hour, folder, arguments.rounds // 3)
        memory(hour, folder)


if __name__ == "__main__":
    main()
