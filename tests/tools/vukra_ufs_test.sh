#!/usr/bin/env bash
# vukra-ufs on a fresh image: files in and out byte for byte, directories,
# a consistent check, then damage that check must report.
#   vukra_ufs_test.sh VUKRA_UFS
set -u
ufs=$(realpath "$1")
. "$(dirname "$(realpath "$0")")/../support/checks.sh"
cd "$work"
refuse() { # refuse WHAT COMMAND...: the command fails
  if "${@:2}" >/dev/null 2>&1; then ko "$1"; else ok; fi
}

head -c 200000 /dev/urandom >big.bin
printf 'hello\n' >small.txt
check "mkfs" "$ufs" card.o mkfs --nodes 32 --block-size 128
check "mkdir" "$ufs" card.o mkdir /etc
check "put a small file" "$ufs" card.o put small.txt /etc/hello
check "put a large file" "$ufs" card.o put big.bin /big
check "get it back" "$ufs" card.o get /big big.out
check "the large file is the same" cmp big.bin big.out
check "cat" bash -c "[ \"\$('$ufs' card.o cat /etc/hello)\" = hello ]"
check "mv" "$ufs" card.o mv /etc/hello /hello
check "ls -l shows it" bash -c "'$ufs' card.o ls -l / | grep -q ' 6 hello$'"
refuse "rm of a missing file" "$ufs" card.o rm /nothing
check "rm of an empty directory" "$ufs" card.o rm /etc
check "check of a sound volume" "$ufs" card.o check
check "the image keeps the card's size" bash -c "[ \$(stat -c %s card.o) = 8388612 ]"

# Paths never leave the volume: "/" is its root and ".." stays there.
cp card.o before.o
refuse "put onto the card's node from the root" "$ufs" card.o put small.txt /../dev/sdcard0
refuse "rm of the system's file" "$ufs" card.o rm /../bin/init
check "the image is untouched" cmp card.o before.o
check "mkdir /../d makes /d" "$ufs" card.o mkdir //../d/
check "a/../../../x is /x" "$ufs" card.o put small.txt d/../../../x
check "both are in the volume's root" bash -c "[ \"\$('$ufs' card.o ls /)\" = \"\$(printf 'big\nhello\nd\nx')\" ]"
refuse "the root is no file name" "$ufs" card.o put small.txt /..
long=$(printf 'n%.0s' $(seq 256))
check "a name of 255 bytes is made" "$ufs" card.o mkdir "/${long:1}"
check "and removed" "$ufs" card.o rm "/${long:1}"
cp card.o before.o
check "a longer name is refused as too long" bash -c "! '$ufs' card.o mkdir '/d/$long' 2>&1 | grep -q 'full' && '$ufs' card.o mkdir '/d/$long' 2>&1 | grep -q 'at most 255'"
refuse "put to a longer name" "$ufs" card.o put small.txt "/$long"
refuse "mv to a longer name" "$ufs" card.o mv /x "/d/$long"
check "the image is untouched" cmp card.o before.o

# rename: a file replaces a file.
check "mkdir /docs/sub" bash -c "'$ufs' card.o mkdir /docs && '$ufs' card.o mkdir /docs/sub"
check "tree: two blanks a level" bash -c "'$ufs' card.o tree | grep -qx '    sub/'"
check "mv a file onto a file" "$ufs" card.o mv /x /hello
check "the volume is consistent" "$ufs" card.o check
check "the file was replaced" bash -c "[ \"\$('$ufs' card.o cat /hello)\" = hello ] && ! '$ufs' card.o cat /x"

# A failed command leaves host files and the image as they were.
printf 'precious\n' >precious.txt
refuse "get of a missing file" "$ufs" card.o get /nosuch precious.txt
check "keeps the local file" grep -qx precious precious.txt
refuse "get of a directory" "$ufs" card.o get /docs precious.txt
check "get replaces a local file whole" bash -c "'$ufs' card.o get /hello precious.txt && cmp small.txt precious.txt"
check "mkfs a small volume" "$ufs" small.o mkfs --nodes 8 --blocks 80 --block-size 32
check "put a file" "$ufs" small.o put small.txt /keep
head -c 1000 /dev/urandom >fits.bin
head -c 9000 /dev/urandom >toolarge.bin # the limit with blocks of 32: 8736
cp small.o small.before
refuse "put past the per-file limit" "$ufs" small.o put toolarge.bin /keep
refuse "put past the free blocks" "$ufs" small.o put big.bin /new
check "the image is untouched" cmp small.o small.before
check "a put that fits" "$ufs" small.o put fits.bin /new
check "the old file is replaced by a put" bash -c "'$ufs' small.o put fits.bin /keep && '$ufs' small.o get /keep - | cmp - fits.bin"
check "no temporary name is left" bash -c "[ \"\$('$ufs' small.o ls / | sort)\" = \"\$(printf 'keep\nnew')\" ]"
cp card.o before.o
refuse "mkfs that makes no volume that mounts" "$ufs" card.o mkfs --block-size 1024
check "leaves the image as it was" cmp card.o before.o
refuse "mkfs with a bad option on a new image" "$ufs" new.o mkfs --nodes x
refuse "the same with blocks that do not mount" "$ufs" new.o mkfs --block-size 1024
check "leaves no image behind" test ! -e new.o

