#!/usr/bin/env bash
# vukra fs against vukra-sim serving a card image made by vukra-ufs: files
# in and out byte for byte, listings longer than one reply, directories,
# renames, usage and attributes; failures that must name the path and the
# device's status and leave every file as it was; afterwards, the image
# must hold what was put and pass vukra-ufs check.
#   vukra_fs_test.sh BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR
set -u
. "$(dirname "$(realpath "$0")")/../support/tool_checks.sh" "$@"

cp "$examples/table.xml" table.xml
printf 'hello\n' >hello.txt
head -c 102400 /dev/urandom >big.bin
head -c 70000 /dev/urandom >other.bin

# The card: a document, and a directory of more entries than one readdir reply holds.
"$ufs" card.o mkfs --nodes 512 >/dev/null || exit 1
"$ufs" card.o mkdir /docs >/dev/null && "$ufs" card.o put hello.txt /docs/hello.txt >/dev/null || exit 1
"$ufs" card.o mkdir /many >/dev/null || exit 1
for i in $(seq -w 1 150); do "$ufs" card.o put hello.txt "/many/entry-$i" >/dev/null || exit 1; done
cp card.o spare.o
"$ufs" spare.o put big.bin /big.bin >/dev/null || exit 1

start_pty_program sim.out "$sim" --table table.xml --image card.o 2>sim.err || exit 1
fs() { "$vukra" -q -p "$PTY_PATH" fs "$@"; }
loud() { "$vukra" -v -p "$PTY_PATH" fs "$@"; } # the library's lines on stderr

# Files in and out.
free_before=$(fs df /mem | sed -n 's/^free blocks *//p')
check "put of 100 KiB" fs put big.bin /mem/big.bin
check "get it back" fs get /mem/big.bin big.out
check "byte-identical" cmp big.bin big.out
loud get /mem/big.bin - >big.stdout 2>loud.err
check "get to standard output: only the file's bytes" cmp big.bin big.stdout
grep -q 'bytes/s' loud.err && ko "a progress line on a stderr that is no terminal" || ok
if command -v script >/dev/null; then # a terminal for stderr
  for q in "" -q; do
    script -qc "'$vukra' $q -p '$PTY_PATH' fs get /mem/big.bin big.tty" /dev/null >tty.out 2>&1
    lines=$(tr '\r' '\n' <tty.out | grep -c '^/mem/big.bin: 102400 of 102400 bytes (100%), [0-9]* bytes/s')
    [ "$lines" = "$([ -z "$q" ] && echo 1 || echo 0)" ] && ok || ko "progress line on a terminal ($q): $(tail -3 tty.out)"
  done
fi
loud cat /mem/big.bin >cat.out 2>/dev/null
check "cat of a binary file is exactly the file" cmp big.bin cat.out
[ "$(fs cat /mem/docs/hello.txt)" = hello ] && ok || ko "cat of a small file"
check "put over an existing file" fs put other.bin /mem/big.bin
fs get /mem/big.bin - >other.out
check "the file is the new one" cmp other.bin other.out
fs ls /mem | grep -q vukra-put && ko "put left its temporary file" || ok
check "put into a directory by relative path" fs put hello.txt mem/docs/again.txt
[ "$(fs cat /mem/docs/again.txt)" = hello ] && ok || ko "the relative path is from the root"

# Trees: spaces, UTF-8, empty files and directories, both ways byte for byte.
mkdir -p "tree/empty dir" "tree/a b/été" && : >"tree/empty file" && cp big.bin "tree/a b/été/ü big.bin"
printf 'x\n' >"tree/a b/x.txt"
check "put -r of a tree" fs put -r tree /mem/tree
check "get -r of it back" fs get -r /mem/tree back
check "the tree came back whole" diff -r tree back
fs tree /mem/tree | grep -q vukra- && ko "a tree copy left temporary files" || ok
if command -v script >/dev/null; then
  script -qc "'$vukra' -p '$PTY_PATH' fs get -r /mem/tree tty.tree" /dev/null >tty.out 2>&1
  [ "$(tr '\r' '\n' <tty.out | grep -c '^/mem/tree: 102402 of 102402 bytes (100%)')" = 1 ] && ok ||
    ko "one progress line over the tree: $(tail -3 tty.out)"
