#!/usr/bin/env bash
# Installs what is missing, builds the driver and the reference host, and shows a dictation being
# recorded, edited and closed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-packages.sh --demo
echo "Building libxkivmp3.so, libxkivlog.so and ffdhost in build/: about a minute and a half on two" \
    "idle cores the first time"
scripts/build-preset.sh demo
exec scripts/demo-session.sh "$@"
