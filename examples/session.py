"""session.py DRIVER SOUND CLIP: the session of session.c, in Python with the module xkivmp3. All cuts
lie between frames:

    PYTHONPATH=python python3 examples/session.py build/libxkivmp3.so letter.mp3 addition.mp3
"""

import sys

import xkivmp3


def main(library: str, path: str, clip_path: str) -> None:
    driver = xkivmp3.Driver(library)

    with open(clip_path, "rb") as stream:  # its frames, without its tags and info frame
        audio = b"".join(frame.data for frame in xkivmp3.frames(iter(lambda: stream.read(4096), b""))
                         if not frame.is_info)

    with xkivmp3.open(path, "r+", driver=driver) as sound:
        second = sound.format.bytes_per_second
        print(f"opened   {sound.length} bytes")
        sound.seek(sound.borders(second).before)
        sound.insert(audio)
        print(f"inserted {sound.length} bytes")
        end = sound.borders(sound.position + 2 * second).before
        sound.delete(end - sound.position)
        print(f"deleted  {sound.length} bytes")
        sound.undo()
        print(f"undone   {sound.length} bytes")


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit("usage: session.py DRIVER SOUND CLIP")
    try:
        main(*sys.argv[1:])
    except (xkivmp3.Error, xkivmp3.LoadError, OSError) as error:
        sys.exit(str(error))
