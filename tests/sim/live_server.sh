# Sourced by the tests that watch a running simulator's live page: a work
# folder and the simulator, both gone at exit, fail(), and start_simulator.
work=$(mktemp -d)
pid=
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "$(basename "$0"): $*" >&2
  echo "--- simulator output:" >&2
  cat "$work/sim.log" >&2
  exit 1
}

# start_simulator SIMULATOR SCENARIO [OPTIONS...]: runs it in the background
# serving on a free port (port 0: the simulator binds one and prints it), and
# sets $url to the page's address.
start_simulator() {
  "$@" --serve 0 >"$work/sim.log" 2>&1 &
  pid=$!
  url=
  for _ in $(seq 100); do
    url=$(grep -o 'http://127\.0\.0\.1:[0-9]*/' "$work/sim.log")
    [ -n "$url" ] && return 0
    sleep 0.1
  done
  fail "the simulator printed no address"
}
