#!/usr/bin/env bash
# vukra mount against vukra-sim serving a card image: a tree of files copied
# in and back out byte for byte, the shell's file commands on the mount and
# the errors they get, the refusals told before the port opens, a device
# that vanishes, one with another status vocabulary, and the mirror with and without its put at the unmount.
# Needs /dev/fuse: without it the test fails, unless MODBUS_VUKRA_SKIP_FUSE=1.
#   vukra_mount_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
set -u
. "$(dirname "$(realpath "$0")")/../support/tool_checks.sh" "$@"
if [ ! -e /dev/fuse ]; then
  echo "no /dev/fuse on this host: vukra mount is not tested"
  [ "${MODBUS_VUKRA_SKIP_FUSE:-0}" = 1 ]
  exit
fi
if ! "$vukra" mount --help >/dev/null 2>&1; then
  echo "vukra has no mount command: built without libfuse3-dev"
  exit 1
fi
trap 'fusermount3 -uz "$work/mnt" 2>/dev/null; stop_pty_programs; rm -rf "$work"' EXIT

cp "$examples/table.xml" table.xml
mkdir mnt
# mount_on ARGS...: vukra mount mnt in the background, until the mount is there.
mount_on() {
  "$vukra" -q -p "$PTY_PATH" mount mnt "$@" 2>mount.err &
  mount_pid=$!
  for _ in $(seq 300); do
    mountpoint -q mnt && return 0
    kill -0 $mount_pid 2>/dev/null || break
    sleep 0.05
  done
  ko "no mount with $*: $(cat mount.err)"
  finish
}
unmount() {
  fusermount3 -u mnt
  wait $mount_pid && ok || ko "vukra mount ended with status $?: $(cat mount.err)"
}
# errno_of WHAT MESSAGE COMMAND...: the command fails with the message of an errno.
errno_of() {
  local what=$1 message=$2
  shift 2
  if "$@" >/dev/null 2>e.out; then ko "$what succeeded"; elif grep -q "$message" e.out; then ok; else ko "$what: $(cat e.out)"; fi
}

# The tree: binary, empty, SLIP's own bytes, 300 KiB, names with spaces and UTF-8.
mkdir -p tree/sub/deep "tree/with space" tree/ünïcødé
head -c 307200 /dev/urandom >tree/big.bin
: >tree/empty
for i in $(seq 400); do printf '\xdb\xc0\xdb\xdc\xdd\xc0'; done >tree/sub/slip.bin
# (their long names make the listing of sub take more than one readdir page)
for i in $(seq 40); do head -c $((i * 131)) /dev/urandom >tree/sub/a-rather-long-file-name-to-fill-pages-$i; done
for i in 1 2 3; do head -c $((i * 1024)) /dev/urandom >tree/sub/deep/k$i; done
printf 'spaced\n' >"tree/with space/a b.txt"
printf 'été\n' >tree/ünïcødé/ça.txt

"$ufs" card.o mkfs --nodes 512 >/dev/null || exit 1

# Refusals: one line, status 1, before the port (which does not exist) opens.
touch file
mkdir full && touch full/x
for dir in none file full; do
  fails "mount on $dir" "cannot mount on $dir" "$vukra" -p /dev/none mount $dir
done
"$vukra" -p /dev/none mount full 2>/dev/null
[ $? = 1 ] && ok || ko "a refused mount point gives status 1"
fails "--no-put without --mirror" "mirror" "$vukra" -p /dev/none mount --no-put mnt
fails "--mirror outside /mem" "/mem" "$vukra" -p /dev/none mount --mirror --root /dev mnt
for c in nan junk; do fails "--cache $c" "not a number of seconds" "$vukra" -p /dev/none mount --cache $c mnt; done
"$vukra" mount --help | grep -q -- --cache && ok || ko "mount --help"

start_pty_program sim.out "$sim" --table table.xml --image card.o 2>sim.err || exit 1
mount_on # the card's files by default
fails "mount where a mount is" "mounted there already" "$vukra" -p /dev/none mount mnt
check "cp -r into the mount" cp -r tree mnt/
check "cp -r out of the mount" cp -r mnt/tree back
check "the tree came back byte for byte" diff -r tree back
[ "$(cd mnt && find tree | sort)" = "$(find tree | sort)" ] && ok || ko "find: $(cd mnt && find tree)"
sizes() { ls -l "$1" | awk '/^-/ {print $5, $9}'; }
[ "$(sizes mnt/tree/sub)" = "$(sizes tree/sub)" ] && ok || ko "ls -l sizes: $(sizes mnt/tree/sub)"
[ "$(stat -c %s mnt/tree/big.bin)" = 307200 ] && ok || ko "stat size of big.bin"
cp tree/big.bin mnt/twin.bin # two open files read in turn: each read finds its own file again
check "cmp of two files on the mount" cmp mnt/tree/big.bin mnt/twin.bin