# Bad arguments: one line on stderr, a non-zero status, never a crash.
mkdir adir
for args in "/tmp ls /" "/dev/null ls /" "adir ls /" "none.o ls /" "card.o" "card.o frob" "card.o ls / extra" \
  "card.o cat" "card.o cat /docs" "card.o cat /hello extra" "card.o put small.txt" "card.o put adir /y" \
  "card.o put nosuch /y" "card.o put small.txt /docs" "card.o get /docs out" "card.o get /hello adir" \
  "card.o mkdir /docs" "card.o mkdir /no/dir" "card.o rm /" "card.o rm /docs" "card.o mv /docs" \
  "card.o mv /nosuch /y" "card.o df extra" "card.o mkfs --nodes" "card.o mkfs --nodes 0" "card.o ls /hello"; do
  # shellcheck disable=SC2086
  fails "vukra-ufs $args" '^vukra-ufs: ' "$ufs" $args
done

# Standard output holds only the data, whatever the image's size.
truncate -s 1M sized.o
check "mkfs an image of 1 MiB" "$ufs" sized.o mkfs
check "put on it" "$ufs" sized.o put big.bin /p
for command in "cat /p" "get /p -"; do
  # shellcheck disable=SC2086
  check "$command gives the bytes alone" bash -c "'$ufs' sized.o $command 2>/dev/null | cmp - big.bin"
done
check "ls gives the names alone" bash -c "[ \"\$('$ufs' sized.o ls / 2>/dev/null)\" = p ]"
check "df starts with its own line" bash -c "'$ufs' sized.o df | head -1 | grep -q '^block size'"
check "-v shows the kernel's message on stderr" bash -c "'$ufs' -v sized.o ls / 2>&1 >/dev/null | grep -q 'sdcard0 creation size'"

# A card cut short keeps the files that still lie on it; one whose blocks
# were cut off is refused whole, never read as zeros.
truncate -s 1M cut.o
"$ufs" cut.o mkfs >/dev/null && "$ufs" cut.o put small.txt /s >/dev/null && "$ufs" cut.o put big.bin /p >/dev/null
truncate -s 100000 cut.o
check "a file on what is left of a cut card" bash -c "[ \"\$('$ufs' cut.o cat /s)\" = hello ]"
refuse "cat of a file cut off" "$ufs" cut.o cat /p
refuse "get of a file cut off" "$ufs" cut.o get /p cut.out
check "the failed get wrote nothing" test ! -e cut.out

# One program at a time: a second one is told the image is in use.
# The first holds its lock while blocked writing into a full pipe.
second=$( { "$ufs" card.o cat /big; } | { head -c 1 >/dev/null; "$ufs" card.o mkdir /meanwhile 2>&1; echo "status $?"; cat >/dev/null; } )
check "the second user is refused" bash -c "echo '$second' | grep -q 'image in use' && echo '$second' | grep -q 'status 1'"
check "nothing was made meanwhile" bash -c "! '$ufs' card.o ls /meanwhile"
check "after the first, the image is free" "$ufs" card.o check

# A block marked in use that no file holds: block 32000, far past the files.
printf '\x01' | dd of=card.o bs=1 seek=$((29 + 32000 / 8)) conv=notrunc 2>/dev/null
refuse "check reports the damage" "$ufs" card.o check
check "and says what it is" bash -c "'$ufs' card.o check | grep -q 'marked but unused'"

printf 'ufs 9.9' | dd of=card.o conv=notrunc 2>/dev/null
refuse "an image of another version does not mount" "$ufs" card.o ls /
refuse "a missing image" "$ufs" none.o ls /

finish
