#!/usr/bin/env bash
# Sets up and builds Velmora, then starts the application. Arguments go to it (files to open).
# Without a display (neither DISPLAY nor WAYLAND_DISPLAY), it starts offscreen instead, opens the
# first sheet of the introduction and writes a screenshot of the window to
# build/velmora-screenshot.png.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/tools/setup.sh" OFF
app="$velmora_build/src/App/Window/velmora"
if [[ -z ${DISPLAY:-} && -z ${WAYLAND_DISPLAY:-} ]]; then
    echo "No display: starting Velmora offscreen for a screenshot." >&2
    exec "$app" --screenshot "$velmora_build/velmora-screenshot.png" "$@"
fi
exec "$app" "$@"
