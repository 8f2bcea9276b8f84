#!/bin/bash
# Each command line is refused with exit 2 and its message, at once: a run
# would print "Expectations:".
# usage: refused.sh ZUSIM A_VALID_SCENARIO
sim=$1
good=$2
bad=$(mktemp -d)
trap 'rm -rf "$bad"' EXIT
printf '{"resources": [{"name": "H"}], "stopAt": 99999999999}' >"$bad/late.json"
failed=0
refused() {
  local message=$1
  shift
  output=$("$sim" "$@" 2>&1)
  status=$?
  if [ "$status" -ne 2 ] || ! grep -Fq -- "$message" <<<"$output" || grep -q "Expectations:" <<<"$output"; then
    echo "refused.sh: $* gave exit $status:" >&2
    echo "$output" >&2
    failed=1
  fi
}
refused "late.json: scenario: \"stopAt\" must be an integer from 0 to 3600000" "$bad/late.json"
refused "--serve needs a number from 0 to 65535, not \"70000\"" "$good" --serve 70000
refused "--serve needs a number from 0 to 65535, not \"eighty\"" "$good" --serve eighty
refused "--report $bad/none/r.html: cannot be written" "$good" --report "$bad/none/r.html"
refused "--report $bad: not a regular file" "$good" --report "$bad"
fleet=$(dirname "$0")/scenarios/fleet_faults.json
refused "fleet_faults.json: --record does not record scenarios with robots" "$fleet" --record "$bad/r.jsonl"
refused "actions[3]: \"restartEtcd\" needs the simulator's own etcd, not --etcd" "$fleet" --etcd http://127.0.0.1:1
refused "--etcd needs http://host:port URLs, not \"127.0.0.1:2379\"" "$good" --etcd 127.0.0.1:2379
exit $failed
