#!/bin/bash
# In headless Chromium: first the report of a crowd (1,000 owners on 200
# resources) shows within 2 s, stays under 10 MB, stacks overlapping bars,
# clips no label, and its hover, zoom and owner search work; names that look
# like markup are shown as text, on a lane per plain or state resource; each
# owner's bars are in its legend entry's colour, and no two entries look
# alike; a deadlock is a line across every lane; the report of 36 owners of
# long names draws the state's activation and labels its deactivation's
# waits, and cuts no legend name over another (hover shows it whole); then
# the live
# status page of a running scenario follows the event stream and changes as
# the scenario advances.
# usage: browser_test.sh SIMULATOR SCENARIO
# Exit status 77 (skipped) when Chromium is not installed.
sim=$1
scenario=$2
browser=$(command -v chromium || command -v chromium-browser) || {
  echo "chromium is not installed: skipped"
  exit 77
}
. "$(dirname "$0")/live_server.sh"

browse() {
  timeout 60 "$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --user-data-dir="$work/profile" "${@:2}" --dump-dom "$1" 2>/dev/null
}
# The browser's first start, which makes its profile, is the slowest: done
# before the scenario starts, so that the first phase is not missed.
browse "data:text/html,ready" >/dev/null

# crowd_scenario OWNERS RESOURCES: every fifth resource an activated state
# resource (its holders overlap), the owners in waves of one per resource,
# 100 ms apart, so that waits on a plain resource overlap too.
crowd_scenario() {
  awk -v owners="$1" -v resources="$2" 'BEGIN {
    printf "{\"title\": \"A crowd\", \"stopAt\": 3000, \"resources\": ["
    for (r = 0; r < resources; ++r)
      printf "%s{\"name\": \"R%d\"%s}", r ? ", " : "", r,
        r % 5 ? "" : ", \"kind\": \"state\", \"activated\": true"
    printf "],\n\"modules\": ["
    for (m = 0; m < 50; ++m) printf "%s{\"name\": \"M%d\", \"delay\": 250}", m ? ", " : "", m
    printf "],\n\"owners\": ["
    for (o = 0; o < owners; ++o)
      printf "%s{\"name\": \"owner%04d\", \"module\": \"M%d\"}", o ? ", " : "", o, o % 50
    printf "],\n\"actions\": ["
    for (o = 0; o < owners; ++o)
      printf "%s{\"at\": %d, \"owner\": \"owner%04d\", \"do\": \"waitFor\", \"resource\": \"R%d\", \"timeout\": 1}",
        o ? ",\n" : "", int(o / resources) * 100, o, o % resources
    printf "]}\n"
  }'
}
# long_names_scenario: 36 owners of long names; a state resource activated,
# held by two of them and deactivated, so that the deactivation waits for the
# first holder; two owners contend for a plain resource.
long_names_scenario() {
  awk 'BEGIN {
    printf "{\"title\": \"Long names\", \"stopAt\": 1500, \"resources\": "
    printf "[{\"name\": \"Standing\", \"kind\": \"state\"}, {\"name\": \"Head\"}],\n"
    printf "\"modules\": [{\"name\": \"M0\", \"onResource\": \"release\", \"delay\": 150}, "
    printf "{\"name\": \"M1\", \"onResource\": \"release\", \"delay\": 150}],\n\"owners\": ["
    for (o = 0; o < 36; ++o)
      printf "%s{\"name\": \"a behaviour with a rather long and descriptive name, number %02d\", \"module\": \"M%d\"}",
        o ? ", " : "", o, o % 2
    name = "a behaviour with a rather long and descriptive name, number "
    printf "],\n\"actions\": [{\"at\": 100, \"do\": \"setState\", \"resource\": \"Standing\", \"activated\": true},\n"
    printf "{\"at\": 200, \"owner\": \"%s00\", \"do\": \"waitFor\", \"resource\": \"Standing\"},\n", name
    printf "{\"at\": 200, \"owner\": \"%s01\", \"do\": \"waitFor\", \"resource\": \"Standing\"},\n", name
    printf "{\"at\": 600, \"do\": \"setState\", \"resource\": \"Standing\", \"activated\": false},\n"
    printf "{\"at\": 0, \"owner\": \"%s02\", \"do\": \"waitFor\", \"resource\": \"Head\"},\n", name
    printf "{\"at\": 100, \"owner\": \"%s03\", \"do\": \"waitFor\", \"resource\": \"Head\", \"timeout\": 1}]}\n", name
  }'
}

# check_report NAME SEARCH EXPECTED...: NAME.html (in $work) checked in the
# browser by report_check.html; each EXPECTED is an extended regular
# expression that one line of its findings must match.
check_report() {
  local name=$1 search=$2
  shift 2
  result=$(browse "file://$work/report_check.html?report=$name.html&find=$search" \
    --allow-file-access-from-files | sed -n '/<pre id="result">/,/<\/pre>/p' |
    sed -e 's/<pre id="result">//' -e 's/<\/pre>.*//')
  echo "$name report: $result"
  for expected in "$@"; do
    grep -qE -- "$expected" <<<"$result" || fail "the $name report: no \"$expected\""
  done
}
cp "$(dirname "$0")/report_check.html" "$work/"

