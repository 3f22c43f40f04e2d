#!/usr/bin/env bash
# vukra serve against vukra-sim, with real clients: mbpoll and pymodbus on
# Modbus TCP, and through the shared line a vukra mount, a Python script of
# the package and vukra itself, all at once; the systemd unit verified;
# refusals and hostile bytes. Servers on 127.0.0.1 and free ports, stopped
# on exit.
#   vukra_serve_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR LIBRARY PYTHON_DIR UNIT
. "$(dirname "$0")/../support/tool_checks.sh"
library=$4 python_dir=$5 unit=$6
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
cp "$examples/table.xml" .
trap 'fusermount3 -uz "$work/mnt" 2>/dev/null; stop_pty_programs; rm -rf "$work"' EXIT

# --- the unit: systemd-analyze finds nothing to say about an instance ---
mkdir units
sed "s|/usr/bin/vukra|$vukra|" "$unit" >units/vukra-serve@oven3.service
if systemd-analyze verify --man=no units/vukra-serve@oven3.service >verify.out 2>&1 && [ ! -s verify.out ]; then ok; else
  ko "systemd-analyze verify: $(cat verify.out)"
fi

# --- refusals before anything opens ---
fails "no door" "serve needs a door" "$vukra" -p /dev/none serve
fails "a bad address" "--share nowhere is not HOST:PORT" "$vukra" -p /dev/none serve --share nowhere

# --- grouped reads: one transaction for neighbours; a span the device
# refuses (w is write-only) read register by register from then on ---
sed -e 's|<table_list>|<table_list><table name="t" base="300"><register_list><register name="a" offset="0" access="R" type="int16" value="1"/><register name="w" offset="1" access="W" type="int16"/><register name="b" offset="2" access="R" type="int16" value="2"/><register name="c" offset="3" access="R" type="uint32" value="70000"/></register_list></table>|' \
  "$examples/table.xml" >grouped.xml
start_pty_program grouped.out "$sim" --table grouped.xml 2>grouped.err || exit 1
frames() { grep -c '^Frame : ' "$1"; }
"$vukra" -v -p "$PTY_PATH" --table grouped.xml poll a b c --count 3 --every 0.01 >rounds 2>frames.err
[ "$(grep -c '  a = 1  b = 2  c = 70000$' rounds)" = 3 ] && ok || ko "grouped rounds: $(cat rounds frames.err)"
# round 1: the span (refused), then a, b and c alone; then those three a round
[ "$(frames frames.err)" = $((2 * (4 + 3 + 3))) ] && ok || ko "exchanges of the grouped poll: $(frames frames.err)"
"$vukra" -v -p "$PTY_PATH" --table grouped.xml reg read setpoint cycle_count gain temperature >values 2>frames.err
[ "$(frames frames.err)" = 4 ] && ok || ko "two tables, two exchanges: $(frames frames.err)"
"$vukra" -v -p "$PTY_PATH" --table grouped.xml reg read setpoint gain --gap 6 >values 2>frames.err
[ "$(frames frames.err)" = 4 ] && ok || ko "--gap 6 leaves 7 words apart: $(frames frames.err)"
stop_sim

# --- SIGTERM with an exchange in flight on the line: its client still gets
# the answer, and serve ends with status 0 (this script is the device) ---
/usr/bin/python3 - "$vukra" <<'PY' && ok || ko "the answer in flight at SIGTERM"
import signal, socket, subprocess, sys, time
dev = socket.create_server(("127.0.0.1", 0))
serve = subprocess.Popen([sys.argv[1], "-p", "tcp://127.0.0.1:%d" % dev.getsockname()[1], "serve",
                          "--modbus-tcp", "127.0.0.1:0"], stderr=subprocess.PIPE)
port = int(serve.stderr.readline().rsplit(b":", 1)[1])
line = dev.accept()[0]
def heard():  # one request frame on the line, whole
    got = b""
    while b"\n" not in got: got += line.recv(100)
reply = b":0103020007F3\r\n"
a, b = (socket.create_connection(("127.0.0.1", port), timeout=10) for _ in "ab")
a.sendall(bytes([0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1])); heard()
b.sendall(bytes([0, 2, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1]))
time.sleep(0.3)  # b's request queued behind a's, then in flight on the line
line.sendall(b"\xc0" + reply + b"\xc0"); heard()
serve.send_signal(signal.SIGTERM)
time.sleep(0.3)  # serve is stopping when the device answers
line.sendall(b"\xc0" + reply + b"\xc0")
want = lambda tid: bytes([0, tid, 0, 0, 0, 5, 1, 3, 2, 0, 7])
assert a.recv(100) == want(1) and b.recv(100) == want(2) and serve.wait(10) == 0
PY

# --- serve on the sim ---
start_pty_program sim.out "$sim" --table table.xml --image card.img 2>sim.err || exit 1
: >serve.err
"$vukra" -p "$PTY_PATH" serve --modbus-tcp 127.0.0.1:0 --share 127.0.0.1:0 2>serve.err &
SERVE=$!
PTY_PIDS+=("$SERVE")
for _ in $(seq 300); do [ "$(grep -c ' on 127.0.0.1:' serve.err)" = 2 ] && break; sleep 0.1; done
mb=$(sed -n 's/^vukra: Modbus TCP on 127.0.0.1:\([0-9]*\)$/\1/p' serve.err)
sh=$(sed -n 's/^vukra: the shared line on 127.0.0.1:\([0-9]*\)$/\1/p' serve.err)
[ -n "$mb" ] && [ -n "$sh" ] && ok || { ko "no listening lines: $(cat serve.err)"; finish; }
grep -q warning serve.err && ko "a loopback door warned: $(cat serve.err)" || ok
share=tcp://127.0.0.1:$sh

