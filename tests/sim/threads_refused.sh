#!/bin/bash
# A thousand owners, each in its own thread, when the system refuses another
# thread (the address space is limited to 1 GB, 8 MB a stack): the scenario
# and the replay of its recording are refused with exit 2, naming the file.
# usage: threads_refused.sh ZURESOURCE_SIM
set -u
sim=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
/usr/bin/python3 - <<'PY'
import json
n = 1000
json.dump({"resources": [{"name": "R"}], "modules": [{"name": "M", "onResource": "ignore"}],
           "owners": [{"name": f"o{i}", "module": "M"} for i in range(n)],
           "actions": [{"at": 0, "owner": f"o{i}", "do": "waitFor", "resource": "R", "timeout": 0}
                       for i in range(n)]}, open("owners.json", "w"))
PY
"$sim" --quiet owners.json --record owners.jsonl >/dev/null || { echo "the unlimited run failed"; exit 1; }
ulimit -v 1000000
failed=0
for run in "owners.json" "--replay owners.jsonl"; do
  out=$("$sim" --quiet $run 2>&1)
  status=$?
  echo "$run: exit $status: $out"
  if [ $status -ne 2 ] ||
     ! grep -Eq "owners.jsonl?( \(as a scenario\))?: cannot run: the system refuses a thread \([0-9]+ of the 1000 owners' threads made\)" <<<"$out"; then
    echo "FAILED: expected exit 2 and the refusal"
    failed=1
  fi
done
exit $failed
