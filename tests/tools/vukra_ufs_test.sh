#!/usr/bin/env bash
# vukra-ufs on a fresh image: files in and out byte for byte, directories,
# a consistent check, then damage that check must report.
#   vukra_ufs_test.sh VUKRA_UFS
set -u
ufs=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
passed=0
failed=0
expect() { # expect WHAT COMMAND...: the command succeeds
  local what=$1
  shift
  if "$@" >/dev/null 2>&1; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "FAILED: $what"; fi
}
refuse() { # refuse WHAT COMMAND...: the command fails
  local what=$1
  shift
  if "$@" >/dev/null 2>&1; then failed=$((failed + 1)); echo "FAILED: $what"; else passed=$((passed + 1)); fi
}

head -c 200000 /dev/urandom >big.bin
printf 'hello\n' >small.txt
expect "mkfs" "$ufs" card.o mkfs --nodes 32 --block-size 128
expect "mkdir" "$ufs" card.o mkdir /etc
expect "put a small file" "$ufs" card.o put small.txt /etc/hello
expect "put a large file" "$ufs" card.o put big.bin /big
expect "get it back" "$ufs" card.o get /big big.out
expect "the large file is the same" cmp big.bin big.out
expect "cat" bash -c "[ \"\$('$ufs' card.o cat /etc/hello)\" = hello ]"
expect "mv" "$ufs" card.o mv /etc/hello /hello
expect "ls -l shows it" bash -c "'$ufs' card.o ls -l / | grep -q ' 6 hello$'"
refuse "rm of a missing file" "$ufs" card.o rm /nothing
expect "rm of an empty directory" "$ufs" card.o rm /etc
expect "check of a sound volume" "$ufs" card.o check
expect "the image keeps the card's size" bash -c "[ \$(stat -c %s card.o) = 8388612 ]"

# A block marked in use that no file holds: block 32000, far past the files.
printf '\x01' | dd of=card.o bs=1 seek=$((29 + 32000 / 8)) conv=notrunc 2>/dev/null
refuse "check reports the damage" "$ufs" card.o check
expect "and says what it is" bash -c "'$ufs' card.o check | grep -q 'marked but unused'"

printf 'ufs 9.9' | dd of=card.o conv=notrunc 2>/dev/null
refuse "an image of another version does not mount" "$ufs" card.o ls /
refuse "a missing image" "$ufs" none.o ls /

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
