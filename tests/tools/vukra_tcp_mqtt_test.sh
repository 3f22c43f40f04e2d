#!/usr/bin/env bash
# vukra on tcp:// ports (vukra-sim --listen, and a real ser2net bridging TCP
# to the sim's pseudo-terminal) and vukra poll into a real mosquitto broker.
# Every server is started here on 127.0.0.1 and a free port, and stopped on
# exit.
#   vukra_tcp_mqtt_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
. "$(dirname "$0")/../support/tool_checks.sh"
cp "$examples/table.xml" .

until_ok() { for _ in $(seq 100); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1; }
listening_sim() { # listening_sim OUT [PORT]: a sim on tcp; its name in NAME
  run "$1" "$sim" --table table.xml --listen "127.0.0.1:${2:-0}"
  wait_for '^tcp://' "$1" && NAME=$(head -n 1 "$1")
}
seen() { if wait_for "$2" "$3"; then ok; else ko "$1: $(tail -n 5 "$3")"; fi; }

# --- vukra-sim --listen: the same commands as on a line, and the formats ---
listening_sim sim1.out && d1=$NAME
has "write over tcp" '^offset_trim = 5$' "$vukra" -q -p "$d1" reg write offset_trim 5
has "json" '"offset_trim":\{"value":5,"type":"int16","status":"ok"\},"probe_raw":\{"value":\[100,-200,300\]' \
  "$vukra" -q -p "$d1" reg read offset_trim probe_raw --format json
has "csv" '^[0-9T:.-]+Z,21.50*,100 -200 300$' "$vukra" -q -p "$d1" reg read setpoint probe_raw --format csv
[ "$(head -n 1 out)" = time,setpoint,probe_raw ] && ok || ko "the csv header: $(cat out)"
has "poll, counted" '"serial_number":\{"value":123456' "$vukra" -q -p "$d1" poll serial_number --every 0.1 --count 3 --format json
[ "$(wc -l <out)" -eq 3 ] && ok || ko "three rounds, three lines: $(cat out)"
fails "a host that is not there" "no such host" "$vukra" -q -p tcp://no-such-host.invalid:4001 reg read setpoint
for n in 0 -1; do fails "--count $n" 'rounds from 1 up' timeout 5 "$vukra" -q -p "$d1" poll setpoint --count=$n; done
fails "an unclosed bracket" 'IPv6 address goes in brackets' "$vukra" -q -p "$d1" poll setpoint --mqtt 'mqtt://[::1/q'

# --- a real ser2net between vukra and the sim's pseudo-terminal ---
start_pty_program pty.out "$sim" --table table.xml --image card.img
bridge=$(free_port)
cat >ser2net.yaml <<EOF
connection: &device
  accepter: tcp,127.0.0.1,$bridge
  connector: serialdev,$PTY_PATH,115200n81,local
  options:
    kickolduser: true
    chardelay: false
EOF
run ser2net.out ser2net -n -c ser2net.yaml -P "$work/ser2net.pid"
d2=tcp://127.0.0.1:$bridge
until_ok "$vukra" -q -p "$d2" reg read heater_on
has "registers through ser2net" '^heater_on = 1$' "$vukra" -q -p "$d2" reg read heater_on
head -c 50000 /dev/urandom >file.bin
check "put through ser2net" "$vukra" -q -p "$d2" fs put file.bin /mem/file.bin
check "get through ser2net" "$vukra" -q -p "$d2" fs get /mem/file.bin back.bin
check "the same bytes" cmp file.bin back.bin
has "getfs through ser2net" 'file.bin' "$vukra" -q -p "$d2" fs getfs + fs ls /mem

# --- mosquitto: values, writes, refusals, a restarted broker, three devices ---
mport=$(free_port)
# mosquitto started as root would drop to its own user, who cannot read $work.
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\nuser %s\n' "$mport" "$(id -un)" >broker.conf
broker() { run broker.out mosquitto -c broker.conf; BROKER=$LAST; until_ok mosquitto_pub -h 127.0.0.1 -p "$mport" -t probe -m x; }
subscribe() { run "$1" mosquitto_sub -h 127.0.0.1 -p "$mport" -v -t 'plant/#'; sleep 0.3; }
poller() { run "poll$1.out" "$vukra" -q -p "$2" poll offset_trim cycle_count --every 0.2 --mqtt "mqtt://127.0.0.1:$mport/plant/d$1"; }
broker
subscribe sub.out
poller 1 "$d1"
POLLER1=$LAST
seen "values reach the subscriber" '^plant/d1/register/offset_trim \{"value":5,"type":"int16","time":"[0-9T:.-]+Z","status":"ok"\}$' sub.out
seen "online" '^plant/d1/status online$' sub.out
mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d1/register/offset_trim/set -m -321
seen "a set writes the sim's register" '^plant/d1/register/offset_trim \{"value":-321,' sub.out
while read -r topic value pattern; do
  mosquitto_pub -h 127.0.0.1 -p "$mport" -t "plant/d1/register/$topic/set" -m "$value"
  seen "refused: $topic $value" "^plant/d1/register/$topic/error .*$pattern" sub.out
