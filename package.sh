#!/usr/bin/env bash
# package.sh [windows | deb]: makes, in dist/, the zip for Windows x64 (the two DLLs, the import
# library, the headers, ffdhost.exe, the documents, the notices of what is linked in, checksums) and
# the Debian package, or one of them.
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
    mkdir -p "$folder/include" "$folder/lib" "$folder/docs" "$folder/notices"
    for program in XKIVMP3.dll XKIVLOG.dll ffdhost.exe; do
        x86_64-w64-mingw32-strip -o "$folder/$program" "build-windows/$program"
    done
    cp build-windows/libXKIVMP3.dll.a "$folder/lib/"
    cp include/* "$folder/include/"
    cp README.md LICENSE "$folder/"
    cp -r examples "$folder/"
    rm "$folder/examples/CMakeLists.txt"
    cp -r docs/* "$folder/docs/"
    # What is linked in: the compiler's libraries and the C library's own part in all three, the
    # other two in ffdhost.
    for package in gcc-mingw-w64-base mingw-w64-common libcli11-dev nlohmann-json3-dev; do
        cp "/usr/share/doc/$package/copyright" "$folder/notices/$package.txt"
    done
    cp -L /usr/share/common-licenses/GPL-3 "$folder/notices/"
    (cd "$folder" && find . -type f | LC_ALL=C sort | sed 's|^\./||' | xargs -d '\n' sha256sum) \
        >"$staging/sums"
    mv "$staging/sums" "$folder/SHA256SUMS"

    mkdir -p dist
    rm -f "dist/$name.zip"
    # Without the time of day and the umask in it, and in one order: the same sources give the same
    # archive.
    chmod -R u=rwX,go=rX "$folder"
    find "$folder" -exec touch -d 1980-01-01T00:00:00Z {} +
    (cd "$staging" && find "$name" -type f | LC_ALL=C sort |
        TZ=UTC zip -q -X -@ "$OLDPWD/dist/$name.zip")
    (cd dist && sha256sum "$name.zip" >"$name.zip.sha256")
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
