#!/usr/bin/env bash
# Sets up and builds Velmora with its tests and benchmarks, then runs the whole test suite.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh" ON
ctest --test-dir "$velmora_build" --output-on-failure -j2 --timeout 600
