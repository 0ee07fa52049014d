#!/usr/bin/env bash
# install_test.sh SOURCE BUILD VERSION: what `cmake --install` lays down serves a project of its own,
# by find_package and by pkg-config; the Debian packages have the same bytes when built again, and
# they install, take the place of older ones, work and go away in a root that has never seen them.
set -euo pipefail

source=$1 build=$2 version=$3
samples=$source/tests/samples
work=$(mktemp -d)
as_root=()
[ "$(id -u)" = 0 ] || as_root=(sudo -n)
trap 'wait; "${as_root[@]}" rm -rf "$work"' EXIT

fail() {
    echo "install_test.sh: $*" >&2
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "failed: $*"; }
}
# works COMMAND...: a session of the example on fresh copies of two samples.
works() {
    cp "$samples/speech-22k-mono-tagged.mp3" "$work/a.mp3"
    [ "$("$@" "$work/a.mp3" "$samples/insert-22k-mono.mp3" | tail -n 1)" = "undone   96966 bytes" ] ||
        fail "no session: $*"
}

# A root that has never seen the packages. It waits for the network while the rest is tried.
root=$work/root
bootstrap() {
    local release mirror
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $release" | sed -n 1p)
    "${as_root[@]}" debootstrap --variant=minbase --include=python3 "$release" "$root" "$mirror"
}
filling=
if "${as_root[@]}" true 2>"$work/log"; then
    bootstrap >"$work/root.log" 2>&1 &
    filling=$!
fi

prefix="$work/a prefix"
quietly cmake --install "$build" --prefix "$prefix"
[ "$("$prefix/bin/ffdhost" --version)" = "ffdhost $version" ] || fail "the version of ffdhost"
quietly "$prefix/bin/ffdhost" info "$samples/speech-44k-stereo.mp3"

mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(recorder C)
find_package(xkivmp3 $version EXACT REQUIRED)
add_executable(loads "$source/examples/session.c")
target_link_libraries(loads xkivmp3::host)
add_executable(links links.c)
target_link_libraries(links xkivmp3::xkivmp3)
file(GENERATE OUTPUT driver CONTENT "\$<TARGET_FILE:xkivmp3::xkivmp3>")
END
# The table of a driver that is linked is filled when main begins.
cat >"$work/project/links.c" <<'END'
#define FFD_LINKED
#include <ffd.h>
int main(void) {
    return FFD_Function_Table.close(NULL) == FFD_INVALID_HANDLE ? 0 : 1;
}
END
quietly cmake -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build "$work/project/build"
works "$work/project/build/loads" "$(cat "$work/project/build/driver")"
quietly "$work/project/build/links"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name xkivmp3.pc)")
export PKG_CONFIG_PATH
[ "$(pkg-config --modversion xkivmp3)" = "$version" ] || fail "the version of pkg-config"
eval "gcc -o '$work/loads' '$source/examples/session.c' $(pkg-config --cflags xkivmp3)"
works "$work/loads" "$(pkg-config --variable=driver xkivmp3 | sed 's/\\//g')"
eval "gcc -o '$work/links' '$work/project/links.c' $(pkg-config --cflags --libs xkivmp3)"
LD_LIBRARY_PATH=$(dirname "$(find "$prefix" -name libxkivmp3.so)") quietly "$work/links"

# The programs of the host guide, as they stand there.
block() { # LANGUAGE NUMBER
    awk -v begin="\`\`\`$1" -v number="$2" \
        '$0 == begin { on = ++n == number; next } /^```$/ { on = 0 } on' "$source/docs/host-guide.md"
}
first() {
    block "$1" 1 >"$work/$2"
    cp "$samples/speech-22k-mono-tagged.mp3" "$work/letter.mp3"
}
cp "$samples/insert-22k-mono.mp3" "$work/addition.mp3"
installed=$(find "$prefix" -name libxkivmp3.so)
first cpp cut.cpp
eval "g++ -std=c++20 -o '$work/cut' '$work/cut.cpp' $(pkg-config --cflags xkivmp3)"
[ "$(cd "$work" && LD_LIBRARY_PATH=$(dirname "$installed") ./cut letter.mp3)" = "40542 bytes are left" ] ||
    fail "the program in C++ of the host guide"
