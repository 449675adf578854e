#!/usr/bin/env bash
# Quick start, first command: build the default preset, run the
# command-line tool on a worked example, then run the example agents end to
# end (scripts/agents.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target routinglib kernel-agent status-agent
scripts/example.sh build/default/bin/routinglib
echo "---- agents: a kernel agent, a status agent and routinglib show, end to end"
echo
exec scripts/agents.sh build/default/bin
