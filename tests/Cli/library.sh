#!/bin/sh
# velmora-cli library: a library made and built up by commands writes the files and keys of the
# format, and bad input (no library, unknown or ambiguous paths, a damaged info file) fails with
# one line and writes nothing.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
fail() { echo "library.sh: $*" >&2; exit 1; }
lib="$home/Lib"

"$cli" library init "$lib"
for f in Root.plist Info.hxgroup Unfiled-hxgroup/Info.hxgroup Groups-hxgroup/Info.hxgroup \
    Trash-hxtrash/Info.hxtrash; do
    [ -f "$lib/$f" ] || fail "$f missing after init"
done
"$cli" library add-group "$lib" Library Novel
novel=$(basename "$(ls -d "$lib"/Groups-hxgroup/*-hxgroup)")
a=$(printf '# Chapter *one*\n\nText.\n' | "$cli" library add-sheet "$lib" Library/Novel)
b=$(printf 'Second\n' | "$cli" library add-sheet "$lib" Library/Novel)
c=$(printf 'Third\n' | "$cli" library add-sheet "$lib" "$novel")
"$cli" library cluster "$lib" "$c" "$a"
"$cli" library reorder "$lib" "$b" 2
"$cli" library rename "$lib" Library/Novel "The Novel"
info="$lib/Groups-hxgroup/$novel/Info.hxgroup"
grep -q '<string>The Novel</string>' "$info" || fail "name not written"
# Order: the cluster [c, a], then b.
order=$(grep -o '[0-9a-f]*\.velmora' "$info" | tr '\n' ' ')
[ "$order" = "$c $a $b " ] || fail "order is $order"
grep -q '<key>childOrder</key>' "$lib/Groups-hxgroup/Info.hxgroup" || fail "main order missing"
grep -q 'markdownqr' "$lib/Root.plist" || fail "default markup not noted"
json=$("$cli" library tree "$lib" --json)
echo "$json" | grep -q '"title": "Chapter one"' || fail "title keeps its tags: $json"
echo "$json" | grep -q '"kind": "trash"' || fail "no trash in the tree"

# Failures: one line on standard error, status 1, nothing written.
before=$(find "$lib" -type f -exec md5sum {} + | sort)
for args in "tree $home" "add-group $lib Library/Missing X" "rename $lib Library NewName" \
    "add-sheet $lib Library" "reorder $lib nothing.velmora 0"; do
    if "$cli" library $args >/dev/null 2>"$home/err" </dev/null; then fail "$args succeeded"; fi
    [ "$(wc -l <"$home/err")" -eq 1 ] || fail "$args: not one line: $(cat "$home/err")"
done
[ "$before" = "$(find "$lib" -type f -exec md5sum {} + | sort)" ] || fail "a failure wrote"
printf '<plist><dict><key>displayName' >"$info"
if "$cli" library tree "$lib" 2>"$home/err"; then fail "damaged info file read"; fi
grep -q "Info.hxgroup: damaged info file" "$home/err" || fail "damage not named: $(cat "$home/err")"
[ "$(cat "$info")" = '<plist><dict><key>displayName' ] || fail "damaged file overwritten"
