#!/usr/bin/env bash
# Runs every benchmark of a finished native build.
set -eu
build=$1
for b in "$build"/bench/*_bench; do
  echo "== $(basename "$b")"
  "$b"
done
echo "== tcp_mqtt_bench"
"$(dirname "$0")/../bench/tcp_mqtt_bench.sh" "$build"
