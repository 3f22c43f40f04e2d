#!/usr/bin/env bash
# The Windows tools as a Windows user runs them, under wine: vukra.exe and
# vukra-gen.exe against vukra-sim (with a card image) on COM8 of the wine
# prefix, and vukra.exe on a tcp:// port. Device paths, --table and local
# files from the root start with "/" and must be taken as paths; a Windows
# path where a device path is expected is refused.
#   run_wine_tools_test.sh WIN_BUILD_DIR VUKRA_SIM EXAMPLE_TABLE
set -u
win_build=$(cd "$1" && pwd)
sim=$(realpath "$2")
table=$(realpath "$3")
here=$(dirname "$(realpath "$0")")
. "$here/../../scripts/pty_program.sh"
. "$here/../support/checks.sh"
export WINEPREFIX=$win_build/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
[ -f "$WINEPREFIX/system.reg" ] || wine wineboot -i >/dev/null 2>&1
cd "$work"
cp "$table" table.xml
cp "$win_build/tools/vukra.exe" "$win_build/tools/vukra-gen.exe" .
start_pty_program sim.out "$sim" --table table.xml --image "$work/card.img" 2>sim.err || exit 1
ln -sfn "$PTY_PATH" "$WINEPREFIX/dosdevices/com8"
printf 'written under wine\n' >w.txt
mkdir -p "tree/empty dir" "tree/a b" && printf 'x\n' >"tree/a b/x.txt"

# STATUS|STDOUT (exactly, without the CRs)|STDERR PATTERN|ARGUMENTS of vukra.exe -q -p COM8
while IFS='|' read -r status out err args; do
  eval "set -- $args"
  wine ./vukra.exe -q -p COM8 "$@" >o 2>e </dev/null
  rc=$?
  tr -d '\r' <o >o.txt
  if [ $rc = "$status" ] && [ "$(cat o.txt)" = "$(printf '%b' "$out")" ] && { [ -z "$err" ] || grep -q -- "$err" e; }; then ok; else
    ko "vukra.exe $args: status $rc, stdout $(cat o.txt), stderr $(cat e)"
  fi
done <<TABLE
0|setpoint = 21.500000||reg read setpoint
0|offset_trim = -12||--table $work/table.xml reg read offset_trim
0|||fs mkdir /mem/etc
0|||fs put w.txt /mem/w.txt
0|||fs get /mem/w.txt $work/w.out
0|written under wine||fs cat /mem/w.txt
0|||fs put -r tree /mem/tree
0|||fs get -r /mem/tree $work/back
0|etc\nw.txt\ntree\nwritten under wine||fs getfs + fs ls /mem + fs put w.txt /mem/etc/w2.txt + fs cat /mem/etc/w2.txt + fs putfs
0|w2.txt||fs ls /mem/etc
2||Windows path where a device path|fs ls 'C:\\mem'
TABLE
check "get wrote the file at a path from the root" cmp w.txt w.out
check "get -r brought the tree back" diff -r tree back

# A tcp:// port (Winsock) to vukra-sim --listen.
"$sim" --table table.xml --listen 127.0.0.1:0 >tcp.out 2>/dev/null &
PTY_PIDS+=("$!")
for _ in $(seq 600); do [ -s tcp.out ] && break; sleep 0.05; done
got=$(wine ./vukra.exe -q -p "$(head -n 1 tcp.out)" reg read setpoint </dev/null 2>&1 | tr -d '\r')
[ "$got" = "setpoint = 21.500000" ] && ok || ko "vukra.exe on $(head -n 1 tcp.out): $got"

# vukra-gen.exe: a table named from the root, the live page read on COM8, the C sources in ./generated.
wine ./vukra-gen.exe "$work/table.xml" --c --html-live "$work/live.html" --host device.local --port COM8 \
  >/dev/null 2>gen.err
grep -q 'value="-100000"' live.html && ok || ko "vukra-gen.exe's live page holds the value read: $(cat gen.err)"
[ -s generated/mb_Data.c ] && ok || ko "vukra-gen.exe --c writes the C sources: $(cat gen.err)"
wineserver -w || true
finish
