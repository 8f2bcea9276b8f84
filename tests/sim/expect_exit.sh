#!/bin/bash
# Runs a command and checks its exit status and its output (stdout and
# stderr together) against an extended regular expression.
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
if ! grep -Eq -- "$pattern" <<<"$output"; then
  echo "expect_exit: output does not match: $pattern" >&2
  exit 1
fi
