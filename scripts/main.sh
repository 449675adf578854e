#!/usr/bin/env bash
# Quick start, first command: build the default preset and run the
# command-line tool on a worked example.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target routinglib
exec scripts/example.sh build/default/bin/routinglib
