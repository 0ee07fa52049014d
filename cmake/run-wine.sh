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
if [ ! -e "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$WINEPREFIX"
    # The registry is written when its server ends.
    flock "$WINEPREFIX" sh -c '[ -e "$2/system.reg" ] || { "$1" wineboot --init && "$(dirname "$1")/wineserver" -w; }' \
        init "$wine" "$WINEPREFIX" >/dev/null 2>&1
fi
# Stays for a while: the next program starts at once.
"$(dirname "$wine")/wineserver" -p20 </dev/null >/dev/null 2>&1 || true
exec "$wine" "$@"
