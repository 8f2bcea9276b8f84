#!/bin/bash
# SIGTERM in the middle of a fleet scenario stops the run in order: the
# simulator logs it, exits 143, and the etcd it started is gone with its
# folder.
# usage: interrupted.sh SIMULATOR SCENARIO
sim=$1
scenario=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  cat "$work/sim.log"
  echo "interrupted.sh: $*" >&2
  exit 1
}
TMPDIR=$work "$sim" "$scenario" >"$work/sim.log" 2>&1 &
pid=$!
for _ in $(seq 300); do
  grep -q "asks the fleet" "$work/sim.log" && break
  sleep 0.1
done
kill -TERM "$pid"
wait "$pid"
status=$?
[ "$status" -eq 143 ] || fail "exit status $status, expected 143"
grep -q "interrupted: the scenario stops now" "$work/sim.log" || fail "no interruption logged"
leftover=$(find "$work" -mindepth 1 -maxdepth 1 -name 'zuetcd-*')
[ -z "$leftover" ] || fail "left behind: $leftover"
! pgrep -f -- "--data-dir=$work/" >/dev/null || fail "etcd still runs"