# The shell's commands.
check "mv of a file" mv mnt/tree/sub/a-rather-long-file-name-to-fill-pages-1 mnt/tree/moved
check "mv of a directory" mv mnt/tree/sub/deep mnt/deeper
cmp -s mnt/deeper/k3 tree/sub/deep/k3 && [ ! -e mnt/tree/sub/deep ] && ok || ko "the moved directory"
check "mkdir -p" mkdir -p mnt/a/b/c
[ -d mnt/a/b/c ] && ok || ko "mkdir -p made no a/b/c"
check "rm -r" rm -r mnt/tree/sub
[ ! -e mnt/tree/sub ] && [ "$(ls mnt/tree | wc -l)" = 5 ] && ok || ko "rm -r: $(ls mnt/tree)"
printf 'short\n' >mnt/tree/big.bin && [ "$(cat mnt/tree/big.bin)" = short ] && ok || ko "> over a file (O_TRUNC)"
printf 'more\n' >>mnt/tree/big.bin && [ "$(cat mnt/tree/big.bin)" = "$(printf 'short\nmore')" ] && ok || ko ">>"
df mnt | grep -q 'vukra:.*:/mem' && ok || ko "df: $(df mnt 2>&1)"
[ "$(stat -f -c %S mnt)" = 512 ] && [ "$(stat -f -c %b mnt)" -gt 0 ] && ok || ko "statfs of the card: $(stat -f mnt)"

# An open file is bound to its node: once its name is removed or names
# another file, it fails with ESTALE and never touches what bears the name.
# stale_cases: in mnt, with the mount alive after them.
stale_cases() {
  printf c0 >mnt/c && printf d0 >mnt/d && printf e0 >mnt/e
  exec 5<mnt/e && rm mnt/e
  errno_of "a read of a removed open file" "Stale file handle" head -c 2 <&5
  exec 5<&- 4>>mnt/c && mv mnt/d mnt/c
  errno_of "a write to a file replaced by mv" "Stale file handle" bash -c 'echo x >&4'
  printf e0 >mnt/e && exec 4>&- 5>>mnt/e && rm mnt/e && printf R >mnt/e
  errno_of "a write to a removed file" "Stale file handle" bash -c 'echo late >&5'
  exec 5>&-
  [ "$(cat mnt/c)$(cat mnt/e)" = d0R ] && ok || ko "an old descriptor wrote into another file: $(cat mnt/c mnt/e)"
  rm mnt/c mnt/e
}
stale_cases

# Errors by errno: what the device says, and what the mount cannot do.
errno_of "rmdir of a non-empty directory" "not empty" rmdir mnt/a
errno_of "mkdir of an existing name" "File exists" mkdir mnt/a
errno_of "cat of a missing file" "No such file" cat mnt/none
errno_of "chmod" "not permitted" chmod 600 mnt/tree/moved
errno_of "ln" "not permitted" ln mnt/tree/moved mnt/tree/linked
errno_of "truncate to 5 bytes" "not supported" truncate -s 5 mnt/tree/moved
errno_of "touch of a file" "not supported" touch mnt/tree/moved
long=$(printf 'n%.0s' $(seq 250))
errno_of "a path too long for the device" "too long" mkdir -p mnt/$long/$long/$long/$long
errno_of "a name too long for the device" "too long" touch mnt/$long$long
check "chmod to the mode shown" chmod 644 mnt/tree/moved
rm -r mnt/$long
unmount
stop_sim

check "vukra-ufs check of the card" "$ufs" card.o check
"$ufs" card.o cat /deeper/k2 | cmp -s - tree/sub/deep/k2 && ok || ko "vukra-ufs cat of a moved file"
"$ufs" card.o cat "/tree/with space/a b.txt" | grep -qx spaced && ok || ko "vukra-ufs cat of a spaced name"

# A device that vanishes: EIO within its time-out and a second, and the unmount still works.
start_pty_program sim2.out "$sim" --table table.xml --image card.o --drop-after 8 2>sim.err || exit 1
mount_on --root /mem --cache 0
for _ in $(seq 20); do timeout 5.5 stat mnt/deeper >/dev/null 2>e.out || break; done
grep -q "Input/output error" e.out && ok || ko "stat when the device went silent: $(cat e.out)"
errno_of "cat from a vanished device" "Input/output error" timeout 5.5 cat mnt/tree/moved
errno_of "ls of a vanished device" "Input/output error" timeout 5.5 ls mnt/deeper
unmount
stop_sim

