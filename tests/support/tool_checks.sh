# Sourced by the shell tests of the command-line tools, with the test's own
# arguments BUILD_TOOLS_DIR EXAMPLES_DIR SCRIPTS_DIR: the tools by name
# ($vukra, $sim, $ufs, $gen), the examples, the pty helpers and the checks of
# checks.sh, in the scratch directory $work. PEER_VUKRA and PEER_SIM, when
# set, stand for this build's vukra and vukra-sim: a build of the other word
# size, paired with this one.
#   stop_sim   stops the sim started last and waits until it has written its
#              card back
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
