#!/usr/bin/env bash
# reference.sh: makes the reference of the headers in build/reference/html. A header that leaves
# something undocumented is an error.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

VERSION=$(sed -nE 's/^project\(.* VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
OUTPUT=build/reference
export VERSION OUTPUT
mkdir -p "$OUTPUT"
doxygen docs/Doxyfile
echo "$OUTPUT/html/index.html"
