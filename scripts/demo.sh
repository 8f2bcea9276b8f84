#!/usr/bin/env bash
# Installs what is missing, builds the main program (RelWithDebInfo, in build/)
# and runs it; arguments go to the program.
set -euo pipefail
cd "$(dirname "$0")/.."

MAIN_PROGRAM=apps/sim/zuresource-sim # the program this script runs, under build/

scripts/deps.sh
cmake --preset default
cmake --build --preset default -j "$(nproc)" --target "$(basename "$MAIN_PROGRAM")"
exec "build/$MAIN_PROGRAM" "$@"
