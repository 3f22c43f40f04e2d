#!/usr/bin/env bash
# vukra serve's web door and MQTT bridge against vukra-sim, with real
# clients: headless Chromium, curl, mbpoll (Modbus TCP), promtool and a
# mosquitto broker, each started here on 127.0.0.1 and a free port.
#   vukra_web_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
here=$(dirname "$(realpath "$0")")
. "$here/../support/tool_checks.sh"
# A register whose name holds a quote: the metrics' labels must escape it.
sed 's/name="serial_number"/name="serial\&quot;number"/' "$examples/table.xml" >table.xml

# code WANT WHAT CURL-ARGS...: the HTTP status is WANT and the body a JSON reason.
code() {
  local want=$1 what=$2
  shift 2
  local got
  got=$(curl -s -o body -w '%{http_code}' --max-time 20 "$@")
  if [ "$got" = "$want" ] && grep -q '"error":' body; then ok; else ko "$what: $got $(cat body)"; fi
}
# mqtt_now TOPIC: its retained message
mqtt_now() { mosquitto_sub -h 127.0.0.1 -p "$mport" -t "$1" -C 1 -W 2 2>/dev/null; }

mport=$(free_port)
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\nuser %s\n' "$mport" "$(id -un)" >broker.conf
run broker.out mosquitto -c broker.conf
for _ in $(seq 100); do mosquitto_pub -h 127.0.0.1 -p "$mport" -t probe -m x 2>/dev/null && break; sleep 0.1; done
# A config left by a register that is gone from the table.
mosquitto_pub -h 127.0.0.1 -p "$mport" -r -t homeassistant/sensor/Oven-203/old_name/config -m '{"name":"old_name"}'

run sim.out "$sim" --table table.xml --listen 127.0.0.1:0
simpid=$LAST
wait_for '^tcp://' sim.out
dev=$(head -n 1 sim.out)
run serve.out "$vukra" -q -p "$dev" serve --http 127.0.0.1:0 --modbus-tcp 127.0.0.1:0 --share 127.0.0.1:0 \
  --every 0.5 --mqtt "mqtt://127.0.0.1:$mport/plant/oven" --ha-discovery --name "Oven 3"
serve=$LAST
wait_for 'web on http' serve.out && wait_for 'shared line on' serve.out || { cat serve.out; exit 1; }
url=$(grep -o 'http://[^ ]*/' serve.out)
mtcp=$(grep -o 'Modbus TCP on [0-9.]*:[0-9]*' serve.out | sed 's/.*://')
share=tcp://$(grep -o 'shared line on [0-9.]*:[0-9]*' serve.out | sed 's/.*on //')
modbus_read() { mbpoll -m tcp -0 -1 -a 1 -r "$1" -t 4 -p "$mtcp" 127.0.0.1 2>&1 | sed -n "s/^\[$1\]:[[:space:]]*\([0-9]*\).*/\1/p"; }

