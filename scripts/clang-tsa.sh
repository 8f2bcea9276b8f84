#!/usr/bin/env bash
# Builds everything the default build builds with clang-15, its thread safety
# analysis on and every warning an error (preset clang-tsa, folder
# build-clang-tsa). Builds only: the tests run in the other presets.
#   scripts/clang-tsa.sh [cmake --build options...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset clang-tsa
cmake --build --preset clang-tsa -j "$(nproc)" "$@"