done <<'EOF'
cycle_count 1 read-only.*nothing was sent
offset_trim 40000 not a value of offset_trim's type int16
no_such 1 no register no_such
EOF
seq 1 200 | mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d1/register/offset_trim/set -l
seen "a flood of sets, in order" '^plant/d1/register/offset_trim \{"value":200,' sub.out

# --- what the bridge refuses: retained sets, a NUL, names and prefixes that cannot be topics ---
sed 's/name="cycle_count"/name="status"/; s/name="heater_on"/name="a+b"/' table.xml >names.xml
mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d4/register/offset_trim/set -r -m 999
listening_sim sim4.out
run poll4.out "$vukra" -q --table names.xml -p "$NAME" poll offset_trim status --every 0.2 --mqtt "mqtt://127.0.0.1:$mport/plant/d4"
seen "a retained set is refused" '^plant/d4/register/offset_trim/error a retained set is never applied' sub.out
seen "a register named status has its own topic" '^plant/d4/register/status \{"value":4711,' sub.out
printf '12\0999' | mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d4/register/offset_trim/set -s
seen "a NUL byte is refused" '^plant/d4/register/offset_trim/error the value holds a NUL byte' sub.out
seen "still read after both" '^plant/d4/register/offset_trim \{"value":-12,' sub.out
[ "$(mosquitto_sub -h 127.0.0.1 -p "$mport" -t plant/d4/status -C 1 -W 5)" = online ] && ok || ko "availability kept"
! grep -Eq '"value":(999|12),' sub.out && ok || ko "a refused set was written: $(grep -E '"value":(999|12),' sub.out)"
mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d4/register/offset_trim/set -r -n
fails "a name with +" 'register name "a+b" cannot be an MQTT topic level: it holds + or #' \
  "$vukra" -q --table names.xml -p "$NAME" poll a+b --count 1 --mqtt "mqtt://127.0.0.1:$mport/plant/d4"
fails "prefix //" 'prefix "//" has an empty level' "$vukra" -q -p "$NAME" poll setpoint --mqtt "mqtt://127.0.0.1:$mport///"
fails "prefix \$SYS" 'prefix "\$SYS/x" begins with \$' "$vukra" -q -p "$NAME" poll setpoint --mqtt "mqtt://127.0.0.1:$mport/\$SYS/x"

# --- sets between the reads of a slow device, and a set left at the end ---
run sim5.out "$sim" --table table.xml --listen 127.0.0.1:0 --late 1000
wait_for '^tcp://' sim5.out
run poll5.out "$vukra" -q -p "$(head -n 1 sim5.out)" poll offset_trim setpoint --every 0.1 --mqtt "mqtt://127.0.0.1:$mport/plant/d5"
POLLER5=$LAST
seen "the slow device's first value" '^plant/d5/register/offset_trim \{"value":-12,' sub.out
mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d5/register/offset_trim/set -m 77
seen "a set between two reads of rounds longer than the period" '^plant/d5/register/offset_trim \{"value":77,' sub.out
mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d5/register/offset_trim/set -q 1 -m 88
kill -INT "$POLLER5"
wait "$POLLER5" && ok || ko "Ctrl-C during a slow read"
seen "a set left at the end is told" '^plant/d5/register/offset_trim/error the value "88" came as the link stopped' sub.out
grep -q 'offset_trim/set: the value "88" came as the link stopped: nothing was sent' poll5.out && ok || ko "told on standard error: $(tail -n 3 poll5.out)"
# A flood while the slow device holds the line: what is past the bound of waiting sets is refused at once.
run poll6.out "$vukra" -q -p "$(head -n 1 sim5.out)" poll offset_trim --every 0.1 --mqtt "mqtt://127.0.0.1:$mport/plant/d6"
POLLER6=$LAST
seen "the slow device again" '^plant/d6/register/offset_trim \{' sub.out
seq 1 300 | mosquitto_pub -h 127.0.0.1 -p "$mport" -t plant/d6/register/offset_trim/set -l
seen "sets past the bound" '^plant/d6/register/offset_trim/error 256 writes are already waiting' sub.out
kill -KILL "$POLLER6"

