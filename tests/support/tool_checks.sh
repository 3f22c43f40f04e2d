# Sourced by the shell tests of the command-line tools, with the test's own
# arguments BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR: the tools by name
# ($vukra, $sim, $ufs, $gen), the examples, the pty helpers and the checks of
# checks.sh, in the scratch directory $work. PEER_VUKRA and PEER_SIM, when
# set, stand for this build's vukra and vukra-sim: a build of the other word
# size, paired with this one.
#   stop_sim   stops the sim started last and waits until it has written its
#              card back
#   free_port  a TCP port free on 127.0.0.1 now
#   run OUT COMMAND...
#              COMMAND in the background, both its streams added to OUT,
#              stopped on exit with the pty programs; its pid in LAST
#   wait_for PATTERN FILE
#              up to 30 s for a line of FILE matching PATTERN (grep -E)
#   has WHAT PATTERN COMMAND...
#              the command succeeds and its standard output matches PATTERN
tools=$(realpath "$1")
examples=$(realpath "$2")
. "$(realpath "$3")/pty_program.sh"
vukra=${PEER_VUKRA:-$tools/vukra} sim=${PEER_SIM:-$tools/vukra-sim} ufs=$tools/vukra-ufs gen=$tools/vukra-gen
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
cd "$work" || exit 1

stop_sim() {
  kill "$PTY_PID" 2>/dev/null
  wait "$PTY_PID" 2>/dev/null
}

free_port() {
  /usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

run() {
  local out=$1
  shift
  "$@" >>"$out" 2>&1 &
  LAST=$!
  PTY_PIDS+=("$LAST")
}

wait_for() {
  for _ in $(seq 300); do grep -Eq -- "$1" "$2" && return 0; sleep 0.1; done
  return 1
}

has() {
  local what=$1 pattern=$2
  shift 2
  if "$@" >out 2>err && grep -Eq -- "$pattern" out; then ok; else ko "$what: $(cat out err | head -n 5)"; fi
}
