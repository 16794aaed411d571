#!/bin/sh
# velmora --screenshot in a home of its own: first start, the introduction's first sheet, the
# size asked for; a second run on a given library and sheet; bad options fail with status 2.
set -eu
app="$1"
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share" \
    XDG_CACHE_HOME="$home/.cache" XDG_RUNTIME_DIR="$home/.runtime" XDG_DOCUMENTS_DIR="$home/Documents"
mkdir -p -m 700 "$XDG_RUNTIME_DIR"

# Width and height of a PNG, from its header.
png_size() { od -An -tu1 -j16 -N8 "$1" | awk '{ print $3*256+$4 "x" $7*256+$8 }'; }

out=$("$app" --screenshot "$home/first.png" --size 900x600)
echo "$out" | grep -q "written to $home/first.png"
[ "$(png_size "$home/first.png")" = 900x600 ]

lib="$home/Documents/Velmora/Library"
sheet=$(find "$lib" -name '*.velmora' -type d | head -n 1)
"$app" --screenshot "$home/second.png" --library "$lib" --sheet "$sheet" --dark >/dev/null
[ "$(png_size "$home/second.png")" = 1280x800 ]

status=0; "$app" --screenshot "$home/x.png" --size big 2>/dev/null || status=$?
[ "$status" = 2 ]
status=0; "$app" --sheet "$sheet" 2>/dev/null || status=$?
[ "$status" = 2 ]
status=0; "$app" --screenshot "$home/x.png" --library "$lib" --sheet "$home/nothing.velmora" 2>/dev/null || status=$?
[ "$status" = 1 ]
