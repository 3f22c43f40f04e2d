#!/usr/bin/env bash
# Runs the cross-built Windows tests under wine: COM5 of the wine prefix
# leads to vukra-sim on a pseudo-terminal, COM7 to vukra-sim with a card
# image and replies paced at 115200 baud (so that a transfer can be followed
# and cancelled). wine_host_app loads the DLL with LoadLibrary and uses
# every export over the Win32 serial port; wine_import_test is linked with
# its import library. The import test runs again on a tcp:// port, to
# vukra-sim --listen (Winsock).
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

# Starts a program that prints its pty on its first line; maps it to a COM port.
start_line() {
  local com=$1
  shift
  start_pty_program "$work/$com.out" "$@"
  ln -sfn "$PTY_PATH" "$WINEPREFIX/dosdevices/$com"
}

start_line com5 "$sim" --table "$table"
start_line com7 "$sim" --table "$table" --image "$work/card.img" --baud 115200
"$sim" --table "$table" --listen 127.0.0.1:0 >"$work/tcp.out" 2>/dev/null &
PTY_PIDS+=("$!")
for _ in $(seq 600); do [ -s "$work/tcp.out" ] && break; sleep 0.05; done

cp "$win_build/src/modbus_vukra.dll" "$win_build/src/wine_import_test.exe" "$win_build/src/wine_host_app.exe" "$work/"
cp "$table" "$work/table.xml"
cd "$work"
status=0
wine ./wine_host_app.exe COM7 || status=$?
wine ./wine_import_test.exe COM5 || status=$?
wine ./wine_import_test.exe "$(head -n 1 "$work/tcp.out")" || status=$?
wineserver -w || true
exit $status
