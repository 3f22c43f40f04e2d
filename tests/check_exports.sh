#!/usr/bin/env bash
# The shared library shows exactly the C interface, under plain C names.
set -eu
lib=$1
header=$2
# Every function the header declares, and nothing else.
expected=$(grep -o 'MODBUS_VUKRA_API [^(]*\bmodbus_vukra_[a-z0-9_]*(' "$header" | grep -o 'modbus_vukra_[a-z0-9_]*($' |
  tr -d '(' | sort)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exports ok: $(echo "$actual" | wc -l) symbols"
