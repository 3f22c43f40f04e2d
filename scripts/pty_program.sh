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
  "$@" >"$out" &
  PTY_PID=$!
  PTY_PIDS+=("$PTY_PID")
  for _ in $(seq 100); do [ -s "$out" ] && break; sleep 0.05; done
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
