#!/bin/bash
# Runs a command and checks its exit status and its output (stdout and
# stderr together) against extended regular expressions: each line of REGEX
# must match a line of the output, in the order given.
# usage: expect_exit.sh STATUS REGEX COMMAND [ARGS...]
expected=$1
pattern=$2
shift 2
output=$("$@" 2>&1)
status=$?
echo "$output"
if [ "$status" -ne "$expected" ]; then
  echo "expect_exit: exit status $status, expected $expected" >&2
  exit 1
fi
rest=$output
while IFS= read -r piece; do
  found=$(grep -Enm1 -- "$piece" <<<"$rest") || {
    echo "expect_exit: output does not match: $piece" >&2
    exit 1
  }
  rest=$(tail -n +$((${found%%:*} + 1)) <<<"$rest")
done <<<"$pattern"