# --- the live page: a form submitted in Chromium writes the device ---
[ "$("$here/web_browser.py" submit "$url" offset_trim 66)" = 66 ] && ok || ko "the page after the form shows 66"
[ "$(modbus_read 258)" = 66 ] && ok || ko "the device holds the form's 66: $(modbus_read 258)"
host=${url#http://}
"$gen" table.xml --html-live gen.html --host "${host%/}" >/dev/null 2>&1
# The same bytes but for the values (the generator read none: "Erreur").
sed -zi 's/value="[^"]*"/V/g' gen.html
curl -s "$url" | sed -z 's/value="[^"]*"/V/g' >served.html
cmp -s gen.html served.html && ok || ko "the live page is the generator's: $(diff gen.html served.html | head -5)"

# --- /ui shows, by its events, a value written through Modbus TCP ---
mbpoll -m tcp -0 -1 -a 1 -r 258 -t 4 -p "$mtcp" 127.0.0.1 55 >/dev/null 2>&1
check "/ui shows 55" "$here/web_browser.py" shows "${url}ui" offset_trim 55

# --- the JSON API's answers and refusals ---
[ "$(curl -s -X PUT --data '{"value": [1.5]}' "${url}api/registers/setpoint" | grep -o '"value":1.5')" ] && ok ||
  ko "a PUT answers the value read back"
code 400 "a value out of range" -X PUT --data '{"value": 70000}' "${url}api/registers/offset_trim"
code 400 "not JSON" -X PUT --data 'value=3' "${url}api/registers/offset_trim"
code 403 "a read-only register" -X PUT --data '{"value": 1}' "${url}api/registers/cycle_count"
code 403 "another site's page" -X PUT -H 'Origin: http://evil.example' --data '{"value": 1}' "${url}api/registers/alarm"
code 403 "a name that is not loopback" -H 'Host: rebind.example' "${url}api/registers"
code 404 "no such register" "${url}api/registers/nosuch"
curl -s "${url}metrics" >metrics.txt
check "promtool check metrics" promtool check metrics <metrics.txt
grep -q '^vukra_register_value{name="offset_trim",table="process"} 55$' metrics.txt && ok || ko "the gauge: $(head -5 metrics.txt)"

# --- a second serve through the first's shared line: token, --read-only ---
head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n' >token
fails "off loopback without a token" 'not on loopback' "$vukra" -q -p "$share" serve --http 0.0.0.0:0
run serve2.out "$vukra" -q -p "$share" serve --http 127.0.0.1:0 --http-token-file token --read-only
wait_for 'web on http' serve2.out
url2=$(grep -o 'http://[^ ]*/' serve2.out)
code 401 "a write without the token" -X PUT --data '{"value": 1}' "${url2}api/registers/alarm"
code 401 "a prefix of the token" -X PUT -H "Authorization: Bearer $(head -c 40 token)" --data '{"value": 1}' \
  "${url2}api/registers/alarm"
code 403 "--read-only" -X PUT -H "Authorization: Bearer $(cat token)" --data '{"value": 1}' "${url2}api/registers/alarm"

# --- Home Assistant: the configs, field by field, from the broker ---
cat >ha_check.py <<'PY'
import json, sys
configs = {}
for line in open(sys.argv[1]):
    topic, _, payload = line.rstrip("\n").partition(" ")
    if payload:
        configs[topic] = json.loads(payload)
assert "homeassistant/sensor/Oven-203/old_name/config" not in configs, "the stale config stays"
c = configs["homeassistant/number/Oven-203/offset_trim/config"]
assert (c["min"], c["max"], c["step"]) == (-32768, 32767, 1), c
assert c["command_topic"] == "plant/oven/register/offset_trim/set" and c["state_topic"] == "plant/oven/register/offset_trim"
assert c["device"]["name"] == "Oven 3" and c["device"]["identifiers"] == ["vukra_Oven-203"], c["device"]
assert [a["topic"] for a in c["availability"]] == ["plant/oven/status", "plant/oven/line", c["state_topic"]]
assert c["availability_mode"] == "all" and c["value_template"] == "{{ value_json.value }}"
s = configs["homeassistant/switch/Oven-203/heater_on/config"]
assert (s["payload_on"], s["state_on"], s["payload_off"]) == ("1", "1", "0"), s
r = configs["homeassistant/sensor/Oven-203/cycle_count/config"]
assert "command_topic" not in r and r["state_class"] == "measurement", r
b = configs["homeassistant/sensor/Oven-203/probe_raw/config"]
assert "join" in b["value_template"] and "state_class" not in b, b
assert configs["homeassistant/number/Oven-203/reset/config"]["optimistic"] is True
assert len({c["unique_id"] for c in configs.values()}) == len(configs)
PY
for _ in $(seq 30); do # until the broker holds them all
  mosquitto_sub -h 127.0.0.1 -p "$mport" -t 'homeassistant/#' -v -W 1 >ha.txt 2>/dev/null
  python3 ha_check.py ha.txt >/dev/null 2>&1 && break
done
check "the discovery configs" python3 ha_check.py ha.txt
mosquitto_sub -h 127.0.0.1 -p "$mport" -t 'homeassistant/+/Oven-203/+/config' -R -C 3 -W 10 >again.txt 2>/dev/null &
sub=$!
sleep 0.5
mosquitto_pub -h 127.0.0.1 -p "$mport" -t homeassistant/status -m online
wait "$sub" && [ "$(wc -l <again.txt)" -eq 3 ] && ok || ko "configs sent again when Home Assistant says online"
[ "$(mqtt_now plant/oven/line)" = online ] && ok || ko "the line online"

# --- a hostile client leaves the door serving others ---
python3 - "${host%/}" >hostile.out 2>&1 <<'PY' &
import socket, sys, threading, time
host, port = sys.argv[1].split(":")
def conn():
    return socket.create_connection((host, int(port)), timeout=30)
def slow():      # a header a byte at a time
    s = conn()
    for b in b"GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n":
        s.send(bytes([b])); time.sleep(0.3)
def endless():   # a body that never ends
    s = conn()
    s.send(b"PUT /api/registers/alarm HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n")
    try:
        while True: s.send(b"1000\r\n" + b"x" * 4096 + b"\r\n")
    except OSError: pass
def flood():     # requests as fast as they go
    for _ in range(300):
        try:
            s = conn(); s.send(b"GET /api/registers HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"); s.recv(100); s.close()
        except OSError: pass
workers = [threading.Thread(target=f, daemon=True) for f in [slow, endless] * 4 + [flood] * 8]
for w in workers: w.start()
time.sleep(15)
PY
hostile=$!
sleep 2
for _ in 1 2 3; do
  check "served beside the hostile clients" curl -sSf --max-time 10 -o /dev/null -w '%{time_total} %{time_connect}\n' "${url}api/registers/setpoint"
done
kill "$hostile" 2>/dev/null
kill -0 "$serve" && ok || ko "serve ended under the hostile clients"

# --- the device stops: 504, and Home Assistant sees it unavailable ---
kill "$simpid"
for _ in $(seq 100); do [ "$(mqtt_now plant/oven/line)" = offline ] && break; sleep 0.2; done
[ "$(mqtt_now plant/oven/line)" = offline ] && ok || ko "the line offline when the device stops"
code 504 "the device does not answer" "${url}api/registers/setpoint"
kill -TERM "$serve" && wait "$serve" && ok || ko "serve ends with 0 on SIGTERM"
[ "$(mqtt_now plant/oven/status)" = offline ] && ok || ko "the bridge offline once serve ends"
finish
