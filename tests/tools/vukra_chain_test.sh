#!/usr/bin/env bash
# vukra's commands joined by "+" on one session against vukra-sim: the
# whole card copied with fs getfs, changed under /mem and written back with
# fs putfs (the card then holds the change, and a change without putfs never
# reaches it), or only what changed with fs putfs --changed; a failing command ends the chain; "+" misused is a usage
# error; Ctrl-C cancels a transfer and leaves the device answering; watch
# prints the timer's notifications until Ctrl-C.
#   vukra_chain_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
set -u
. "$(dirname "$(realpath "$0")")/../support/tool_checks.sh" "$@"
# Waits until vukra (pid $1) catches SIGINT, that is until its transfer or
# watch is under way, then sends it one.
interrupt_when_caught() {
  for _ in $(seq 300); do
    [ $((0x$(sed -n 's/^SigCgt:\s*//p' "/proc/$1/status" 2>/dev/null || echo 0) & 2)) -ne 0 ] && break
    sleep 0.05
  done
  kill -INT "$1"
}

cp "$examples/table.xml" table.xml
printf 'hello\n' >hello.txt
printf 'notes of the day\n' >notes.txt
"$ufs" card.o mkfs --nodes 64 >/dev/null && "$ufs" card.o mkdir /etc >/dev/null &&
  "$ufs" card.o put hello.txt /etc/hello.txt >/dev/null || exit 1
cp card.o slow.o
head -c 60000 /dev/urandom >big.bin
"$ufs" slow.o put big.bin /big.bin >/dev/null || exit 1

start_pty_program sim.out "$sim" --table table.xml --image card.o 2>sim.err || exit 1
v() { "$vukra" -q -p "$PTY_PATH" "$@"; }

# A change under /mem stays in the local copy until putfs.
check "getfs, then a put into the copy" v fs getfs + fs put notes.txt /mem/etc/local-only.txt
v fs ls /mem/etc | grep -q local-only && ko "a put under /mem reached the device without putfs" || ok

# reg list after a command of the device: its listing is data still.
v fs ls /mem/etc + reg list process >list.out && grep -qx 'setpoint \[0x0100, real (2)\]' list.out && ok ||
  ko "reg list in a chain: $(cat list.out)"

# The whole round: get, list, change, read back, put.
v fs getfs + fs ls /mem/etc + fs put notes.txt /mem/etc/notes.txt + fs cat /mem/etc/notes.txt + fs putfs \
  >chain.out 2>chain.err
rc=$?
[ $rc = 0 ] && [ "$(cat chain.out)" = "$(printf 'hello.txt\nnotes of the day')" ] && ok ||
  ko "the chain (status $rc): $(cat chain.out chain.err)"
"$vukra" -v -p "$PTY_PATH" fs getfs + fs putfs >loud.out 2>loud.err
grep -q '^getfs: done in .* bytes/s' loud.err && grep -q '^putfs: done' loud.err && [ ! -s loud.out ] && ok ||
  ko "the transfers' summaries on stderr: $(cat loud.err)"
"$vukra" -p "$PTY_PATH" fs getfs + fs ls /mem + fs putfs >quiet.out 2>quiet.err
[ -s quiet.out ] && [ ! -s quiet.err ] && ok || ko "a chain is quiet on success: $(cat quiet.err)"

# putfs --changed: what changed reaches the card, whose header, map and
# metadata are then the local card's; a put of nothing says so.
v fs getfs + fs put notes.txt /mem/etc/changed.txt + fs mkdir /mem/etc/sub + fs putfs --changed 2>changed.err &&
  cmp -s -n $((29 + $(od -An -tu4 -j9 -N4 card.o) + $(od -An -tu4 -j21 -N4 card.o))) card.o sdcard0.o &&
  [ "$(v fs cat /mem/etc/changed.txt)" = "notes of the day" ] && ok || ko "putfs --changed: $(cat changed.err)"
"$vukra" -p "$PTY_PATH" fs getfs + fs putfs --changed 2>nothing.err && grep -q '^putfs --changed: nothing was changed' nothing.err && ok ||
  ko "a put of nothing changed: $(cat nothing.err)"
fails "--changed with --full" "excludes" v fs getfs + fs putfs --changed --full

