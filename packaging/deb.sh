#!/usr/bin/env bash
# deb.sh FOLDER [VERSION]: makes the Debian packages of this tree in FOLDER, with dpkg-buildpackage. The
# version and with it the names come from CMakeLists.txt, the dates from the commit: two runs give the
# same bytes. VERSION makes them as if it stood there, to try an upgrade. DEBFULLNAME and DEBEMAIL name the
# maintainer.
set -euo pipefail
mkdir -p "$1"
folder=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."

version=${2-$(sed -nE 's/^project\(.* VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)}
major=${version%%.*}
date=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
maintainer="${DEBFULLNAME:-xkivmp3 maintainers} <${DEBEMAIL:-maintainers@xkivmp3.invalid}>"

# Built outside, so that nothing that lies about comes into the packages.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source=$work/xkivmp3-$version
mkdir "$source"
git ls-files -z | tar --null -T - -c | tar -x -C "$source"
sed -i -E "s/^(project\(.* VERSION )[0-9.]+/\1$version/" "$source/CMakeLists.txt"
chmod -R u=rwX,go=rX "$source"
cp -r "$source/packaging/debian" "$source/debian"
cd "$source"

sed -i -e "s/@MAJOR@/$major/g" -e "s/@MAINTAINER@/$maintainer/" debian/control debian/*MAJOR*
for file in debian/*MAJOR*; do
    mv "$file" "${file/MAJOR/$major}"
done
sed 's/^$/./; s/^/ /' LICENSE >"$work/license"
sed -i -e "/@LICENSE@/{r $work/license" -e 'd}' debian/copyright
{
    echo "xkivmp3 ($version) unstable; urgency=medium"
    echo
    # What CHANGELOG.md lists for this version, in lines of 80 columns.
    awk -v heading="## $version" '
        /^## / { here = $0 == heading }
        here && /^- / { printf "%s%s", separator, substr($0, 3); separator = "\n" }
        here && /^  / { printf " %s", substr($0, 3) }
        END { print "" }' CHANGELOG.md |
        while read -r change; do
            fold -s -w 74 <<<"$change" | sed '1s/^/  * /; 2,$s/^/    /; s/ *$//'
        done
    echo
    echo " -- $maintainer  $(LC_ALL=C date -uRd "@$date")"
} >debian/changelog

dpkg-buildpackage --build=binary --no-sign >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
}
cp "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$folder/"
