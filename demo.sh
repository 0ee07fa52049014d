#!/usr/bin/env bash
# Installs what is missing, builds the driver and the reference host, and shows a dictation being
# recorded, edited and closed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-packages.sh --demo
echo "Building libxkivmp3.so, libxkivlog.so and ffdhost in build/: the first time this takes three minutes" \
    "of processor time, half of it with two cores"
scripts/build-preset.sh demo
exec scripts/demo-session.sh "$@"
