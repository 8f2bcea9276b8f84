#!/bin/bash
# Asks the live page of a running deadlock why a behaviour waits: the page
# shows the waits and the deadlock, /explain answers in plain text, and an
# unknown owner or resource gets 404; /snapshot.json and /events are served.
# usage: explain_test.sh SIMULATOR SCENARIO
sim=$1
scenario=$2
. "$(dirname "$0")/live_server.sh"
start_simulator "$sim" "$scenario"

# Fetches $url$1 into $body and its HTTP status into $status.
get() {
  status=$(curl -s -o "$work/body" -w '%{http_code}' "$url$1")
  body=$(cat "$work/body")
}
expect_in_body() {
  grep -qF -- "$1" <<<"$body" || fail "$2: no \"$1\" in: $body"
}

# Two hundred clients that send half a request line and go quiet do not
# silence the page.
host_port=${url#http://}
host_port=${host_port%/}
idle=()
for _ in $(seq 200); do
  exec {fd}<>"/dev/tcp/${host_port%:*}/${host_port#*:}" || fail "cannot connect"
  printf 'GET / HT' >&"$fd"
  idle+=("$fd")
done
curl -s -o /dev/null --max-time 3 "$url" || fail "the page did not answer beside idle clients"
for fd in "${idle[@]}"; do exec {fd}>&-; done

cycle='deadlock: left -&gt; right (Right), right -&gt; left (Left); formed at'
for _ in $(seq 600); do
  get ""
  grep -qF -- "$cycle" <<<"$body" && break
  sleep 0.1
done
expect_in_body "$cycle" "the live page"
expect_in_body 'left (L) waits on right (R) for Right' "the live page"
expect_in_body 'right (R) waits on left (L) for Left' "the live page"

get "explain?owner=right&resource=Left"
[ "$status" = 200 ] || fail "explain answered $status"
expect_in_body 'Left: held by left (module L): right would wait behind it' \
  "the explanation"

get "explain?owner=left&resource=LeftFirst"
expect_in_body 'LeftFirst: group, first wait at Right {' "the group's explanation"

get "explain?owner=ghost&resource=Right"
[ "$status" = 404 ] || fail "an unknown owner answered $status"
expect_in_body 'unknown owner "ghost"' "the unknown owner's answer"
get "explain?owner=left&resource=Nose"
[ "$status" = 404 ] || fail "an unknown resource answered $status"
expect_in_body 'unknown resource "Nose"' "the unknown resource's answer"
echo "explain answered over $url"

# The snapshot shows the deadlock's cycle; the event stream resumes after the
# last line a reader says it got.
get "snapshot.json"
grep -q '"cycles":\[{"edges":\[{' <<<"$body" || fail "the snapshot shows no cycle: $body"
resumed=$(curl -sN --max-time 2 -H 'Last-Event-ID: 1' "${url}events" | grep -m1 '^id: ')
[ "$resumed" = "id: 2" ] || fail "the stream did not resume after Last-Event-ID 1: $resumed"
echo "snapshot and event stream served"
