# Sourced by the shell tests: a scratch directory and the tally of checks.
#
# $work is a new directory, removed on exit together with every program
# started by start_pty_program (scripts/pty_program.sh) when that is sourced.
#   ok / ko WHY...          count a check passed / failed (ko says why)
#   check WHAT COMMAND...   the command succeeds
#   fails WHAT PATTERN COMMAND...
#                           non-zero status, stdout empty, one line on stderr
#                           holding PATTERN (grep; "" for any line)
#   finish                  prints the tally and exits, failing if a check did
work=$(mktemp -d)
trap 'if declare -F stop_pty_programs >/dev/null; then stop_pty_programs; fi; rm -rf "$work"' EXIT
passed=0
failed=0

ok() { passed=$((passed + 1)); }
ko() { failed=$((failed + 1)); echo "FAILED: $*"; }

check() {
  local what=$1
  shift
  if "$@" >"$work/o" 2>&1; then ok; else ko "$what: $(tail -n 20 "$work/o")"; fi
}

fails() {
  local what=$1 pattern=$2
  shift 2
  "$@" >"$work/o" 2>"$work/e" </dev/null
  local rc=$?
  # The library's own line as a session's timer thread ends goes to standard
  # error with the rest of its lines; the reason is the one other line.
  if [ $rc -ne 0 ] && [ "$(grep -cv '^timer thread exit' "$work/e")" -eq 1 ] && grep -q -- "$pattern" "$work/e" &&
     [ ! -s "$work/o" ]; then
    ok
  else
    ko "$what (status $rc, stdout: $(head -c 200 "$work/o"), stderr: $(cat "$work/e"))"
  fi
}

finish() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
}
