#!/usr/bin/env bash
# Installs what is missing, builds the driver and the reference host, and shows a dictation being
# recorded, edited and closed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-packages.sh
scripts/build-preset.sh release xkivmp3 xkivlog ffdhost
exec scripts/demo-session.sh "$@"
