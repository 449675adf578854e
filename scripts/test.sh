#!/usr/bin/env bash
# Quick start, second command: build and run every test under every preset
# (default, sanitize, i386). Pass preset names to run only those.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
presets=("$@")
# Also clang (the whole project built by clang) and fuzz (each fuzz target
# for ROUTINGLIB_FUZZ_SECONDS, 45 by default, on its corpus).
((${#presets[@]})) || presets=(default sanitize i386 clang fuzz)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "=== preset $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
