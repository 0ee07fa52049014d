#!/usr/bin/env bash
# Installs what the benchmarks need, builds them, and runs them all: the driver beside its peers, how
# its cost grows, and its parts one by one. Takes about five minutes on an idle machine, of which one
# makes the hour of speech; --charts also renews the charts of docs/performance.md.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

charts=()
case "${1-}" in
"") ;;
--charts) charts=(--charts docs/images) ;;
*)
    echo "usage: bench/run.sh [--charts]" >&2
    exit 2
    ;;
esac

scripts/install-packages.sh libbenchmark-dev mp3splt
scripts/build-preset.sh bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bench/side_by_side.py --work "$work"
bench/growth.py --work "$work" "${charts[@]}"
build-bench/inside
