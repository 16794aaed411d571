#!/usr/bin/env bash
# Sets up and builds Velmora, then runs the command-line tool on the bundled example.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh" OFF
"$velmora_build/src/Cli/velmora-cli" plist "$velmora_root/examples/Preferences.plist"
