#!/usr/bin/env bash
# package.sh [windows | deb]: makes, in dist/, the zip for Windows x64 (the two DLLs, the import
# library, the headers, ffdhost.exe, the documents) and the Debian package, or one of them.
# Installs what is missing and builds first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

make_deb() {
    scripts/install-packages.sh dpkg-dev
    scripts/build-preset.sh release xkivmp3 xkivlog ffdhost
    (cd build && cpack -G DEB) | sed -nE 's|.*package: .*/(dist/.*) generated\.|\1|p'
}

make_zip() {
    scripts/install-packages.sh --windows zip
    scripts/build-preset.sh windows xkivmp3 xkivlog ffdhost

    version=$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=(.*)/\1/p' build-windows/CMakeCache.txt)
    name=xkivmp3-$version-windows-x64
    staging=$(mktemp -d)
    trap 'rm -rf "$staging"' EXIT
    folder=$staging/$name
    mkdir -p "$folder/include" "$folder/lib" "$folder/docs"
    for program in XKIVMP3.dll XKIVLOG.dll ffdhost.exe; do
        x86_64-w64-mingw32-strip -o "$folder/$program" "build-windows/$program"
    done
    cp build-windows/libXKIVMP3.dll.a "$folder/lib/"
    cp include/* "$folder/include/"
    cp README.md LICENSE "$folder/"
    cp -r examples "$folder/"
    rm "$folder/examples/CMakeLists.txt"
    cp -r docs/* "$folder/docs/"

    mkdir -p dist
    rm -f "dist/$name.zip"
    # Without the time of day in it, and in one order: the same sources give the same archive.
    find "$folder" -exec touch -d @0 {} +
    (cd "$staging" && find "$name" -type f | LC_ALL=C sort | zip -q -X -@ "$OLDPWD/dist/$name.zip")
    echo "dist/$name.zip"
}

case "${1-all}" in
windows) make_zip ;;
deb) make_deb ;;
all)
    make_zip
    make_deb
    ;;
*)
    echo "usage: package.sh [windows | deb]" >&2
    exit 2
    ;;
esac
