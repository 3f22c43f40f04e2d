#!/usr/bin/env bash
# Renders the register map and the live value page of the example table in
# headless Chromium and checks what a person would see: every register, in
# rows of alternating colours (#A060FF, then #8040FF) that start again below
# each yellow table heading.
#   render_pages.sh VUKRA_GEN VUKRA_SIM EXAMPLE_TABLE
set -eu
gen=$1
sim=$2
table=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../../scripts/pty_program.sh"
work=$(mktemp -d)
trap 'stop_pty_programs; rm -rf "$work"' EXIT
cd "$work"
cp "$table" table.xml

# The live page reads its values from the emulated device, quietly.
start_pty_program sim.out "$sim" --table table.xml 2>/dev/null
"$gen" table.xml --html-map map.html --html-live live.html --host device.local --port "$PTY_PATH" >gen.out 2>&1

names=$(grep -o '<register name="[^"]*"' table.xml | sed 's/<register name="//; s/"$//' | sort)
status=0
for page in map live; do
  "$here/../tools/web_browser.py" rows "file://$work/$page.html" >"$page.rows"
  # The registers' rows in the order drawn, each "NAME in-turn" (rows of
  # other colours, as the column headings on the page's own, are no register's).
  awk -F'|' '$1 == "rgb(255, 255, 0)" { odd = 0; next }
             $1 != "rgb(160, 96, 255)" && $1 != "rgb(128, 64, 255)" { next }
             { split($2, cell, " "); turn = $1 == (odd ? "rgb(128, 64, 255)" : "rgb(160, 96, 255)")
               print (cell[1] ~ /^0x/ ? cell[2] : cell[1]), (turn ? "in-turn" : "out-of-turn: " $1); odd = !odd }' \
    "$page.rows" >"$page.got"
  if [ "$(cut -d' ' -f1 "$page.got" | sort)" != "$names" ] || grep -q out-of-turn "$page.got"; then
    echo "$page.html as drawn: $(cat "$page.got")"
    status=1
  fi
  if [ -n "${VUKRA_PAGES_DIR:-}" ]; then
    chromium --headless --no-sandbox --disable-gpu --user-data-dir="$work/profile" --hide-scrollbars \
      --window-size=1200,1800 --screenshot="$VUKRA_PAGES_DIR/$page.png" "file://$work/$page.html" 2>/dev/null
  fi
done
grep -q 'value="-100000"' live.html || { echo "the live page has no value read from the device"; status=1; }
[ ! -s gen.out ] || { echo "vukra-gen is not quiet on success: $(head -n 3 gen.out)"; status=1; }
exit $status
