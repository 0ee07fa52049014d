#!/usr/bin/env bash
# windows_package_test.sh SOURCE WINE...: the zip for Windows has the same bytes when made again, its
# checksums are right, and hosts built from it as its README tells load the driver and link it.
set -euo pipefail

source=$1 wine=("${@:2}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

zip=$("$source/package.sh" windows)
cp "$source/$zip" "$work/first.zip"
(umask 077 && "$source/package.sh" windows) >/dev/null
cmp "$source/$zip" "$work/first.zip"
unzip -q "$work/first.zip" -d "$work"
cd "$work"/xkivmp3-*
sha256sum --quiet -c SHA256SUMS
[ "$(wc -l <SHA256SUMS)" = "$(find . -type f -not -name SHA256SUMS | wc -l)" ]

cp "$source/tests/samples/insert-22k-mono.mp3" addition.mp3
cat >host.c <<'END'
#include <ffd.h>
int main(void) {
    return FFD_Function_Table.close(NULL) == FFD_INVALID_HANDLE ? 0 : 1;
}
END
# The lines for MinGW-w64 as they stand there, and for the one of Visual Studio's lib a program that makes
# the same of the same file.
sed -nE 's/^    (gcc|g\+\+|lib) (.*)/\1 \2/p' README.md | tr '\\' / | while read -r compiler arguments; do
    case $compiler in
    lib) command=llvm-dlltool-14 arguments=$(sed 's|/def:|-d |; s|/machine:x64|-m i386:x86-64|; s|/out:|-l |' <<<"$arguments") ;;
    *) command=x86_64-w64-mingw32-$compiler-posix ;;
    esac
    # shellcheck disable=SC2086
    $command $arguments
    [[ $arguments != *session* ]] || mv session.exe "$compiler.exe"
done
for compiler in gcc g++; do
    cp "$source/tests/samples/speech-22k-mono-tagged.mp3" letter.mp3
    "${wine[@]}" $compiler.exe XKIVMP3.dll letter.mp3 addition.mp3 | tr -d '\r' | tail -n 1 |
        grep -x 'undone   96966 bytes'
done
"${wine[@]}" host.exe
# The driver's DllMain is not for a host that is a library itself.
! x86_64-w64-mingw32-nm lib/libXKIVMP3.dll.a XKIVMP3.lib | grep DllMain || exit 1
x86_64-w64-mingw32-gcc-posix -D FFD_LINKED -I include -o host.exe host.c XKIVMP3.lib
"${wine[@]}" host.exe
"${wine[@]}" ffdhost.exe info letter.mp3 | grep -c 'Dictation'
