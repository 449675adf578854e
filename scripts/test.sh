#!/usr/bin/env bash
# Quick start, second command: build and run every test under every preset
# (default, sanitize, i386). Pass preset names to run only those.
# ROUTINGLIB_EMULATE_I386=1 runs the i386 preset under qemu-i386 even where
# the kernel runs 32-bit programs itself.
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
  emulator=$(sed -n 's/^ROUTINGLIB_EMULATOR:STRING=//p' "build/$preset/CMakeCache.txt")
  [[ -z $emulator ]] || echo "(this preset's programs run under $emulator)"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
  # A skipped test says why.
  awk '/: Skipped$/ { getline why; print "skipped: " why }' \
    "build/$preset/Testing/Temporary/LastTest.log" | sort -u
  python_skipped=$(sed -n 's/^ROUTINGLIB_PYTHON_SKIPPED:INTERNAL=//p' "build/$preset/CMakeCache.txt")
  [[ -z $python_skipped ]] || echo "skipped: the Python module and its tests: $python_skipped"
done

# Where the 32-bit build ran natively, run one of its test programs under the
# emulator as well, so that the emulated path (the one kernels without 32-bit
# execution take) keeps working.
if [[ " ${presets[*]} " == *" i386 "* ]] &&
   grep -q '^ROUTINGLIB_EMULATOR:STRING=$' build/i386/CMakeCache.txt; then
  emulator=$(command -v qemu-i386)
  echo "=== i386 test program under $emulator"
  ROUTINGLIB_TEST_EMULATOR=$emulator "$emulator" build/i386/bin/FecTest --gtest_brief=1
fi
