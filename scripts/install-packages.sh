#!/usr/bin/env bash
# install-packages.sh [--windows] [PACKAGE...]: installs what building and testing need on Debian 12,
# with --windows what the Windows build and its tests need too, and these packages, as root or
# through sudo. What is there already is left alone: with nothing missing this asks no registry and
# no password.
set -euo pipefail

windows=()
if [ "${1-}" = --windows ]; then
    shift
    windows=(
        g++-mingw-w64-x86-64-posix
        googletest # its sources, built for Windows
        wine64     # runs the tests
        locales    # and what makes it take another code page
        zip unzip
    )
fi

packages=(
    g++ cmake ninja-build binutils
    libcli11-dev nlohmann-json3-dev   # the host
    libgtest-dev libgmock-dev python3 # the tests
    python3-pytest mypy               # the Python module, tried out
    python3-setuptools python3-wheel  # and packed
    debhelper dh-python python3-all   # the Debian packages
    lintian                           # judges them
    ffmpeg mpg123 mp3check mp3val     # judge the files that the driver leaves
    valgrind
    doxygen                           # the reference of the headers
    pkgconf dpkg-dev file debootstrap # the installation and the packages, tried out
    clang-14 libclang-rt-14-dev llvm-14 # the fuzz targets, and what they reach
    "${windows[@]}"
    "$@"
)

command -v dpkg-query >/dev/null || {
    echo "install-packages.sh: no dpkg here; install by hand: ${packages[*]}" >&2
    exit 1
}

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || {
        echo "install-packages.sh: needs root or sudo to install: ${missing[*]}" >&2
        exit 1
    }
    as_root=(sudo)
fi

echo "Installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
apt() {
    # </dev/null: no package may wait for an answer.
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 "$@" \
        </dev/null >"$log" 2>&1 || { cat "$log" >&2; return 1; }
}
apt update
apt install --yes --no-install-recommends "${missing[@]}"