crowd_scenario 1000 200 >"$work/crowd.json"
"$sim" "$work/crowd.json" --report "$work/crowd.html" >"$work/sim.log" 2>&1 ||
  fail "the crowd's run failed"
size=$(stat -c %s "$work/crowd.html")
[ "$size" -lt 10000000 ] || fail "the crowd's report takes $size bytes"
echo "crowd report of $size bytes"
check_report crowd owner0123 'overlapping 0$' '^clipped labels 0$' \
  '^activations 40, in their lanes 40$' 'off their bar 0;' \
  '^legend: 1000 names, 1000 different, 0 shortened, 0 cut off, overprinting 0, whole on hover 1000$' \
  '^hover: all of its bars lit, all others dimmed$' \
  '^colours: 1000 legend entries, 1000 looks; 1000 owners with bars, 1000 in one colour, 0 bars unlike their legend$' \
  '^zoom x4: chart wider, bars moved, clipped labels 0, bar labels [0-9]+, off their bar 0$' \
  '^search: 1 of 1000 owners listed$'
shown=$(grep -o 'shown in [0-9]* ms' <<<"$result" | grep -o '[0-9]*')
[ -n "$shown" ] && [ "$shown" -lt 2000 ] || fail "the crowd's report was not shown within 2 s"

# Names that look like markup, a group (which has no lane of its own) and a
# state resource.
cat >"$work/names.json" <<'EOF'
{"title": "<h1>T</h1>", "stopAt": 1000,
 "resources": [{"name": "<b>Eye</b>"}, {"name": "Head"}, {"name": "Standing", "kind": "state"},
               {"name": "Face", "kind": "group", "members": ["<b>Eye</b>", "Head"]}],
 "modules": [{"name": "M", "onResource": "release", "delay": 100}],
 "owners": [{"name": "<script>alert(1)</script>", "module": "M"}, {"name": "b", "module": "M"}],
 "actions": [{"at": 0, "owner": "<script>alert(1)</script>", "do": "waitFor", "resource": "Face"},
             {"at": 100, "owner": "b", "do": "waitFor", "resource": "Head", "timeout": 1}]}
EOF
"$sim" "$work/names.json" --report "$work/names.html" >"$work/sim.log" 2>&1 ||
  fail "the names' run failed"
check_report names b '^lanes: &lt;b&gt;Eye&lt;/b&gt; \| Head \| Standing$' \
  '^elements from names: 0, scripts: 1$' \
  '^colours: 2 legend entries, 2 looks; 2 owners with bars, 2 in one colour, 0 bars unlike their legend$'

"$sim" "$(dirname "$0")/../../examples/deadlock.json" --report "$work/deadlock.html" \
  >"$work/sim.log" 2>&1 || fail "the deadlock's run failed"
check_report deadlock x '^alarms: ([1-9][0-9]*), across every lane \1$'

long_names_scenario >"$work/long.json"
"$sim" "$work/long.json" --report "$work/long.html" >"$work/sim.log" 2>&1 ||
  fail "the long names' run failed"
check_report long "number 17" '^activations 1, in their lanes 1$' \
  '^bar labels [1-9][0-9]*, off their bar 0; deactivation waits 1, labelled 1$' \
  '^colours: 36 legend entries, 36 looks; ' \
  '^legend: 36 names, 36 different, 36 shortened, 0 cut off, overprinting 0, whole on hover 36$' \
  '^search: 1 of 36 owners listed$'

start_simulator "$sim" "$scenario" --linger 120

# Dumps the page until it contains $1, for at most $2 seconds; leaves it in $page.
page=
wait_for() {
  local deadline=$((SECONDS + $2))
  while [ $SECONDS -lt $deadline ]; do
    page=$(browse "$url")
    grep -qF -- "$1" <<<"$page" && return 0
    sleep 0.2
  done
  fail "the page never showed: $1"
}

wait_for '<div class="line">---Head -&gt; Tracker eStrong' 90
first=$(grep -F 'class="line"' <<<"$page")
grep -qF '<noscript><meta http-equiv="refresh"' <<<"$page" || fail "no reload without scripts"

wait_for '<div class="line">---Head -&gt; Speaker eStrong' 120
second=$(grep -F 'class="line"' <<<"$page")
[ "$first" != "$second" ] || fail "the status lines did not change"
echo "first status lines:"
echo "$first"
echo "later status lines:"
echo "$second"

# The page follows the event stream. Loaded while the speaker holds the head,
# it receives the speaker's release at 60 s live, then the end of the stream,
# and refreshes its sections from it. (Chromium's virtual time lets the page's
# script run until the network is idle: here, until the stream ends.)
streamed=$(browse "$url" --virtual-time-budget=5000)
stream_line=$(grep -o '<p id="stream">[^<]*' <<<"$streamed")
echo "streamed: $stream_line"
grep -qE 'live: [0-9]+ events streamed; the run is over' <<<"$stream_line" ||
  fail "the page did not follow the event stream to its end: $stream_line"
grep -qF 'ms released speaker Head</div>' <<<"$streamed" ||
  fail "the page did not receive the release made after it was loaded"
grep -qF '<p id="clock">finished: every expectation held' <<<"$streamed" ||
  fail "the page's sections were not refreshed at the stream's end"