poll() { mbpoll -q -m tcp -p "$mb" -a 1 -1 "$@"; } # poll OPTIONS... 127.0.0.1 [VALUES...]
check "pymodbus" /usr/bin/python3 "$here/serve_pymodbus.py" "$mb"
# (pymodbus wrote setpoint -3.25 and offset_trim -123)
has "mbpoll reads what pymodbus wrote" '\[259\]: 	65413 \(-123\)$' poll -r 259 127.0.0.1
check "mbpoll writes" poll -r 259 127.0.0.1 77
has "through the shared line" '^offset_trim = 77$' "$vukra" -q -p "$share" reg read offset_trim
poll -r 261 127.0.0.1 5 >out 2>&1
grep -q 'Illegal data address' out && ok || ko "a write of a read-only register: $(cat out)"

# --- hostile bytes: the connection goes, serve stays ---
head -c 3000 /dev/urandom >noise
/usr/bin/python3 - "$mb" "$sh" <<'PY' && ok || ko "hostile bytes"
import socket, sys
for port in sys.argv[1:]:
    s = socket.create_connection(("127.0.0.1", int(port)))
    s.sendall(open("noise", "rb").read() * 4)
    s.settimeout(10)
    try:
        while s.recv(4096):
            pass
    except (ConnectionResetError, TimeoutError):
        pass
PY
kill -0 $SERVE && ok || ko "serve ended on hostile bytes"
has "served after them" '^cycle_count = 4711$' "$vukra" -q -p "$share" reg read cycle_count

# --- through the shared line: a mount, a Python script and Modbus polling at once ---
if [ -e /dev/fuse ] && "$vukra" mount --help >/dev/null 2>&1; then
  mkdir mnt
  "$vukra" -q -p "$share" mount mnt --root /mem 2>mount.err &
  MOUNT=$!
  for _ in $(seq 100); do mountpoint -q mnt && break; sleep 0.1; done
  mountpoint -q mnt && ok || ko "no mount through the shared line: $(cat mount.err)"
  for _ in $(seq 30); do poll -r 261 127.0.0.1; done >poll.out 2>&1 &
  POLLER=$!
  MODBUS_VUKRA_LIBRARY=$library PYTHONPATH=$python_dir /usr/bin/python3 - "$share" >script.out 2>&1 <<'PY' &
import os, sys, modbus_vukra
with modbus_vukra.open(sys.argv[1]) as dev:
    for i in range(20):
        data = os.urandom(3000 + i)
        with dev.fs.open("/mem/script.bin", "wb") as f:
            f.write(data)
        with dev.fs.open("/mem/script.bin", "rb") as f:
            assert f.read() == data, i
        assert dev.registers["cycle_count"] == 4711
print("script ok", file=sys.stderr)
PY
  SCRIPT=$!
  for i in 1 2 3 4 5; do
    head -c $((20000 + i)) /dev/urandom >m$i
    cp m$i mnt/m$i && cmp m$i mnt/m$i && ok || ko "file $i through the mount"
  done
  # A file open on the mount and replaced by another client: stale, and what bears its name now untouched.
  exec 5>>mnt/m1
  "$vukra" -q -p "$share" fs mv /mem/m2 /mem/m1 >/dev/null 2>&1
  { echo late >&5; } 2>/dev/null && ko "a write reached the file that replaced an open one" || ok
  exec 5>&-
  "$vukra" -q -p "$share" fs cat /mem/m1 | cmp -s - m2 && ok || ko "the file that replaced an open one changed"
  # and once its cache time has passed, the mount shows the other client's file (m2's 20002 bytes).
  for _ in $(seq 100); do [ "$(stat -c %s mnt/m1)" = 20002 ] && break; sleep 0.1; done
  [ "$(stat -c %s mnt/m1)" = 20002 ] && ok || ko "the mount's cache kept the replaced file's size"
  wait $SCRIPT && grep -q "script ok" script.out && ok || ko "the script: $(tail -n 5 script.out)"
  wait $POLLER
  [ "$(grep -c '^\[261\]: 	4711$' poll.out)" = 30 ] && ok || ko "polling meanwhile: $(grep -v 4711 poll.out | head -n 5)"
  fusermount3 -u mnt
  wait $MOUNT && ok || ko "the mount ended with status $?: $(cat mount.err)"
fi

fails "a taken port" "cannot listen for Modbus TCP on 127.0.0.1:$sh" "$vukra" -p "$PTY_PATH" serve --modbus-tcp "127.0.0.1:$sh"
# standard error a pipe nobody reads: no SIGPIPE, the taken port is the failure
/usr/bin/python3 -c 'import os, subprocess, sys; r, w = os.pipe(); os.close(r); sys.exit(subprocess.call(sys.argv[1:], stderr=w))' \
  "$vukra" -p "$PTY_PATH" serve --share "127.0.0.1:$sh" --modbus-tcp 127.0.0.1:0 --read-only
[ $? = 1 ] && ok || ko "serve with its standard error gone"
kill -TERM $SERVE
wait $SERVE && ok || ko "SIGTERM: serve ended with status $?: $(cat serve.err)"
finish
