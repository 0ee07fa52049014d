#!/usr/bin/env bash
# Makes the MP3 files of this folder from synthesized speech. They are committed; run this only to
# change them. It needs espeak-ng, sox and lame, and another version of these may give other bytes
# but files of the same kind:
#
#   speech-22k-mono-tagged.mp3  22050 Hz mono, 64 kbit/s, an ID3v2 tag in front, an ID3v1 tag behind
#   speech-44k-stereo.mp3       44100 Hz stereo, 128 kbit/s, no tag
#   speech-16k-mono.mp3         16000 Hz mono, 24 kbit/s, no tag
#   speech-32k-mono.mp3         32000 Hz mono, 48 kbit/s, no bit reservoir, an ID3v2 tag in front
#   speech-11k-mono.mp3         11025 Hz mono (MPEG 2.5), 32 kbit/s, an ID3v1 tag behind
#   speech-8k-stereo.mp3        8000 Hz stereo (MPEG 2.5), 40 kbit/s, no bit reservoir, no tag
#   insert-RATE-CHANNELS.mp3    the same format, no tag: goes into the file of the same name
#   speech-vbr.mp3              22050 Hz mono, frames of different bitrates, no tag
#
# None has an information frame (lame -t): every frame is audio. All but the last are of one bitrate
# throughout.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

for tool in espeak-ng sox lame; do
    command -v "$tool" >/dev/null || { echo "make-samples.sh: $tool is missing" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# speak NAME RATE CHANNELS SECONDS TEXT: a wave file cut or filled up to the length. The two
# channels of a stereo file differ, so that a swapped or lost one is heard.
speak() {
    local name=$1 rate=$2 channels=$3 seconds=$4 text=$5
    espeak-ng -v en -s 150 -w "$work/spoken.wav" "$text"
    local mix=(remix 1)
    [ "$channels" = 1 ] || mix=(remix 1 1v0.5)
    # -R: the same dither noise each time. -V1: the padding that the cut leaves unused is no news.
    sox -V1 -R "$work/spoken.wav" -b 16 "$work/$name.wav" rate "$rate" "${mix[@]}" \
        pad 0 "$seconds" trim 0 "$seconds"
}

# encode NAME OPTIONS...
encode() {
    local name=$1
    shift
    lame --quiet "$@" "$work/$name.wav" "$name.mp3"
}

speak speech-22k-mono-tagged 22050 1 10 \
    "Dear colleague, thank you for sending us this patient, whom we saw on the third of March.
    The wound has healed well. There is no sign of infection, and the sutures have been removed.
    We have asked for another appointment in six weeks. With kind regards."
encode speech-22k-mono-tagged --cbr -b 64 -m m -t --add-id3v2 \
    --tt "Letter" --ta "Dictation" --tl "Samples" --ty 2024 --tn 1

speak speech-44k-stereo 44100 2 4 \
    "Second recording, both channels. The left one is louder than the right one."
encode speech-44k-stereo --cbr -b 128 -m j -t

speak speech-16k-mono 16000 1 8 \
    "Third recording. A narrow voice, as a telephone has it. New paragraph. The delivery has arrived,
    full stop. Please confirm the receipt of all seven boxes."
encode speech-16k-mono --cbr -b 24 -m m -t

speak insert-22k-mono 22050 1 2 "This sentence was inserted."
encode insert-22k-mono --cbr -b 64 -m m -t

speak insert-44k-stereo 44100 2 2 "This one was inserted, too."
encode insert-44k-stereo --cbr -b 128 -m j -t

speak insert-16k-mono 16000 1 2 "And this one, as over a telephone."
encode insert-16k-mono --cbr -b 24 -m m -t

speak speech-32k-mono 32000 1 6 \
    "Fifth recording. Each frame stands for itself. The meeting begins at nine, not at ten."
encode speech-32k-mono --cbr -b 48 -m m -t --nores --id3v2-only --tt "Minutes" --ta "Dictation"
speak insert-32k-mono 32000 1 2 "Not at ten, but at a quarter past."
encode insert-32k-mono --cbr -b 48 -m m -t --nores

speak speech-11k-mono 11025 1 8 \
    "Sixth recording. A low sampling rate. The second paragraph is to be moved to the end, please."
encode speech-11k-mono --cbr -b 32 -m m -t --id3v1-only --tt "Memo"
speak insert-11k-mono 11025 1 2 "This was moved to the end."
encode insert-11k-mono --cbr -b 32 -m m -t

speak speech-8k-stereo 8000 2 6 \
    "Seventh recording, two channels of a telephone line. I am calling about the invoice."
encode speech-8k-stereo --cbr -b 40 -m j -t --nores
speak insert-8k-stereo 8000 2 2 "The invoice of the second of May."
encode insert-8k-stereo --cbr -b 40 -m j -t --nores

speak speech-vbr 22050 1 5 "Fourth recording, of variable bitrate. Then there is silence."
encode speech-vbr -V 4 -m m -t