# A listing that never ends is EIO, and the mount goes on serving.
start_pty_program sim5.out "$sim" --table table.xml --image card.o --count-only 12 --endless-listing 2>sim.err || exit 1
mount_on --root /mem --cache 0
errno_of "ls of a listing that never ends" "Input/output error" ls mnt/tree
check "the mount still serves after it" cmp mnt/deeper/k2 tree/sub/deep/k2
unmount
stop_sim

# A device whose statuses are not ours (2 for no such file, 39 for not empty):
# a copy in still creates its file; a status nobody knows elsewhere is EIO.
start_pty_program sim7.out "$sim" --table table.xml --image card.o --statuses=-44=2,-20=39 2>sim.err || exit 1
mount_on --root /mem --cache 0
check "cp into a device that answers 2 for no such file" cp "tree/with space/a b.txt" mnt/foreign.txt
cmp -s mnt/foreign.txt "tree/with space/a b.txt" && ok || ko "the copy on that device"
errno_of "cat of a missing file there" "No such file" cat mnt/none
errno_of "rmdir of a non-empty directory there" "Input/output error" rmdir mnt/a
unmount
stop_sim

# Mirror: what was written reaches the card after the unmount; --no-put leaves it as it was.
start_pty_program sim3.out "$sim" --table table.xml --image card.o 2>sim.err || exit 1
mount_on --mirror --cache 0 # (each fstat reaches vukra)
printf 'mirrored\n' >mnt/tree/mirror.txt
rm mnt/deeper/k1
stale_cases
# A second process here is refused the local card, and says where and why.
cp card.o other.o
here=("$PTY_PATH" "$PTY_PID")
start_pty_program sim7.out "$sim" --table table.xml --image other.o 2>sim.err || exit 1
fails "a second getfs in the directory" "sdcard0.o in $work is held by another process" "$vukra" -p "$PTY_PATH" fs getfs
stop_sim
PTY_PATH=${here[0]} PTY_PID=${here[1]}
unmount
stop_sim
[ "$("$ufs" card.o cat /tree/mirror.txt 2>&1)" = mirrored ] && ok || ko "the mirror's file is not on the card"
"$ufs" card.o ls /deeper | grep -q k1 && ko "the mirror's rm did not reach the card" || ok
check "the card is sound after the put" "$ufs" card.o check
cp card.o before.o
# A put that fails (no write answered) ends vukra with status 1 and keeps the local card aside.
start_pty_program sim6.out "$sim" --table table.xml --image card.o --count-only 6 --drop-after 0 2>sim.err || exit 1
mount_on --mirror
printf 'kept\n' >mnt/kept.txt
fusermount3 -u mnt
wait $mount_pid
[ $? = 1 ] && grep -q 'did not reach the device.*kept as sdcard0-unsaved-' mount.err && ok || ko "failed put: $(cat mount.err)"
[ "$("$ufs" sdcard0-unsaved-*.o cat /kept.txt 2>&1)" = kept ] && ok || ko "the kept card lacks what was written"
rm sdcard0-unsaved-*.o
# A mirror killed before its put keeps the card aside; the next one leaves it alone.
mount_on --mirror
printf 'kept\n' >mnt/killed.txt
kill -KILL $mount_pid
wait $mount_pid 2>/dev/null
# auto_unmount takes the dead mount away (a stat fails until then)
for _ in $(seq 300); do stat mnt >/dev/null 2>&1 && ! mountpoint -q mnt && break; sleep 0.05; done
mount_on --mirror --no-put
printf 'x\n' >mnt/killed.txt
unmount
check "the card kept at SIGKILL" cmp <("$ufs" sdcard0-unsaved-*.o cat /killed.txt 2>&1) <(echo kept)
stop_sim
start_pty_program sim4.out "$sim" --table table.xml --image card.o 2>sim.err || exit 1
mount_on --mirror --no-put
printf 'dropped\n' >mnt/nope.txt
errno_of "a write into a full card" "No space left" sh -c 'head -c 9000000 /dev/zero >mnt/full.bin'
kill -TERM $mount_pid # unmounts as fusermount3 -u does
wait $mount_pid && ! mountpoint -q mnt && ok || ko "SIGTERM did not unmount cleanly: $(cat mount.err)"
stop_sim
grep -q 'no-put' mount.err && ok || ko "--no-put said nothing: $(cat mount.err)"
check "--no-put left the card unchanged" cmp card.o before.o
finish
