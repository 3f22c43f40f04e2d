#!/usr/bin/env bash
# Renders the register map and the live value page of the example table in
# headless Chromium and checks what a person would see: every register, in
# rows of alternating colours.
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

names=$(grep -o '<register name="[^"]*"' table.xml | sed 's/<register name="//; s/"$//')
render() {
  chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --user-data-dir="$work/profile" --hide-scrollbars --window-size=1200,1800 "$@" 2>/dev/null
}
status=0
for page in map live; do
  render --screenshot="$work/$page.png" "file://$work/$page.html" >/dev/null
  render --dump-dom "file://$work/$page.html" >"$page.dom"
  python3 "$here/check_page.py" "$page.png" "$page.dom" $names || status=1
  if [ -n "${VUKRA_PAGES_DIR:-}" ]; then cp "$page.png" "$VUKRA_PAGES_DIR/"; fi
done
grep -q 'value="-100000"' live.html || { echo "the live page has no value read from the device"; status=1; }
[ ! -s gen.out ] || { echo "vukra-gen is not quiet on success: $(head -n 3 gen.out)"; status=1; }
exit $status
