#!/bin/sh
# The application killed (kill -9) at random moments of its first start, while it copies the
# introduction into a new library: every start after that finds a library whose every sheet reads,
# and a final screenshot start shows a sheet. 3 kills by default, 20 with VELMORA_STRESS=1.
set -eu
app="$1"
cli="$2"
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share" \
    XDG_CACHE_HOME="$home/.cache" XDG_RUNTIME_DIR="$home/.runtime" XDG_DOCUMENTS_DIR="$home/Documents" \
    QT_QPA_PLATFORM=offscreen
mkdir -p -m 700 "$XDG_RUNTIME_DIR"
fail() { echo "crash.sh: $*" >&2; exit 1; }
lib="$home/Documents/Velmora/Library"
rounds=3
[ "${VELMORA_STRESS:-0}" = 1 ] && rounds=20

round=0
while [ "$round" -lt "$rounds" ]; do
    round=$((round + 1))
    "$app" >/dev/null 2>&1 &
    pid=$!
    # Somewhere between 10 and 400 ms into the start.
    sleep "0.$(printf '%03d' $(( (round * 137) % 390 + 10 )))"
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    [ -d "$lib" ] || continue
    "$cli" library tree "$lib" >/dev/null || fail "round $round: the library does not read"
    find "$lib" -name '*.velmora' -type d | while read -r sheet; do
        case "$sheet" in */.*) continue ;; esac
        "$cli" sheet show "$sheet" >/dev/null || fail "round $round: $sheet does not read"
    done
done
out=$("$app" --screenshot "$home/after.png") || fail "no start after the kills"
echo "$out" | grep -q "Screenshot of $lib/.*\.velmora written to" || fail "no sheet shown: $out"
