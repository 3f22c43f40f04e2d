#!/usr/bin/env bash
# The demonstration of `make demo`, on a finished native build: vukra-sim
# plays the device of examples/table.xml on a pseudo-terminal, and the vukra
# command line reads and writes registers of every type through the
# library (one read with -v shows the frames that go over the line, the
# others only their values); then a second
# vukra-sim serves an SD card image, which vukra copies, changes under /mem
# and writes back in one session.
set -eu
build=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/scripts/pty_program.sh"
vukra=$build/tools/vukra
work=$(mktemp -d)
trap 'stop_pty_programs; rm -rf "$work"' EXIT

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

cp "$root/examples/table.xml" "$work/table.xml"
cd "$work"

step "SLIP packets both ways on a pseudo-terminal"
"$build/examples/link_demo"
start_pty_program sim.out "$build/tools/vukra-sim" --table table.xml 2>sim.err
port=$PTY_PATH
step "vukra-sim plays the device on $port"

step "The register table"
"$vukra" reg list

step "One read with -v: the library's lines about the exchange (the frames on the line), then the value"
"$vukra" -v -p "$port" reg read setpoint

step "Reading every register (quiet by default: only the values)"
"$vukra" -p "$port" reg read setpoint offset_trim heater_on cycle_count energy uptime gain temperature probe_raw \
  alarm history serial_number

step "Writing the writable registers, then reading them back"
"$vukra" -p "$port" reg write setpoint 19.75
"$vukra" -p "$port" reg write offset_trim -250
"$vukra" -p "$port" reg write heater_on 0
"$vukra" -p "$port" reg write energy -2000000000
"$vukra" -p "$port" reg write gain 1.25
"$vukra" -p "$port" reg write alarm 1
"$vukra" -p "$port" reg read setpoint offset_trim heater_on energy gain alarm

step "The device side's C sources and the HTML pages, from the same table"
"$build/tools/vukra-gen" table.xml --all --host device.local --port "$port" >/dev/null
ls generated
grep -A3 'ModbusTableIndex' generated/mb_Data.c
grep -c '<TR bgcolor' generated/modbus_live.html | sed 's/^/live page rows: /'

step "An SD card image prepared on the host with the library's kernel"
ufs=$build/tools/vukra-ufs
"$ufs" card.o mkfs --nodes 64
"$ufs" card.o mkdir /etc
"$ufs" card.o put table.xml /etc/table.xml
"$ufs" card.o put generated/mb_Data.c /mb_Data.c
"$ufs" card.o tree
"$ufs" card.o df
"$ufs" card.o check

step "What the command line refuses before anything is sent"
"$vukra" -p "$port" reg write offset_trim 70000 || true
"$vukra" -p "$port" reg write offset_trim 12abc || true
"$vukra" -p "$port" reg write cycle_count 5 || true
"$vukra" -p "$port" reg read no_such_register || true

step "The card on a device: copied whole, changed under /mem, written back"
# A second emulated device, serving the card prepared above as its SD card.
start_pty_program card-sim.out "$build/tools/vukra-sim" --table table.xml --image card.o --baud 115200 2>card-sim.err
card_port=$PTY_PATH card_sim=$PTY_PID
echo "-- vukra fs ls /mem"
"$vukra" -p "$card_port" fs ls /mem
printf 'written under /mem by the demo\n' >notes.txt
# One session for the four commands: after getfs, /mem paths are the local
# copy until putfs. On a terminal a progress line and a summary for each
# transfer.
echo "-- vukra fs getfs + fs put notes.txt /mem/etc/notes.txt + fs cat /mem/etc/notes.txt + fs putfs"
"$vukra" -p "$card_port" fs getfs + fs put notes.txt /mem/etc/notes.txt + fs cat /mem/etc/notes.txt + fs putfs
echo "-- vukra fs get -r /mem card-files (the card's tree, file by file)"
"$vukra" -p "$card_port" fs get -r /mem card-files
find card-files | sort
echo "-- vukra watch (the device's status each second; Ctrl-C after 2.5 s)"
timeout -s INT 2.5 "$vukra" -p "$card_port" watch || true
kill "$card_sim" && wait "$card_sim" || true # the emulator writes the card back as it ends
echo "-- the emulator has ended and written its card back: vukra-ufs card.o tree, cat /etc/notes.txt"
"$ufs" card.o tree
"$ufs" card.o cat /etc/notes.txt
echo
echo "demo done"
