#!/usr/bin/env bash
# The agents demo the main job runs: three processes on one machine.
#   kernel-agent   records and clears route failures in shared-memory tables
#   status-agent   counts them per VRF, splits their keys per VRF and
#                  publishes both through a mount (a Unix socket)
#   routinglib show unprogrammed
#                  subscribes to that mount and prints what an operator sees
# Every process it starts is stopped at the end, on failure too.
set -euo pipefail
bin=${1:-build/default/bin}
run_dir=$(mktemp -d "${TMPDIR:-/tmp}/routinglib-demo.XXXXXX")
sock=$run_dir/status.sock
tables=(demo.$$.error demo.$$.error6 demo.$$.leaked)
pids=()

cleanup() {
  local status=$?
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  for t in "${tables[@]}"; do "$bin/routinglib" memtab rm "$t" >/dev/null 2>&1 || true; done
  rm -rf "$run_dir"
  exit "$status"
}
trap cleanup EXIT INT TERM

# Waits (up to 20 s) for a line of an agent's output.
await() {
  local file=$1 text=$2
  for _ in $(seq 200); do
    grep -q "$text" "$file" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "agents demo: no '$text' in $file:" >&2
  cat "$file" >&2
  return 1
}

show() { echo "\$ routinglib show unprogrammed $*"; "$bin/routinglib" show unprogrammed --socket "$sock" "$@"; echo; }

# The kernel agent makes its tables and waits for the status agent's mount
# before its first change, so the status agent starts over still tables.
echo "\$ kernel-agent --vrfs 3 --rate 2000 --changes 4000 --keep 60 --after-socket $sock &"
"$bin/kernel-agent" --vrfs 3 --rate 2000 --changes 4000 --keep 60 --after-socket "$sock" \
  --error4 "${tables[0]}" --error6 "${tables[1]}" --leaked "${tables[2]}" >"$run_dir/kernel.log" 2>&1 &
pids+=($!)
await "$run_dir/kernel.log" "programming"
cat "$run_dir/kernel.log"
echo

echo "\$ status-agent --socket $sock &"
"$bin/status-agent" --socket "$sock" --error4 "${tables[0]}" --error6 "${tables[1]}" \
  --leaked "${tables[2]}" >"$run_dir/status.log" 2>&1 &
pids+=($!)
await "$run_dir/status.log" "serving"
cat "$run_dir/status.log"
echo

# While the kernel agent works: two pictures as they change.
show --vrf vrf1 --watch --count 2
await "$run_dir/kernel.log" "done"
echo "(kernel-agent: $(grep done "$run_dir/kernel.log" | sed 's/^kernel-agent: //'))"
echo
show --vrf vrf2
show --vrf default --json

echo "\$ routinglib memtab list"
"$bin/routinglib" memtab list | grep -F "demo.$$." || true
echo

echo "\$ kill -TERM <kernel-agent> <status-agent>"
for pid in "${pids[@]}"; do kill -TERM "$pid"; done
for pid in "${pids[@]}"; do wait "$pid"; done
pids=()
grep stopping "$run_dir/kernel.log" "$run_dir/status.log" | sed 's/^.*log://'
