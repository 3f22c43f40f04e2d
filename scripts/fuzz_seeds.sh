#!/usr/bin/env bash
# Puts a few seed inputs into the corpus folders of the SLIP, ASCII frame
# and XML fuzz targets under the fuzz build folder $1, where a folder is
# still empty: sound packets and frames, and the example register table.
set -eu
build=$1
here=$(cd "$(dirname "$0")/.." && pwd)

seed() { # folder name, then the bytes as printf's format
  local dir=$build/$1
  mkdir -p "$dir"
  printf "$3" "${@:4}" >"$dir/$2"
}

if [ -z "$(ls -A "$build/corpus-slip" 2>/dev/null)" ]; then
  seed corpus-slip packets '\x04\xc0\xc0abc\xdb\xdcd\xdb\xdd\xc0\xdb\x41\xc0'
  seed corpus-slip long '\xfe\xc0%0300d\xc0x\xdb' 0
  seed corpus-slip round-trip '\x01\xc0\xdb\xdc\xdd\x00payload'
fi
if [ -z "$(ls -A "$build/corpus-frames" 2>/dev/null)" ]; then
  # A read of 2 words answered with 4 bytes, a write's echo, an exception.
  seed corpus-frames read '\x00\x01\xc0:010304000A0014DA\r\n\xc0'
  seed corpus-frames write '\x01\x01\xc0:01100066000287\r\n\xc0'
  seed corpus-frames exception '\x00\x01\xc0noise:0183027A\r\n\xc0'
  seed corpus-frames check '\x02\x00\xc0:0103FC\r\n\xc0'
fi
if [ -z "$(ls -A "$build/corpus-xml" 2>/dev/null)" ]; then
  mkdir -p "$build/corpus-xml"
  cp "$here/examples/table.xml" "$build/corpus-xml/table.xml"
fi
