#!/usr/bin/env bash
# package.sh [windows | deb | wheel]: makes, in dist/, the zip for Windows x64 (the two DLLs, the
# import library, the headers, ffdhost.exe, the documents, the notices of what is linked in, checksums) and
# the Debian packages, and the Python module, or one of them.
# Installs what is missing and builds first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
umask 022 # so that modes inside depend on nobody

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

make_deb() {
    scripts/install-packages.sh --packages
    rm -rf dist/debian
    packaging/deb.sh dist/debian
    ls dist/debian/*.deb
}

make_zip() {
    scripts/install-packages.sh --windows zip
    scripts/build-preset.sh windows xkivmp3 xkivlog ffdhost
    make_wheel >"$work/log"

    version=$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=(.*)/\1/p' build-windows/CMakeCache.txt)
    name=xkivmp3-$version-windows-x64
    staging=$work/zip
    folder=$staging/$name
    mkdir -p "$folder/include" "$folder/lib" "$folder/docs" "$folder/python" \
        "$folder/notices"
    for program in XKIVMP3.dll XKIVLOG.dll ffdhost.exe; do
        x86_64-w64-mingw32-strip -o "$folder/$program" "build-windows/$program"
    done
    cp include/* "$folder/include/"
    # Without DllMain, which a host that is a library itself would take for its own.
    grep -vw DllMain MCI/xkivmp3.def >"$folder/lib/XKIVMP3.def"
    (cd "$folder/lib" && x86_64-w64-mingw32-dlltool --temp-prefix xkivmp3 -d XKIVMP3.def -l libXKIVMP3.dll.a)
    cp LICENSE SECURITY.md CHANGELOG.md "$folder/"
    sed "s/@VERSION@/$version/" packaging/windows/README.md >"$folder/README.md"
    cp "dist/xkivmp3-$version-py3-none-any.whl" "$folder/python/"
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

# Only the module, for every system: it loads the driver that is installed.
make_wheel() {
    scripts/install-packages.sh --packages
    cp -r CMakeLists.txt python "$work/" # where it leaves what it makes on the way
    chmod -R u=rwX,go=rX "$work"
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
    export SOURCE_DATE_EPOCH
    (cd "$work/python" && /usr/bin/python3 setup.py -q bdist_wheel --dist-dir "$work/dist") >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; exit 1; }
    mkdir -p dist
    for wheel in "$work"/dist/*.whl; do
        cp "$wheel" dist/
        echo "dist/$(basename "$wheel")"
    done
}

case "${1-all}" in
windows) make_zip ;;
deb) make_deb ;;
wheel) make_wheel ;;
all)
    make_zip
    make_deb
    make_wheel
    ;;
*)
    echo "usage: package.sh [windows | deb | wheel]" >&2
    exit 2
    ;;
esac
