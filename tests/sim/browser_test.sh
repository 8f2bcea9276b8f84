#!/bin/bash
# Opens the live status page of a running scenario in headless Chromium and
# checks that the status lines change as the scenario advances.
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
    --user-data-dir="$work/profile" --dump-dom "$1" 2>/dev/null
}
# The browser's first start, which makes its profile, is the slowest: done
# before the scenario starts, so that the first phase is not missed.
browse "data:text/html,ready" >/dev/null

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
grep -qF 'http-equiv="refresh"' <<<"$page" || fail "the page does not refresh itself"

wait_for '<div class="line">---Head -&gt; Speaker eStrong' 120
second=$(grep -F 'class="line"' <<<"$page")
[ "$first" != "$second" ] || fail "the status lines did not change"
echo "first status lines:"
echo "$first"
echo "later status lines:"
echo "$second"
