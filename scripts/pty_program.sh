# Sourced by the scripts that drive vukra-sim and the test peers.
#
# start_pty_program OUT COMMAND...: runs COMMAND in the background with its
# standard output in OUT, waits for the pseudo-terminal path it prints on
# its first line, and sets PTY_PATH and PTY_PID.
# stop_pty_programs: ends every program started so.
PTY_PIDS=()

start_pty_program() {
  local out=$1
  shift
  # Emptied first: the background program truncates OUT only once it runs,
  # and a path left there by an earlier program must not be taken for its.
  : >"$out"
  "$@" >"$out" &
  PTY_PID=$!
  PTY_PIDS+=("$PTY_PID")
  # A loaded machine or a sanitizer build may take seconds to start it (the
  # sim may first make a card image); a program that ends is not waited for.
  for _ in $(seq 600); do
    [ -s "$out" ] && break
    kill -0 "$PTY_PID" 2>/dev/null || break
    sleep 0.05
  done
  PTY_PATH=$(head -n 1 "$out")
  if [ ! -e "$PTY_PATH" ]; then
    echo "no pseudo-terminal from $1" >&2
    return 1
  fi
}

stop_pty_programs() {
  local pid
  for pid in "${PTY_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
}
