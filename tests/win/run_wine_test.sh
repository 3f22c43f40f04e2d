#!/usr/bin/env bash
# Runs a cross-built Windows test under wine against a pseudo-terminal that
# the wine prefix maps to COM5.
#   run_wine_test.sh WIN_BUILD_DIR PEER_PROGRAM
set -eu
win_build=$(cd "$1" && pwd)
peer=$2
export WINEPREFIX=$win_build/wineprefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  wine wineboot -i >/dev/null 2>&1
fi

out=$(mktemp)
"$peer" >"$out" &
peer_pid=$!
trap 'kill $peer_pid 2>/dev/null || true; rm -f "$out"' EXIT
for _ in $(seq 100); do [ -s "$out" ] && break; sleep 0.05; done
pty=$(head -n 1 "$out")
[ -e "$pty" ] || { echo "peer gave no pty"; exit 1; }
ln -sfn "$pty" "$WINEPREFIX/dosdevices/com5"

cd "$win_build/src"
status=0
wine ./wine_session_test.exe COM5 || status=$?
wineserver -w || true
exit $status
