#!/usr/bin/env bash
# install-packages.sh [--demo | --packages | --windows] [PACKAGE...]: installs what building and testing
# need on Debian 12, as root or through sudo: with --demo only what demo.sh needs, with --packages only
# what makes the Debian packages and the wheel, with --windows also what the Windows build and its tests
# need; and these packages. What is there already is left alone: with nothing missing this asks no
# registry and no password.
set -euo pipefail

build=(
    g++ cmake ninja-build
    libcli11-dev nlohmann-json3-dev # the host
)
demo=(ffmpeg mpg123 mp3val) # the encoder of the recording, and judges of the files that the driver leaves
debian=(
    debhelper dh-python python3-all python3-setuptools dpkg-dev # the Debian packages
    python3-wheel
)
check=(
    binutils file pkgconf lintian debootstrap # the installation and the packages, tried out
    libgtest-dev libgmock-dev python3 valgrind
    python3-pytest mypy               # the Python module, tried out
    clang-format clang-tidy shellcheck pyflakes3 # the sources
    mp3check lame
    doxygen                           # the reference of the headers
    clang-14 libclang-rt-14-dev llvm-14 # the fuzz targets, and what they reach
)
windows=(
    g++-mingw-w64-x86-64-posix
    googletest # its sources, built for Windows
    wine64     # runs the tests
    locales    # and what makes it take another code page
    zip unzip
)

case "${1-}" in
--demo) packages=("${build[@]}" "${demo[@]}") ;;
--packages) packages=("${build[@]}" "${debian[@]}") ;;
*) packages=("${build[@]}" "${demo[@]}" "${debian[@]}" "${check[@]}") ;;
esac
[ "${1-}" != --windows ] || packages+=("${windows[@]}")
[[ ${1-} != --* ]] || shift
packages+=("$@")

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
