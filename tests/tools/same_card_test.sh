#!/usr/bin/env bash
# Two builds of vukra-ufs (32-bit and 64-bit) make the same card, byte for
# byte, from the same commands: a volume of small blocks, directories, a
# file that needs the indirect blocks, one replaced, moved and removed.
#   same_card_test.sh VUKRA_UFS OTHER_VUKRA_UFS
set -u
ufs=$(realpath "$1") other=$(realpath "$2")
. "$(dirname "$(realpath "$0")")/../support/checks.sh"
cd "$work" || exit 1
export SOURCE_DATE_EPOCH=1700000000

seq 1 12000 >big.txt
printf 'hello\n' >small.txt
make_card() { # make_card UFS IMAGE
  "$1" "$2" mkfs --nodes 40 --block-size 64 && "$1" "$2" mkdir /etc && "$1" "$2" mkdir /etc/old &&
    "$1" "$2" put big.txt /etc/big && "$1" "$2" put small.txt /etc/small && "$1" "$2" put small.txt /etc/big &&
    "$1" "$2" put big.txt /data && "$1" "$2" mv /etc/small /etc/old/small && "$1" "$2" rm /etc/big
}
check "the first build makes the card" make_card "$ufs" one.o
check "the second build makes the card" make_card "$other" two.o
check "the two cards are the same bytes" cmp one.o two.o
check "and hold the files" bash -c "'$other' one.o get /data - | cmp - big.txt"
finish