fi
ln -s "$work/tree" tree/loop
# What is refused before anything is copied (status 2 for a word that reads wrong).
while IFS='|' read -r rc pattern args; do
  eval "set -- $args"
  "$vukra" -q -p "$PTY_PATH" fs "$@" >o 2>e </dev/null
  got=$?
  [ $got = "$rc" ] && grep -q -- "$pattern" e && [ "$(wc -l <e)" = 1 ] && [ ! -s o ] && ok || ko "fs $args ($got): $(cat e)"
done <<'TABLE'
2|Windows path|put hello.txt 'mem\docs\x.txt'
2|reads as a device path: there is no local /mem|get /mem/big.bin /mem/big.bin
2|reads as a device path|put -r /mem/tree /mem/tree2
1|lies inside it|put -r "$work/tree" "$work/tree/in"
1|lies inside it|get -r /dev /dev/shm/x
1|tree/loop is a link to a directory|put -r tree /mem/tree3
1|is not a directory: fs put without -r|put -r hello.txt /mem/x
1|is not a directory: fs get without -r|get -r /mem/big.bin x
1|device, not a file nor a directory; nothing was copied|get -r /dev devices
TABLE
rm tree/loop
fs ls /mem | grep -q tree3 && ko "a refused tree copy made its directory" || ok
[ ! -e devices ] && ok || ko "a refused get -r made its directory"

# Listings: 150 entries come in several pages.
seq -w 1 150 | sed 's/^/entry-/' >many.expected
fs ls /mem/many | sort >many.got
check "ls lists every entry once" cmp many.expected many.got
[ "$(fs ls -l /mem/many | grep -c '^- *6 entry-[0-9]*$')" = 150 ] && ok || ko "ls -l: kind, size and name of each"
fs ls -l /mem >root.got
grep -q '^d *[0-9]* docs$' root.got && grep -q '^- *70000 big.bin$' root.got && ok || ko "ls -l of the card: $(cat root.got)"
[ "$(fs ls /mem/docs/hello.txt)" = /mem/docs/hello.txt ] && ok || ko "ls of a file names it"

# Directories, renames, removal.
check "mkdir" fs mkdir /mem/new
fs stat /mem/new | grep -q '^kind 8 (directory)$' && ok || ko "stat of the new directory"
check "rmdir of an empty directory" fs rmdir /mem/new
fails "stat of what rmdir removed" "/mem/new: status -44" fs stat /mem/new
check "mv" fs mv /mem/docs/hello.txt /mem/docs/greeting.txt
[ "$(fs ls /mem/docs | sort | tr '\n' ' ')" = "again.txt greeting.txt " ] && ok || ko "mv renamed the file"
check "rm" fs rm /mem/docs/again.txt
[ "$(fs ls /mem/docs)" = greeting.txt ] && ok || ko "rm removed the file"

# Attributes and usage.
fs stat /mem/big.bin >stat.got
grep -q '^size 70000$' stat.got && grep -q '^kind 1 (regular file)$' stat.got && grep -q '^node [1-9]' stat.got &&
  grep -q '^time ' stat.got && ok || ko "stat: $(cat stat.got)"
fs stat /dev/sdcard0 | grep -q '^kind [0-9]* (block device)$' && ok || ko "stat of the card's device node"
fs df /mem >df.got
grep -q '^block size  512$' df.got && [ "$(wc -l <df.got)" = 4 ] && ok || ko "df: $(cat df.got)"
free_after=$(sed -n 's/^free blocks *//p' df.got)
[ -n "$free_before" ] && [ "$free_after" -lt "$free_before" ] && ok || ko "df: free blocks $free_before then $free_after"

# tree: the directories' entries below their names.
fs tree /mem >tree.got
head -n 1 tree.got | grep -qx /mem && grep -qx '  docs/' tree.got && grep -qx '    greeting.txt' tree.got &&
  grep -qx '  many/' tree.got && [ "$(grep -c '^    entry-' tree.got)" = 150 ] && ok || ko "tree: $(head -20 tree.got)"
[ "$(grep -n -x '    greeting.txt' tree.got | cut -d: -f1)" = $(($(grep -n -x '  docs/' tree.got | cut -d: -f1) + 1)) ] &&
  ok || ko "tree: the file right below its directory"

