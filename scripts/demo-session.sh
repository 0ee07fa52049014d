#!/usr/bin/env bash
# A dictation from end to end, on a copy of a real MP3 file: an edit session, a second session that
# ends in a crash, a picture of what it left, the next open that finds every edit, and the file that
# the close rebuilds; then a recording from a live pipe that is killed. Needs the build of demo.sh.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

host=$PWD/build/ffdhost
picture=$PWD/build/map.svg
kept_picture=$PWD/docs/images/map.svg
samples=$PWD/tests/samples
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$samples/speech-22k-mono-tagged.mp3" "$work/letter.mp3"
cp "$samples/insert-22k-mono.mp3" "$work/addition.mp3"
cd "$work"

step() { printf '\n== %s\n' "$*"; }
# Shows a command as a user would type it, and runs it.
run() {
    printf '\n$ ffdhost %s\n' "$*"
    "$host" "$@"
}

step "A dictation: ten seconds of speech with an ID3v2 tag in front and an ID3v1 tag behind"
run info letter.mp3

step "A first session: insert, overwrite, delete, take the deletion back, close"
run edit letter.mp3 seek 2s insert addition.mp3 seek 6s overwrite addition.mp3 \
    seek 9.5s delete 1s undo show

step "A second session: more edits, then the process dies without a close"
code=0
run edit letter.mp3 seek 1s delete 750ms seek 3s insert addition.mp3 \
    seek 9s overwrite addition.mp3 seek 6s delete 600ms crash || code=$?
[ "$code" = 3 ] || { echo "demo: the crash did not happen" >&2; exit 1; }
echo "(exit code 3: no close)"
echo
echo "What the crash left:"
stat -c "  %n, %s bytes" letter.*
cp letter.mp3 crashed.mp3
cp letter.DIR crashed.DIR

step "The map of the dictation before the rebuild, from the .DIR file"
run map letter.mp3
step "The same as a picture"
printf '\n$ ffdhost map letter.mp3 --svg build/map.svg\n'
"$host" map letter.mp3 --svg "$picture" >picture.log
if cmp -s "$picture" "$kept_picture"; then
    echo "It is that of README.md, docs/images/map.svg."
else
    echo "It is not that of README.md any more. To renew that: cp build/map.svg docs/images/map.svg"
fi

step "The next open finds every edit; its close rebuilds the file"
run edit letter.mp3 show

step "The map and the file after the rebuild"
run map letter.mp3
run info letter.mp3

step "Checked from outside"
"$host" edit crashed.mp3 read 100000000 before.bin >before.log 2>&1
"$host" read letter.mp3 -o after.bin >after.log
echo "  dictation that the crash left:      $(stat -c %s before.bin) bytes"
echo "  rebuilt, widened to whole frames:   $(stat -c %s after.bin) bytes"
mpg123 -q -t letter.mp3
echo "  mpg123 decodes the rebuilt file without an error"
mp3val letter.mp3 | sed -n 's/^INFO: "[^"]*": /  mp3val: /p'
echo "  files left beside it: $(ls letter.*)"

step "A recording into the middle, from an encoder that runs in real time, killed after four seconds"
live=(ffmpeg -v error -re -stream_loop 3 -i addition.mp3 -ac 1 -ar 22050 -b:a 64k -f mp3
    -flush_packets 1 -)
printf '\n$ %s | ffdhost record letter.mp3 --at 5s\n' "${live[*]}"
mkfifo pipe
"${live[@]}" >pipe 2>encoder.log &
"$host" record letter.mp3 --at 5s <pipe >record.log 2>&1 &
recorder=$!
sleep 4
kill -KILL "$recorder"
wait 2>killed.log || true
echo "What the kill left:"
stat -c "  %n, %s bytes" letter.mp3 letter.DIR
run map letter.mp3
"$host" map letter.mp3 --svg "${picture%map.svg}recording.svg" >picture.log

step "The next open has all but the last second"
run edit letter.mp3 show
mpg123 -q -t letter.mp3
echo "  mpg123 decodes the file without an error; the picture is build/recording.svg"
