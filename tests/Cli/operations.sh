#!/bin/sh
# velmora-cli library move, copy, trash and delete: items land where asked and in the order
# given, progress lines are "progress N/M", and refused or failed items fail with one line each
# and status 1 while what succeeded stays done.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
fail() { echo "operations.sh: $*" >&2; exit 1; }
lib="$home/Lib"
other="$home/Other"
"$cli" library init "$lib"
"$cli" library init "$other"
"$cli" library add-group "$lib" Library A
"$cli" library add-group "$lib" Library B
s1=$(printf 'one' | "$cli" library add-sheet "$lib" Library/A)
s2=$(printf 'two' | "$cli" library add-sheet "$lib" Library/A)
s3=$(printf 'three' | "$cli" library add-sheet "$lib" Library/A)
order() { "$cli" library tree "$1" | awk -v g="$2" '$1 == g { on = 1; next } on && /^ *- / { printf "%s ", $3; next } on { exit }'; }

# Move two sheets to B, in the order given, with progress.
"$cli" library move "$lib" "$s3" "$s1" --to Library/B --progress 2>"$home/err"
[ "$(order "$lib" B)" = "three one " ] || fail "B holds $(order "$lib" B)"
[ "$(order "$lib" A)" = "two " ] || fail "A holds $(order "$lib" A)"
grep -qx 'progress 2/2' "$home/err" || fail "no final progress line: $(cat "$home/err")"
! grep -qv '^progress [0-9]*/2$' "$home/err" || fail "stray output: $(cat "$home/err")"
# At the front of B.
"$cli" library move "$lib" "$s2" --to Library/B --index 0
[ "$(order "$lib" B)" = "two three one " ] || fail "index ignored: $(order "$lib" B)"

# Copy the group into another library: the sources stay.
"$cli" library copy "$lib" Library/B --to Library --library "$other"
[ "$(order "$other" B)" = "two three one " ] || fail "copy holds $(order "$other" B)"
[ "$(order "$lib" B)" = "two three one " ] || fail "copy moved the sources"

# Trash, then delete from the trash; delete refuses what isn't in the trash.
"$cli" library trash "$lib" "$s1"
"$cli" library tree "$lib" | grep -A3 '^  Trash' | grep -q ' one$' || fail "not in the trash"
if "$cli" library delete "$lib" "$s2" 2>"$home/err"; then fail "deleted outside the trash"; fi
[ "$(wc -l <"$home/err")" -eq 1 ] || fail "not one line: $(cat "$home/err")"
"$cli" library delete "$lib" "$s1"
[ ! -e "$lib/Trash-hxtrash/$s1" ] || fail "still in the trash"

# Refusals: into itself, unknown items; one line, status 1, nothing moved.
for args in "move $lib Library/B --to Library/B" "move $lib nothing.velmora --to Library/A" \
    "copy $lib $s2" "trash $lib Library"; do
    # shellcheck disable=SC2086
    if "$cli" library $args 2>"$home/err"; then fail "$args succeeded"; fi
    [ "$(wc -l <"$home/err")" -eq 1 ] || fail "$args: not one line: $(cat "$home/err")"
done
[ "$(order "$lib" B)" = "two three " ] || fail "a refusal changed B: $(order "$lib" B)"


# Save a group to a folder and import it into another library: same texts, same order; a
# second save refuses the names that exist; files that can't be imported are named.
"$cli" library save-to "$lib" Library/B "$s1" --folder "$home/out" 2>"$home/err" && fail "saved a trashed-then-deleted sheet"
"$cli" library save-to "$lib" Library/B --folder "$home/out"
[ -d "$home/out/B" ] || fail "no folder B: $(ls "$home/out")"
"$cli" library init "$home/Third"
"$cli" library import "$home/Third" "$home/out/B" --to Library
[ "$(order "$home/Third" B)" = "two three " ] || fail "imported B holds $(order "$home/Third" B)"
if "$cli" library save-to "$lib" Library/B --folder "$home/out" 2>"$home/err"; then fail "overwrote"; fi
grep -q 'out/B: exists already$' "$home/err" || fail "no refusal: $(cat "$home/err")"
printf 'plain\r\n' >"$home/plain.txt"
printf 'x' >"$home/image.png"
if "$cli" library import "$lib" "$home/plain.txt" "$home/image.png" 2>"$home/err"; then fail "imported a png"; fi
[ "$(wc -l <"$home/err")" -eq 1 ] || fail "import: not one line: $(cat "$home/err")"
[ "$(order "$lib" Inbox)" = "plain " ] || fail "Inbox holds $(order "$lib" Inbox)"
