#!/usr/bin/env bash
# fuzz.sh TARGET SECONDS [OPTION...]: builds a fuzz target (open, adopt or table) and runs it for so
# long from the corpus in fuzz/corpus. What it finds on the way is kept in build-fuzz/found for the
# next run. An input that fails is written there too: build-fuzz/fuzz_TARGET FILE runs it again.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

[ $# -ge 2 ] || { echo "usage: fuzz.sh open|adopt|table SECONDS [OPTION...]" >&2; exit 2; }
target=$1 seconds=$2
shift 2
scripts/build-preset.sh fuzz "fuzz_$target"
found=build-fuzz/found
mkdir -p "$found/$target"
exec "build-fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=2048 -timeout=120 \
    -artifact_prefix="$found/" "$@" "$found/$target" "fuzz/corpus/$target"
