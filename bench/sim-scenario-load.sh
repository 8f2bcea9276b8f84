#!/bin/bash
# The simulator at size: reading and checking a scenario of 100,000 resources
# (a tenth of them in groups of ten) and 100,000 actions, in wall-clock time
# and peak memory against the file's size (goals: under 2 s, under 20 x the
# file). The scenario is written by this script without spaces, the smallest
# file and so the largest ratio; the simulator reads and checks it without
# running it (--check). Time is processor time (user + system): on a
# shared machine the wall clock mostly measures the others.
# usage: bench/sim-scenario-load.sh ZURESOURCE-SIM [RESOURCES [ACTIONS]]
set -euo pipefail
sim=$1
resources=${2:-100000}
actions=${3:-100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 - "$resources" "$actions" >"$work/big.json" <<'PY'
import json, sys
resources, actions = int(sys.argv[1]), int(sys.argv[2])
plain = resources - resources // 10
items = [{"name": "R%d" % i} for i in range(plain)]
items += [{"name": "G%d" % g, "kind": "group", "members": ["R%d" % ((g * 10 + k) % plain) for k in range(10)]}
          for g in range(resources - plain)]
owners = [{"name": "o%d" % i, "module": "M%d" % (i % 100)} for i in range(1000)]
steps = [{"at": i % 60000, "owner": "o%d" % (i % 1000), "do": ("waitFor", "release")[i % 2],
          "resource": items[(i * 7919) % resources]["name"]} for i in range(actions)]
json.dump({"title": "load", "resources": items,
           "modules": [{"name": "M%d" % i, "onResource": "ignore"} for i in range(100)],
           "owners": owners, "actions": steps}, sys.stdout, separators=(",", ":"))
PY
bytes=$(stat -c %s "$work/big.json")
/usr/bin/time -f "%U %S %M" -o "$work/time" "$sim" --check "$work/big.json" >/dev/null
read -r user system kilobytes <"$work/time"
awk -v s="$(awk -v u="$user" -v y="$system" 'BEGIN { print u + y }')" -v kb="$kilobytes" -v b="$bytes" -v r="$resources" -v a="$actions" 'BEGIN {
  printf "| scenario load, %d resources + %d actions (%.1f MB) | %.2f s processor | %.0f MB peak, %.1f x the file |\n",
         r, a, b / 1e6, s, kb / 1024, kb * 1024 / b }'
