#!/bin/sh
# run-wine.sh PREFIX PROGRAM [ARGUMENT...]: runs a Windows program with wine, without a display.
# PREFIX is wine's folder for it, made if need be, by one process at a time.
set -eu
WINEPREFIX=$1
shift
WINEDEBUG=-all
export WINEPREFIX WINEDEBUG
unset DISPLAY
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
if [ ! -e "$WINEPREFIX/dosdevices/unc/localhost/z\$" ]; then
    mkdir -p "$WINEPREFIX"
    # The registry is written when its server ends.
    flock "$WINEPREFIX" sh -c '[ -e "$2/system.reg" ] || { "$1" wineboot --init && "$(dirname "$1")/wineserver" -w; }' \
        init "$wine" "$WINEPREFIX" >/dev/null 2>&1
    # The drives as shares of this machine, under the names that they have on Windows.
    network=$WINEPREFIX/dosdevices/unc/localhost
    mkdir -p "$network"
    ln -sfn ../../../drive_c "$network/c\$"
    ln -sfn / "$network/z\$"
fi
# What wine leaves running in the background holds on to what the first program wrote to: a caller
# that waits for the end of a pipe would wait for it.
output=$(mktemp -d)
trap 'rm -rf "$output"' EXIT
"$(dirname "$wine")/wineserver" -p20 </dev/null >/dev/null 2>&1 || true # the next starts at once
code=0
"$wine" "$@" >"$output/out" 2>"$output/error" || code=$?
cat "$output/out"
cat "$output/error" >&2
exit "$code"
