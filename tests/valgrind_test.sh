#!/usr/bin/env bash
# valgrind_test.sh FFDHOST SAMPLES: the shipped library in a host of its own under valgrind, through
# every kind of edit, a crash's leftovers, a rebuild and failed opens.
set -euo pipefail

host=$1 samples=$2
suppressions=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/valgrind.supp
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$samples/speech-22k-mono-tagged.mp3" "$work/a.mp3"
cp "$samples/insert-22k-mono.mp3" "$work/clip.mp3"
cp "$samples/speech-vbr.mp3" "$work/vbr.mp3"
cd "$work"

# checked CODE ARGUMENTS...: runs the host and expects its exit code; valgrind's own is 99.
checked() {
    local expected=$1 code=0
    shift
    valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,possible \
        --track-fds=no --suppressions="$suppressions" "$host" "$@" >out.log 2>err.log || code=$?
    [ "$code" = "$expected" ] || {
        cat out.log err.log
        echo "valgrind_test.sh: exit code $code instead of $expected: $*" >&2
        exit 1
    }
}

checked 3 edit a.mp3 seek 2s insert clip.mp3 seek 5s overwrite clip.mp3 seek 1s delete 1s crash
checked 0 edit a.mp3 undo store seek 0 delete 500ms restore seek 3s delete 2s read 5000 out.bin show
checked 0 read a.mp3 --from 1s --length 2000 -o out.bin
checked 1 edit vbr.mp3 show
checked 1 info missing.mp3
printf 'damaged' >a.DIR
checked 0 edit a.mp3 seek 1s insert clip.mp3
