#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs the whole test suite.
#   scripts/test.sh [PRESET]
# PRESET is a configure/test preset of CMakePresets.json: default (the
# default), asan, tsan or m32; each builds in its own folder (build,
# build-asan, ...). Exits non-zero when anything fails; a test that was
# skipped counts as failed (every test's needs are installed above).
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-default}
if [ "$preset" = m32 ]; then
  scripts/deps.sh --m32
else
  scripts/deps.sh
fi

cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
ctest --preset "$preset" | tee "$log"
if grep -q '(Skipped)' "$log"; then
  echo "test.sh: skipped tests count as failures (see above)" >&2
  exit 1
fi
