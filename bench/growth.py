#!/usr/bin/env python3
"""How the cost grows: an open with the size of the file, an edit with the entries of the directory, a
read with the blocks of the dictation, a rebuild with blocks and bytes; each beside the plain calls.

    bench/growth.py [--rounds N] [--work FOLDER] [--charts FOLDER]

prints the medians as tables and writes a chart for each into the last folder. It needs what
side_by_side.py needs, and 4 GB of disk."""

import argparse
import pathlib
import subprocess
import tempfile

import chart
import measure
from measure import Race, copy_of, median
from side_by_side import DRIVER, JOBS, against_plain, process, table

SIZES = [1, 4, 16, 64, 256, 1024]  # units of 1,000,000 bytes
ENTRIES = [1, 10, 100, 1000, 2500, 5000, 5400]
BLOCKS = [1, 10, 100, 1000, 2500, 5000]


def show(charts, name, title, x_label, y_label, digits, series):
    heads = list(series)
    rows = [[f"{x:,}", *(f"{dict(series[head])[x]:.{digits}f}" for head in heads)]
            for x, _ in series[heads[0]]]
    table(f"{title} ({y_label})", [x_label, *heads], rows)
    if charts:
        chart.chart(charts / f"{name}.svg", title, x_label, y_label, series)


def opens(hour, folder, rounds):
    series = {"the driver": [], "plain loop": []}
    for size in SIZES:
        sound = measure.make_bytes(folder / "open.mp3", hour, size * 1000000)
        race = Race(rounds)
        race.add("the driver", process(JOBS, "open", DRIVER, sound))
        race.add("plain loop", process(JOBS, "loop", sound))
        race.go()
        for name, line in series.items():
            line.append((size, race.milliseconds(name)))
        sound.unlink()
    return series


def edits(hour, folder, rounds):
    series = {"insert": [], "same calls as insert": [], "delete": [], "same calls as delete": []}
    small = measure.make_bytes(folder / "small.mp3", hour, 8000000)
    for entries in ENTRIES:
        for kind in ("insert", "delete"):
            columns = [[], []]
            for _ in range(rounds):
                sound = copy_of(small, folder / "edit.mp3")
                if entries > 1:
                    measure.make_blocks(sound, entries)
                for column, more in zip(columns, against_plain(sound, "edits", [kind], 30)):
                    column += more
            series[kind].append((entries, 1e6 * median(columns[0])))
            series[f"same calls as {kind}"].append((entries, 1e6 * median(columns[1])))
    return series


def reads(hour, folder, rounds):
    series = {"the driver": [], "the same calls": []}
    sound = copy_of(hour, folder / "read.mp3")
    for blocks in BLOCKS:
        measure.make_blocks(sound, blocks)
        columns = against_plain(sound, "reads", [], rounds)
        series["the driver"].append((blocks, 1e3 * median(columns[0])))
        series["the same calls"].append((blocks, 1e3 * median(columns[1])))
    return series


def rebuild(source, folder, rounds, blocks):
    """Milliseconds of a whole process that takes a second out of a dictation of so many blocks, which
    its close then rebuilds, and of cp with a flush."""
    cut, copy = folder / "cut.mp3", folder / "copy.mp3"

    def fresh():
        copy_of(source, cut)
        measure.make_blocks(cut, blocks)

    def cp():
        subprocess.run(["cp", source, copy], check=True)
        measure.flush(copy)

    race = Race(rounds)
    race.add("the driver", process(JOBS, "cut", DRIVER, cut, 1), fresh)
    race.add("cp, flush", cp, lambda: copy.unlink(missing_ok=True))
    race.go()
    return [(name, race.milliseconds(name)) for name in race.jobs]


def rebuilds(hour, folder, rounds):
    by_blocks = {"the driver": [], "cp, flush": []}
    by_bytes = {"the driver": [], "cp, flush": []}
    for blocks in BLOCKS:
        for name, time in rebuild(hour, folder, rounds, blocks):
            by_blocks[name].append((blocks, time))
    for size in SIZES:
        source = measure.make_bytes(folder / "source.mp3", hour, size * 1000000)
        for name, time in rebuild(source, folder, rounds if size < 500 else 3, 2):
            by_bytes[name].append((size, time))
        source.unlink()
    return by_blocks, by_bytes


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--work", type=pathlib.Path)
    parser.add_argument("--charts", type=pathlib.Path)
    arguments = parser.parse_args()
    rounds, charts = arguments.rounds, arguments.charts
    with tempfile.TemporaryDirectory(dir=arguments.work) as folder:
        folder = pathlib.Path(folder)
        hour = measure.make_hour((arguments.work or folder).resolve() / "hour.mp3")
        show(charts, "open", "Open for reading, info, close", "size of the file in MB",
             "ms, whole process", 1, opens(hour, folder, rounds))
        show(charts, "edit", "An edit of 8000 bytes", "entries of the directory", "µs", 1,
             edits(hour, folder, max(rounds // 3, 1)))
        show(charts, "read", "Reading 65 MB in pieces of 4 KiB", "blocks of the dictation", "ms", 1,
             reads(hour, folder, rounds))
        by_blocks, by_bytes = rebuilds(hour, folder, rounds)
        show(charts, "rebuild-blocks", "Open and close with a rebuild of 65 MB",
             "blocks of the dictation", "ms, whole process", 0, by_blocks)
        show(charts, "rebuild-bytes", "Open and close with a rebuild of two blocks",
             "size of the file in MB", "ms, whole process", 0, by_bytes)


if __name__ == "__main__":
    main()
