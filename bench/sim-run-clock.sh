#!/bin/bash
# The simulator at size: a run of 1,000 owners and 10,000 actions (each owner
# takes and gives back a resource of its own five times, so that nothing
# waits) keeps up with its own clock: how late each request and release is
# logged after its scheduled time (goal: none more than 10 ms late because of
# the simulator's own work; on a loaded machine the scheduler adds its own).
# usage: bench/sim-run-clock.sh ZURESOURCE-SIM
set -euo pipefail
sim=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 - >"$work/run.json" <<'PY'
import json, sys
owners = 1000
steps = []
for i in range(owners):
    for k in range(5):
        at = 200 + k * 1000 + (i * 997) % 900
        steps.append({"at": at, "owner": "o%d" % i, "do": "waitFor", "resource": "R%d" % i})
        steps.append({"at": at + 50, "owner": "o%d" % i, "do": "release", "resource": "R%d" % i})
json.dump({"title": "clock", "resources": [{"name": "R%d" % i} for i in range(owners)],
           "modules": [{"name": "M", "onResource": "ignore"}],
           "owners": [{"name": "o%d" % i, "module": "M"} for i in range(owners)],
           "actions": steps}, sys.stdout)
PY
# Each owner asks again after its own release, which the simulator warns of
# once per owner; nothing here is contested, so the warnings are only counted.
"$sim" "$work/run.json" >"$work/log" 2>"$work/warnings"
echo "$(grep -c . "$work/warnings" || true) warning lines (asking again after a release)"
/usr/bin/python3 - "$work/run.json" "$work/log" <<'PY'
import json, re, sys
scenario = json.load(open(sys.argv[1]))
due = {}
for a in scenario["actions"]:
    due.setdefault((a["owner"], a["do"]), []).append(a["at"])
seen = {}
late = []
for line in open(sys.argv[2]):
    m = re.match(r"\s*(\d+) ms  (o\d+) (requests|releases) ", line)
    if not m:
        continue
    key = (m.group(2), "waitFor" if m.group(3) == "requests" else "release")
    n = seen.get(key, 0)
    seen[key] = n + 1
    late.append(int(m.group(1)) - sorted(due[key])[n])
late.sort()
print("| run of 1000 owners, %d actions: lateness of the log | median %d ms, 99th %d ms, max %d ms |"
      % (len(late), late[len(late) // 2], late[len(late) * 99 // 100], late[-1]))
PY
