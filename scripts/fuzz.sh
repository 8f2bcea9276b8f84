#!/usr/bin/env bash
# Builds the fuzz targets (the "fuzz" preset: clang-15, libFuzzer,
# ASan+UBSan) and runs each for a bounded time, starting from its seeds and
# kept regressions. Exits non-zero when a target finds an input that crashes
# it, trips a sanitizer, runs past the time limit of one input or uses too
# much memory; the input is left in build-fuzz/findings/NAME/.
#   scripts/fuzz.sh [SECONDS [TARGET...]]
# SECONDS is each target's time (default: 240 shared among the targets, at
# most 60 each); TARGET names (scenario, recording, ...) pick some of them.
set -euo pipefail
cd "$(dirname "$0")/.."

# Reports name functions and lines when clang's symbolizer is found.
for s in /usr/bin/llvm-symbolizer-15 /usr/lib/llvm-15/bin/llvm-symbolizer; do
  [ -x "$s" ] && export ASAN_SYMBOLIZER_PATH=$s && break
done
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

targets=("${@:2}")
if [ ${#targets[@]} -eq 0 ]; then
  for f in build-fuzz/tests/fuzz/fuzz_*; do
    [ -x "$f" ] && targets+=("${f##*/fuzz_}")
  done
fi
[ ${#targets[@]} -gt 0 ] || { echo "fuzz.sh: no fuzz target built" >&2; exit 1; }
seconds=${1:-$(( 240 / ${#targets[@]} < 60 ? 240 / ${#targets[@]} : 60 ))}

failed=()
for name in "${targets[@]}"; do
  src=tests/fuzz/$name
  work=build-fuzz/corpus/$name          # grows from run to run, never in the tree
  findings=build-fuzz/findings/$name
  mkdir -p "$work" "$findings"
  echo "== fuzz $name: $seconds s"
  if ! build-fuzz/tests/fuzz/fuzz_$name "$work" "$src/seeds" "$src/regressions" \
       -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
       -print_final_stats=1 -artifact_prefix="$findings/" 2>"build-fuzz/fuzz-$name.log"; then
    tail -n 40 "build-fuzz/fuzz-$name.log" >&2
    echo "fuzz $name: a finding, kept in $findings/ (add it to $src/regressions/ once fixed)" >&2
    failed+=("$name")
  else
    grep -E '^stat::number_of_executed_units|^Done' "build-fuzz/fuzz-$name.log" || true
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz.sh: findings in ${failed[*]}" >&2
  exit 1
fi
