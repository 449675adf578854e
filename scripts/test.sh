#!/usr/bin/env bash
# Quick start, second command: build and run every test under every preset
# (default, sanitize, i386, clang, fuzz). Pass preset names to run only those.
# The fuzz preset runs each fuzz target for ROUTINGLIB_FUZZ_SECONDS (45).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
presets=("$@")
((${#presets[@]})) || presets=(default sanitize i386 clang fuzz)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "=== preset $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