kill "$BROKER"
wait "$BROKER" 2>/dev/null
sleep 1
broker
subscribe sub2.out
seen "publishing resumes after the broker's restart" '^plant/d1/register/offset_trim \{"value":200,' sub2.out
seen "online again" '^plant/d1/status online$' sub2.out
kill -0 "$POLLER1" && ok || ko "the poller ended with the broker"

listening_sim sim3.out && poller 3 "$NAME"
POLLER3=$LAST
poller 2 "$d2"
for d in 1 2 3; do seen "device $d seen by one subscriber" "^plant/d$d/register/cycle_count \\{\"value\":4711," sub2.out; done
kill -9 "$POLLER3"
seen "the last will" '^plant/d3/status offline$' sub2.out
kill -INT "$POLLER1"
wait "$POLLER1" && ok || ko "Ctrl-C ends the poll with status 0"
seen "offline when it ends" '^plant/d1/status offline$' sub2.out

# --- mqtts with a certificate made here, and credentials from the environment ---
tport=$(free_port)
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 \
  -keyout key.pem -out cert.pem 2>/dev/null
: >passwords && mosquitto_passwd -b passwords poller 's3cret' 2>/dev/null
printf 'listener %s 127.0.0.1\ncertfile %s\nkeyfile %s\npassword_file %s\nallow_anonymous false\nuser %s\n' \
  "$tport" "$work/cert.pem" "$work/key.pem" "$work/passwords" "$(id -un)" >tls.conf
run tls.out mosquitto -c tls.conf
until_ok mosquitto_pub -h 127.0.0.1 -p "$tport" --cafile cert.pem -u poller -P s3cret -t probe -m x
run tsub.out mosquitto_sub -h 127.0.0.1 -p "$tport" --cafile cert.pem -u poller -P s3cret -v -t 'tls/#'
run tpoll.out env VUKRA_MQTT_USERNAME=poller VUKRA_MQTT_PASSWORD=s3cret "$vukra" -q -p "$d1" poll heater_on \
  --every 0.2 --mqtt "mqtts://127.0.0.1:$tport/tls" --mqtt-cafile cert.pem
seen "TLS with a password" '^tls/register/heater_on \{"value":1,' tsub.out
kill "$LAST" # the sim serves one client at a time
# ... and from a file written on Windows; a file without the user name is refused.
printf 'poller\r\ns3cret\r\n' >crlf && printf '\ns3cret\n' >nouser
run crlf.out "$vukra" -q -p "$d1" poll heater_on --every 0.2 --mqtt "mqtts://127.0.0.1:$tport/tls/crlf" --mqtt-cafile cert.pem \
  --mqtt-credentials crlf
seen "credentials from CR LF lines" '^tls/crlf/register/heater_on \{"value":1,' tsub.out
fails "no user name" 'nouser has no user name' timeout 10 "$vukra" -q -p "$d1" poll heater_on --mqtt "mqtt://127.0.0.1:$tport/x" \
  --mqtt-credentials nouser
# Failures that say why: the CA file, a certificate for another host, a
# listener that never answers CONNECT.
fails "a CA file that is not there" 'cannot read the CA file nothere.pem: No such file' \
  "$vukra" -q -p "$d1" poll heater_on --mqtt "mqtts://127.0.0.1:$tport/tls" --mqtt-cafile nothere.pem
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=other -keyout other.key -out other.pem 2>/dev/null
run servers.err "$vukra" -q -p "$d1" poll heater_on --mqtt "mqtts://127.0.0.1:$tport/tls" --mqtt-cafile other.pem
seen "another CA" 'TLS with the MQTT broker 127.0.0.1:[0-9]+ failed: .* not vouched for by the CA file other.pem' servers.err
run servers.err "$vukra" -q -p "$d1" poll heater_on --mqtt "mqtts://localhost:$tport/tls" --mqtt-cafile cert.pem
seen "another host" 'certificate is for another host than localhost' servers.err
refused=$(free_port) # nothing listens: refused, and never told as taken (that would come before the silent one's)
listening_sim sim9.out && run servers.err "$vukra" -q -p "$NAME" poll heater_on --mqtt "mqtt://127.0.0.1:$refused/x"
seen "a refused connection" "127.0.0.1:$refused is not there yet" servers.err
silent=$(free_port)
run silent.out /usr/bin/python3 -c "import socket, time
s = socket.create_server(('127.0.0.1', $silent)); c = s.accept(); time.sleep(60)"
run servers.err "$vukra" -q -p "$d1" poll heater_on --mqtt "mqtt://127.0.0.1:$silent/x"
seen "a listener that never answers" 'took the connection but has not answered it in 5 s' servers.err
grep -q "127.0.0.1:$refused took the connection" servers.err && ko "a refused connection told as taken" || ok
finish
