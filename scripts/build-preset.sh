#!/usr/bin/env bash
# build-preset.sh PRESET [TARGET...]: configures and builds with all cores; without a target,
# everything. Says nothing unless it fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=$1
shift

log=$(mktemp)
trap 'rm -f "$log"' EXIT
quietly() {
    "$@" >"$log" 2>&1 || { cat "$log" >&2; echo "build-preset.sh: failed: $*" >&2; exit 1; }
}

quietly cmake --preset "$preset"
targets=()
[ $# = 0 ] || targets=(--target "$@")
quietly cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
