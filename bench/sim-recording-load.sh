#!/bin/bash
# The simulator at size, replay: reading a recording of a million lines (100
# owners taking and releasing 100 resources) and making it a checked
# scenario, without running it (--replay FILE --check), in processor time
# (user + system) and peak memory against the file's size (goals: under
# 30 s, under 20 x the file), beside reading a scenario of the same actions.
# usage: bench/sim-recording-load.sh ZURESOURCE-SIM [LINES]
set -euo pipefail
sim=$1
lines=${2:-1000000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 - "$lines" "$work" <<'PY'
import json, sys
lines, work = int(sys.argv[1]), sys.argv[2]
dump = lambda d: json.dumps(d, separators=(",", ":"))
snapshot = dump({"type": "snapshot", "ms": 0, "resources": [
    {"name": "R%d" % i, "kind": "plain", "holders": []} for i in range(100)]})
out = [dump({"type": "start", "version": 1, "wallClock": "2026-11-24T20:00:00.000Z"}), snapshot]
actions, seq, ms, i = [], 0, 0.0, 0
while len(out) < lines - 1:
    o, r = i % 100, (i * 7) % 100
    for kind, extra in (("requested", {"label": "", "noWaitList": [], "timeout": 1}),
                        ("granted", {"grant": "wasFree"}), ("released", {})):
        seq += 1
        ms += 0.02
        out.append(dump(dict({"type": "event", "seq": seq, "ms": round(ms, 3), "thread": str(o),
                              "kind": kind, "resource": "R%d" % r, "owner": "o%d" % o,
                              "ownerModule": "M%d" % o}, **extra)))
    actions += [{"at": int(ms), "owner": "o%d" % o, "do": "waitFor", "resource": "R%d" % r,
                 "timeout": 1}, {"at": int(ms), "owner": "o%d" % o, "do": "release",
                                 "resource": "R%d" % r}]
    i += 1
out.append(snapshot.replace('"ms":0', '"ms":%.3f' % ms))
open(work + "/big.jsonl", "w").write("\n".join(out) + "\n")
json.dump({"title": "load", "stopAt": int(ms) + 1000,
           "resources": [{"name": "R%d" % i} for i in range(100)],
           "modules": [{"name": "M%d" % i, "onResource": "ignore"} for i in range(100)],
           "owners": [{"name": "o%d" % i, "module": "M%d" % i} for i in range(100)],
           "actions": actions}, open(work + "/big.json", "w"), indent=1)
PY
for what in recording scenario; do
  if [ $what = recording ]; then file=$work/big.jsonl; args=(--replay "$file" --check); else
    file=$work/big.json; args=(--check "$file"); fi
  bytes=$(stat -c %s "$file")
  /usr/bin/time -f "%U %S %M" -o "$work/time" "$sim" --quiet "${args[@]}" >/dev/null
  read -r user system kilobytes <"$work/time"
  awk -v s="$(awk -v u="$user" -v y="$system" 'BEGIN { print u + y }')" -v kb="$kilobytes" \
      -v b="$bytes" -v l="$lines" -v w="$what" 'BEGIN {
    label = w == "recording" ? sprintf("read and check a %d-line recording", l) \
                             : "read and check its actions as a scenario"
    printf "| %s (%.1f MB) | %.2f s processor | %.0f MB peak, %.1f x the file |\n",
           label, b / 1e6, s, kb / 1024, kb * 1024 / b }'
done
