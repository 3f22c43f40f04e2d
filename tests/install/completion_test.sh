#!/usr/bin/env bash
# vukra's bash completion: the script registers itself and offers the
# groups, their verbs, the options and the registers of the table in use.
#   completion_test.sh COMPLETION_SCRIPT VUKRA EXAMPLE_TABLE
set -u
script=$(realpath "$1")
vukra=$(realpath "$2")
table=$(realpath "$3")
. "$(dirname "$(realpath "$0")")/../support/checks.sh"
cd "$work"

. "$script"
[ "$(complete -p vukra 2>/dev/null)" = "complete -F _vukra vukra" ] && ok || ko "complete -p vukra: $(complete -p vukra 2>&1)"

# offers "WORDS TYPED" "EXPECTED...": completing after the words typed (the
# last one is the word under the cursor) offers exactly EXPECTED.
offers() {
  local typed=$1 expected=$2
  read -r -a COMP_WORDS <<<"$typed"
  [[ $typed == *" " ]] && COMP_WORDS+=("")
  COMP_WORDS[0]=$vukra
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _vukra
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort | tr '\n' ' ' | sed 's/ $//')
  [ "$got" = "$expected" ] && ok || ko "'$typed' offers '$got', not '$expected'"
}

offers "vukra " "fs mount poll reg serve watch"
offers "vukra fs " "cat df get getfs ls mkdir mv put putfs rm rmdir stat tree"
offers "vukra -p /dev/ttyUSB0 fs getfs + " "fs mount poll reg serve watch"
offers "vukra -p /dev/ttyUSB0 fs m" "mkdir mv"
offers "vukra reg " "list read write"
offers "vukra -q --table t.xml reg w" "write"
offers "vukra --ta" "--table"
offers "vukra reg read setpoint " ""  # no table.xml here: no names
cp "$table" table.xml
offers "vukra reg read s" "serial_number setpoint"
offers "vukra reg read setpoint o" "offset_trim"
offers "vukra reg write setpoint " ""
mkdir other && cp "$table" other/mine.xml && rm table.xml
offers "vukra --table other/mine.xml reg read e" "energy"
offers "vukra --table other/m" "other/mine.xml"
offers "vukra mount --root /mem --m" "--mirror"
offers "vukra mount --cache 5 ot" "other"

finish
