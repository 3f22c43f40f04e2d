#!/usr/bin/env bash
# Runs the cross-built host application under wine: COM7 of the wine prefix
# leads to vukra-sim with a card image and replies paced at 115200 baud (so
# that a transfer can be cancelled while it runs).
#   run_wine_test.sh WIN_BUILD_DIR VUKRA_SIM EXAMPLE_TABLE
set -eu
win_build=$(cd "$1" && pwd)
sim=$2
table=$3
. "$(dirname "$0")/../../scripts/pty_program.sh"
export WINEPREFIX=$win_build/wineprefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  wine wineboot -i >/dev/null 2>&1
fi

work=$(mktemp -d)
trap 'stop_pty_programs; rm -rf "$work"' EXIT
start_pty_program "$work/com7.out" "$sim" --table "$table" --image "$work/card.img" --baud 115200
ln -sfn "$PTY_PATH" "$WINEPREFIX/dosdevices/com7"
cp "$win_build/src/modbus_vukra.dll" "$win_build/src/wine_host_app.exe" "$work/"
cp "$table" "$work/table.xml"
cd "$work"
status=0
wine ./wine_host_app.exe COM7 || status=$?
wineserver -w || true
exit $status
