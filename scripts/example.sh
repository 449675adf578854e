#!/usr/bin/env bash
# The worked example the main job runs: what the tool can show today.
set -euo pipefail
tool=${1:-build/default/bin/routinglib}
run() { echo "\$ routinglib $*"; "$tool" "$@"; echo; }
run help
run rebase --max-ucmp 16 --deviation 0.05 10 3 1
run rebase --json --max-ucmp 4 --deviation 0.1 0 1
run fec 0x300000000000005
run fec NexthopGroup5
run types --describe Routing::RouteKey
run value Routing::RouteKey "Value('Routing::RouteKey', ** {'prefix': 10.1.0.0/16, 'preference': 20})"