# Failures: the path and the device's status, files untouched.
printf 'keep\n' >local.txt
fails "get of a missing file" "/mem/missing.*status -44" fs get /mem/missing local.txt
[ "$(cat local.txt)" = keep ] && ok || ko "a failed get left local.txt changed"
ls -A | grep -q vukra-get && ko "a failed get left its temporary file" || ok
fails "rmdir of a non-empty directory" "/mem/many.*status -20" fs rmdir /mem/many
fails "rm of a directory" "/mem/many.*status 24" fs rm /mem/many
fails "cat of a directory" "/mem/docs.*directory" fs cat /mem/docs
fails "put of a missing local file" "nothing.bin" fs put nothing.bin /mem/big.bin
fails "put of a directory" "is a directory: fs put -r" fs put . /mem/big.bin
fails "put into a missing directory" "/mem/none/x.*status" fs put hello.txt /mem/none/x
fails "get into a directory" "is a directory" fs get /mem/big.bin .
fails "mv of a missing file" "/mem/missing" fs mv /mem/missing /mem/other
fs cat /mem/big.bin >/dev/full 2>full.err
[ $? = 1 ] && grep -q 'standard output failed: No space left' full.err && ok || ko "cat to a full disk: $(cat full.err)"
fs cat /mem/big.bin | cmp -s - other.bin && ok || ko "the failures left /mem/big.bin as it was"

stop_sim
# The card holds what was put, and is sound.
"$ufs" card.o get /big.bin image.out >/dev/null 2>&1
check "the image holds the file put last" cmp other.bin image.out
[ "$("$ufs" card.o cat /docs/greeting.txt 2>/dev/null)" = hello ] && ok || ko "the image holds the renamed file"
[ "$("$ufs" card.o ls /many 2>/dev/null | wc -l)" = 150 ] && ok || ko "the image holds the 150 entries"
"$ufs" card.o ls / 2>/dev/null | grep -q -e vukra -e '^new$' && ko "the image holds leftovers" || ok
check "vukra-ufs check of the image" "$ufs" card.o check

# A device that vanishes during a transfer: the old files stay as they were.
start_pty_program drop.out "$sim" --table table.xml --image spare.o --drop-after 12 2>/dev/null || exit 1
fails "put to a vanishing device" "/mem/docs/hello.txt: no reply from the device.*time-out" fs put big.bin /mem/docs/hello.txt
stop_sim
[ "$("$ufs" spare.o cat /docs/hello.txt 2>/dev/null)" = hello ] && ok || ko "a failed put changed the remote file"
start_pty_program drop.out "$sim" --table table.xml --image spare.o --drop-after 5 2>/dev/null || exit 1
cp other.bin kept.bin
fails "get from a vanishing device" "/mem/big.bin: no reply.*time-out" fs get /mem/big.bin kept.bin
stop_sim
check "a failed get left the local file as it was" cmp other.bin kept.bin
ls -A | grep -q vukra-get && ko "a failed get left its temporary file" || ok

# A device that vanishes in a tree copy: the file is named, status 1, no half-written final name.
"$ufs" spare.o mkdir /t >/dev/null && "$ufs" spare.o put big.bin /t/big.bin >/dev/null || exit 1
start_pty_program drop.out "$sim" --table table.xml --image spare.o --drop-after 15 2>/dev/null || exit 1
fails "get -r from a vanishing device" "/mem/t/big.bin: no reply.*time-out" fs get -r /mem/t partial
[ ! -e partial/big.bin ] && ! ls -A partial | grep -q vukra-get && ok || ko "a failed get -r left a partial file"
stop_sim

# A device whose listing never ends: ls gives up with one line.
start_pty_program endless.out "$sim" --table table.xml --image spare.o --endless-listing 2>/dev/null || exit 1
fails "ls of a listing that never ends" "cannot list /mem/many: the device's listing does not end" fs ls /mem/many
stop_sim

# A damaged card is served with a warning that names the damage.
"$ufs" bad.o mkfs >/dev/null && printf '\x01' | dd of=bad.o bs=1 seek=$((29 + 12000 / 8)) conv=notrunc 2>/dev/null
start_pty_program bad.out "$sim" --table table.xml --image bad.o 2>bad.err || exit 1
grep -q "warning: .*bad.o is damaged: block 12000 is marked but unused" bad.err && ok || ko "the damage told: $(cat bad.err)"
stop_sim

finish