# Its recorder, with what it leaves to the reader; the loop over a stream is only compiled.
{
    cat <<'END'
#include <ffd.hpp>
#include <array>
#include <chrono>
#include <vector>
#include <unistd.h>
using namespace std::chrono_literals;
static std::array<std::byte, 4096> piece;
static std::vector<std::byte> collected;
static ssize_t receive(std::span<std::byte> bytes) {
    ssize_t const count = read(0, bytes.data(), bytes.size());
    return count == 0 ? -1 : count;
}
void take_stream() {
END
    block cpp 2
    echo '}'
    echo 'int main() {'
    echo 'ffd::Driver const driver("libxkivmp3.so"); uint32_t const place = 8000;'
    block cpp 2 | sed '/^while/,$d'
    block cpp 3
    echo '}'
} >"$work/recorder.cpp"
eval "g++ -std=c++20 -o '$work/recorder' '$work/recorder.cpp' $(pkg-config --cflags xkivmp3)"
cp "$samples/speech-22k-mono-tagged.mp3" "$work/letter.mp3"
(cd "$work" && LD_LIBRARY_PATH=$(dirname "$installed") ./recorder <addition.mp3)
[ "$(tail -c +8144 "$work/letter.mp3" | head -c 16509 | cksum)" = "$(cksum <"$work/addition.mp3")" ] ||
    fail "the recorder of the host guide"
first python cut.py
[ "$(cd "$work" && PYTHONPATH=$source/python XKIVMP3=$installed python3 -B cut.py)" = \
    "57051 bytes are left" ] || fail "the program in Python of the host guide"

# A packager has a compiler and CMake, and is told what else there could be.
cmake -S "$source" -B "$work/plain" -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON >"$work/log" 2>&1
grep -q 'Not found: CLI11; the programs are left out' "$work/log" || fail "no word of what is missing"

# The debug information, which is half the work, stops here at the lines: the code stays the same.
export DEB_CFLAGS_APPEND=-g1 DEB_CXXFLAGS_APPEND=-g1
# Everything once, and again all but the program, which takes most of the time.
quietly "$source/package.sh" deb
DEB_BUILD_OPTIONS=noffdhost quietly "$source/packaging/deb.sh" "$work/again"
for package in "$work"/again/*.deb; do
    cmp "$package" "$source/dist/debian/$(basename "$package")"
done
[ "$(find "$work/again" -name '*.deb' | wc -l)" = 5 ] || fail "not all packages were made"
quietly lintian --allow-root --fail-on error,warning "$source"/dist/debian/*.changes
soname=libxkivmp3.so.${version%%.*} library=libxkivmp3-${version%%.*}

[ -n "$filling" ] || {
    echo "install_test.sh: neither root nor sudo: the packages were made and not tried"
    exit 77
}
wait "$filling" || { cat "$work/root.log" >&2; fail "no root to install in"; }
mkdir "$work/new"
cp "$source"/dist/debian/*.deb "$work/new/"
# The version before, whose driver had another name; its program is left out.
DEB_BUILD_OPTIONS=noffdhost quietly "$source/packaging/deb.sh" "$work/old" 0.1.0
rm "$work"/*/*-dbgsym_*.deb
"${as_root[@]}" cp -r "$work/new" "$work/old" "$source/examples/session.py" "$root/root/"
"${as_root[@]}" cp "$samples/insert-22k-mono.mp3" "$root/root/clip.mp3"
inside() {
    "${as_root[@]}" chroot "$root" "$@"
}
everything() {
    inside find /usr /etc /opt -not -path '/etc/ld.so.cache' | sort
}
everything >"$work/before"
# The old driver stays until nothing needs it.
for step in "old libxkivmp3.so.0" "new libxkivmp3.so.0" "new $soname"; do
    read -r packages driver <<<"$step"
    quietly inside sh -c "dpkg --install /root/$packages/*.deb"
    "${as_root[@]}" cp "$samples/speech-22k-mono-tagged.mp3" "$root/root/a.mp3"
    [ "$(inside python3 /root/session.py "$driver" /root/a.mp3 /root/clip.mp3 | tail -n 1)" = \
        "undone   96966 bytes" ] || fail "no session in Python: $step"
done
quietly inside dpkg --purge libxkivmp3-0
quietly inside ffdhost edit /root/a.mp3 seek 1s delete 1s
[ "$(inside ffdhost --version)" = "ffdhost $version" ] || fail "the version in the package"
[ "$(inside dpkg-query -W -f '${Version}' "$library")" = "$version" ] || fail "the package's version"
quietly inside dpkg --purge "$library" libxkivmp3-dev ffdhost python3-xkivmp3 libxkivmp3-doc
everything | diff "$work/before" - >"$work/log" || { cat "$work/log"; fail "files are left"; }
