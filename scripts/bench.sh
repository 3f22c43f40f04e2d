#!/usr/bin/env bash
# Runs every benchmark of a finished native build.
set -eu
build=$1
for b in "$build"/bench/*_bench; do
  echo "== $(basename "$b")"
  "$b"
done
# The Python package next to the C library, in the same run.
echo "== python_bench.py"
/usr/bin/python3 "$(dirname "$0")/../bench/python_bench.py" "$build"
echo "== tcp_mqtt_bench"
"$(dirname "$0")/../bench/tcp_mqtt_bench.sh" "$build"
echo "== web_bench.py"
/usr/bin/python3 "$(dirname "$0")/../bench/web_bench.py" "$build"
