#!/usr/bin/env python3
"""What a kill costs a recording. An encoder records into the middle of a dictation, the recorder is
killed at a random instant, the next open takes over what it left, and the recording goes on behind
that; again and again. After each kill the file must hold, byte for byte, all that was sent up to a
second before, and decoders of other makers must find every frame of it and no error.

    bench/kills.py                                      200 kills, three hours at 30 times their pace
    bench/kills.py --kills 40 --seconds 240 --speed 1   as it is in an office

It needs the release build, ffmpeg and mpg123."""

import argparse
import os
import pathlib
import random
import select
import shutil
import subprocess
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
HOST = os.environ.get("FFDHOST", TOP / "build" / "ffdhost")
SPEECH = TOP / "tests" / "samples" / "speech-22k-mono-tagged.mp3"
TAGS = 202, 128  # bytes in front of and behind the speech
AT = 40124  # a border of its frames, near the middle
RATE = 8000  # bytes a second
LONGEST = 1  # second that a kill may cost


def encoder(seed, speed):
    """Noise as an encoder gives it away at a pace, in the format of the speech."""
    source = f"anoisesrc=r=22050:a=0.3:seed={seed}"
    form = "-b:a 64k -reservoir 0 -write_xing 0 -id3v2_version 0 -flush_packets 1 -f mp3 -"
    return subprocess.Popen(["ffmpeg", "-v", "error", "-readrate", str(speed), "-f", "lavfi", "-i",
                             source, *form.split()], stdout=subprocess.PIPE)


def record_and_kill(path, at, stream, life):
    """Passes a stream on for so many seconds and kills the recorder. The bytes that were sent, when
    each piece of them was, and when the kill."""
    recorder = subprocess.Popen([HOST, "record", path, "--at", str(at)], stdin=subprocess.PIPE,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    begun, sent, pieces = time.monotonic(), b"", []
    while (left := begun + life - time.monotonic()) > 0:
        if select.select([stream], [], [], left)[0]:
            piece = os.read(stream.fileno(), 4096)
            os.write(recorder.stdin.fileno(), piece)
            sent += piece
            pieces.append((len(sent), time.monotonic()))
    if recorder.poll() is not None:
        raise SystemExit(f"the recorder ended by itself: {recorder.returncode}")
    recorder.kill()
    killed = time.monotonic()
    recorder.communicate()
    return sent, pieces, killed


def judge(path, audio):
    """Two decoders find each frame, of 576 samples, and no error."""
    frames, place = 0, 0
    while place < len(audio):
        place += 208 + (audio[place + 2] >> 1 & 1)
        frames += 1
    for command in (["mpg123", "-q", "-s", path],
                    ["ffmpeg", "-v", "error", "-i", path, "-f", "s16le", "-"]):
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as decoder:
            size = 0
            while piece := decoder.stdout.read(1 << 20):
                size += len(piece)
            said = decoder.stderr.read().decode()
        if decoder.returncode or said or size != frames * 576 * 2:
            raise SystemExit(f"{command[0]} decodes {size // 1152} of {frames} frames: {said}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kills", type=int, default=200)
    parser.add_argument("--seconds", type=int, default=10800, help="of audio, between the kills")
    parser.add_argument("--speed", type=float, default=30, help="times the pace of the audio")
    parser.add_argument("--work", type=pathlib.Path)
    options = parser.parse_args()
    dice, begun = random.Random(1), time.monotonic()
    recording, worst, sum_lost, astray = b"", 0.0, 0.0, 0
    with tempfile.TemporaryDirectory(dir=options.work) as folder:
        path = pathlib.Path(shutil.copy(SPEECH, folder))
        whole = path.read_bytes()
        front, back = whole[:TAGS[0] + AT], whole[TAGS[0] + AT:]
        kept_file = path.with_suffix(".kept")
        for kill in range(options.kills):
            # What is still missing, in equal parts; an encoder and a recorder want time to begin.
            rest = max(0, options.seconds - len(recording) / RATE)
            mean = rest / options.speed / (options.kills - kill)
            shutil.copy(path, kept_file)
            with encoder(kill, options.speed) as source:
                sent, pieces, killed = record_and_kill(path, AT + len(recording), source.stdout,
                                                       dice.uniform(0, 2 * mean + 0.5))
                source.kill()
            subprocess.run([HOST, "edit", path, "show"], check=True, stdout=subprocess.DEVNULL)
            closed = path.read_bytes()
            kept = len(closed) - len(front) - len(recording) - len(back)
            if closed != front + recording + sent[:kept] + back:
                # The first frame of a session plays at the end if the kill hits its write.
                if not closed.startswith(front + recording + back[:-TAGS[1]]):
                    raise SystemExit(f"kill {kill}: {kept} bytes kept, and others than were sent")
                astray += 1
                shutil.copy(kept_file, path)
                kept = 0
            lost = next((killed - when for size, when in pieces if size > kept), 0.0)
            if lost > LONGEST:
                raise SystemExit(f"kill {kill}: {lost:.2f} s are lost")
            worst, sum_lost = max(worst, lost), sum_lost + lost
            recording += sent[:kept]
            judge(path, path.read_bytes()[TAGS[0]:-TAGS[1]])
    hours = time.strftime("%H:%M:%S", time.gmtime(len(recording) / RATE))
    print(f"{options.kills} kills in {hours} of audio at {options.speed:g} times its pace, "
          f"{time.monotonic() - begun:.0f} s: each closed file is what was sent, and decodes; lost: "
          f"{sum_lost / options.kills:.2f} s in the mean, {worst:.2f} s at most; "
          f"{astray} hit the write of the first frame")


if __name__ == "__main__":
    main()
