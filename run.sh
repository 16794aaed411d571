#!/usr/bin/env bash
# Sets up and builds Velmora, then runs the command-line tool on the bundled examples: a property
# list, a sheet's text parsed under the default markup, and its counts.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh" OFF
"$velmora_build/src/Cli/velmora-cli" plist "$velmora_root/examples/Preferences.plist"
"$velmora_build/src/Cli/velmora-cli" string parse --markup markdownqr "$velmora_root/examples/Sample.txt"
"$velmora_build/src/Cli/velmora-cli" stats "$velmora_root/examples/Sample.txt"
