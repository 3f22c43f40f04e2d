#!/usr/bin/env bash
# Devices behind servers: register reads per second through a real ser2net
# bridging TCP to vukra-sim's pseudo-terminal (next to the pty and the
# direct tcp:// path, in register_reads_bench's same run), and the MQTT
# path's latency: vukra poll --every 0.1 on a sim, into a mosquitto broker,
# 100 changes of a register each made by a set message, timed from the
# publish of the set to the new value at a subscriber (so an upper bound of
# the time from the change on the sim). Servers on 127.0.0.1, stopped at the end.
#   tcp_mqtt_bench.sh BUILD_DIR
set -u
build=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
for p in ser2net mosquitto mosquitto_sub; do
  command -v "$p" >/dev/null || PATH=$PATH:/usr/sbin
  command -v "$p" >/dev/null || { echo "no $p: skipped"; exit 0; }
done
. "$here/../scripts/pty_program.sh"
work=$(mktemp -d)
trap 'stop_pty_programs; rm -rf "$work"' EXIT
cd "$work"
cp "$here/../examples/table.xml" .
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
background() { "$@" >/dev/null 2>&1 & PTY_PIDS+=("$!"); }

# ser2net as it comes, and with its wait for a pause on the line (chardelay)
# off, each to a sim of its own.
bridges=()
for delay in true false; do
  start_pty_program "sim-$delay.out" "$build/tools/vukra-sim" --table table.xml 2>/dev/null
  bridge=$(free_port)
  printf 'connection: &d\n  accepter: tcp,127.0.0.1,%s\n  connector: serialdev,%s,115200n81,local\n  options:\n    chardelay: %s\n' \
    "$bridge" "$PTY_PATH" "$delay" >"ser2net-$delay.yaml"
  background ser2net -n -c "ser2net-$delay.yaml" -P "$work/ser2net-$delay.pid"
  bridges+=("tcp://127.0.0.1:$bridge")
done
sleep 0.5
echo "through ser2net: ${bridges[0]} with chardelay (its default), ${bridges[1]} without"
"$build/bench/register_reads_bench" "${bridges[@]}"

"$build/tools/vukra-sim" --table table.xml --listen 127.0.0.1:0 >listen.out 2>/dev/null &
PTY_PIDS+=("$!")
sleep 0.5
port=$(free_port)
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\nuser %s\n' "$port" "$(id -un)" >broker.conf
background mosquitto -c broker.conf
sleep 0.5
background "$build/tools/vukra" -q -p "$(head -n 1 listen.out)" poll offset_trim --every 0.1 \
  --mqtt "mqtt://127.0.0.1:$port/bench"
mosquitto_sub -h 127.0.0.1 -p "$port" -t bench/register/offset_trim -F '%U %p' >sub.out &
PTY_PIDS+=("$!")
sleep 1
: >latency.ms
for i in $(seq 1 100); do
  start=$(date +%s.%N)
  mosquitto_pub -h 127.0.0.1 -p "$port" -t bench/register/offset_trim/set -m "$i"
  for _ in $(seq 400); do grep -q "\"value\":$i," sub.out && break; sleep 0.005; done
  seen=$(grep -m 1 "\"value\":$i," sub.out | cut -d' ' -f1)
  [ -n "$seen" ] && awk -v a="$seen" -v b="$start" 'BEGIN { printf "%.3f\n", (a - b) * 1000 }' >>latency.ms
done
sort -n latency.ms | awk '{ v[NR] = $1 } END {
  if (NR == 0) { print "MQTT: no change arrived"; exit }
  printf "MQTT, poll every 0.1 s: set published -> new value at the subscriber, %d changes: median %.0f ms, worst %.0f ms\n",
         NR, v[int((NR + 1) / 2)], v[NR] }'