# A failing command ends the chain: the ones after it do not run.
"$vukra" -p "$PTY_PATH" fs ls /mem + fs cat /mem/missing + fs put hello.txt /mem/after.txt >fail.out 2>fail.err
rc=$?
[ $rc = 1 ] && grep -q 'cannot read /mem/missing: status -44' fail.err &&
  grep -q 'command 2 of 3 (fs cat) failed: the commands after it did not run' fail.err && ok ||
  ko "a failing command in a chain (status $rc): $(cat fail.err)"
v fs ls /mem | grep -q after.txt && ko "a command after the failing one ran" || ok
fails "putfs without a getfs before it" "needs the local copy a getfs makes" v fs ls /mem + fs putfs + fs getfs
fails "the first command without a port" "fs ls needs the device's port" "$vukra" reg list + fs ls /mem

# "+" misused: a usage error before anything runs.
fails "a leading +" 'none before the first "+"' "$vukra" + fs ls /mem
fails "a trailing +" 'none after the last "+"' v fs ls /mem +
fails "a double +" 'none between two "+"' v fs ls /mem + + fs ls /
fails "shared options after a +" 'go in the first command' v fs ls /mem + -p "$PTY_PATH" fs ls /
fails "a bad command later in the chain" "frob" v fs put hello.txt /mem/early.txt + fs frob
v fs ls /mem | grep -q early.txt && ko "a chain with a bad command ran its first command" || ok

# watch: a line a second, status 0 at Ctrl-C.
"$vukra" -q -p "$PTY_PATH" watch >watch.out 2>watch.err &
pid=$!
for _ in $(seq 40); do [ "$(wc -l <watch.out)" -ge 2 ] && break; sleep 0.1; done
interrupt_when_caught $pid
wait $pid
rc=$?
[ $rc = 0 ] && [ "$(grep -c -E '^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} status 0 \(ok\)$' watch.out)" -ge 2 ] &&
  [ "$(grep -cv 'status 0 (ok)$' watch.out)" = 0 ] && ok || ko "watch (status $rc): $(cat watch.out watch.err)"

stop_sim
[ "$("$ufs" card.o cat /etc/notes.txt 2>/dev/null)" = "notes of the day" ] && ok || ko "the card lacks what putfs wrote"
"$ufs" card.o ls /etc 2>/dev/null | grep -q local-only && ko "the card holds what was never put" || ok
check "vukra-ufs check of the card" "$ufs" card.o check

# Ctrl-C during a getfs from a slow line: cancelled, and the device still answers.
start_pty_program slow.out "$sim" --table table.xml --image slow.o --baud 19200 2>/dev/null || exit 1
"$vukra" -q -p "$PTY_PATH" fs getfs + fs ls /mem >cancel.out 2>cancel.err &
pid=$!
interrupt_when_caught $pid
wait $pid
rc=$?
[ $rc != 0 ] && grep -q 'getfs cancelled at Ctrl-C (status -11)' cancel.err && [ ! -s cancel.out ] && ok ||
  ko "Ctrl-C during getfs (status $rc): $(cat cancel.err)"
[ "$(v fs cat /mem/etc/hello.txt)" = hello ] && ok || ko "the device answers after a cancelled getfs"
stop_sim

# A second Ctrl-C, once the first is taken, ends vukra at once with the
# status a shell gives to an interrupted program (the first waits for the
# read under way: a silent device's time-out).
start_pty_program silent.out "$sim" --table table.xml --silent 2>/dev/null || exit 1
"$vukra" -q -p "$PTY_PATH" poll offset_trim --every 0.001 >/dev/null 2>&1 &
pid=$!
interrupt_when_caught $pid
for _ in $(seq 100); do [ $((0x$(sed -n 's/^ShdPnd:\s*//p' "/proc/$pid/status" 2>/dev/null || echo 0) & 2)) = 0 ] && break; sleep 0.05; done
kill -INT $pid
wait $pid
rc=$?
[ $rc = 130 ] && ok || ko "a second Ctrl-C: status $rc"
stop_sim

# A device that vanishes during a put: the run ends, so the local card is kept from the next getfs.
start_pty_program drop.out "$sim" --table table.xml --image slow.o --drop-after 0 --count-only 6 2>/dev/null || exit 1
v fs getfs + fs put notes.txt /mem/n + fs putfs --changed 2>put.err && ko "a put to a vanishing device succeeded" ||
  { grep -q "kept as sdcard0-unsaved-" put.err && cmp -s sdcard0.o sdcard0-unsaved-*.o && ok || ko "not kept: $(cat put.err)"; }
stop_sim

finish
