#!/bin/sh
# velmora-cli library: a library made and built up by commands writes the files and keys of the
# format, bad input (no library, unknown or ambiguous paths, a damaged info file) fails with one
# line and writes nothing, and a watcher sees what a second program and a file manager change.
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

# The worked example as far as commands go: the files, and in them exactly the keys and values of
# the format (sheet names replaced by letters, the group's by G).
ex="$home/Example"
"$cli" library init "$ex"
"$cli" library add-group "$ex" Library Novel
A=$(echo A | "$cli" library add-sheet "$ex" Library/Novel)
B=$(echo B | "$cli" library add-sheet "$ex" Library/Novel)
C=$(echo C | "$cli" library add-sheet "$ex" Library/Novel)
I=$(echo I | "$cli" library add-sheet "$ex" Inbox)
"$cli" library cluster "$ex" "$A" "$B"
G=$(basename "$(ls -d "$ex"/Groups-hxgroup/*-hxgroup)")
names() { sed "s/$A/A/g; s/$B/B/g; s/$C/C/g; s/$I/I/g; s/$G/G/g"; }
dump=$(cd "$ex" && find . -path '*.velmora/*' -prune -o -type f -print | names | LC_ALL=C sort |
    while read -r f; do
        echo "$f"; grep -v '^<?xml\|^<!DOCTYPE\|plist' "$(echo "$f" | sed "s/\/G\//\/$G\//")" |
            tr -d '\t' | names
    done)
expected='./Groups-hxgroup/G/Info.hxgroup
<dict>
<key>displayName</key>
<string>Novel</string>
<key>sheetClusters</key>
<array>
<array>
<string>A</string>
<string>B</string>
</array>
<array>
<string>C</string>
</array>
</array>
</dict>
./Groups-hxgroup/Info.hxgroup
<dict>
<key>childOrder</key>
<array>
<string>G</string>
</array>
<key>displayName</key>
<string>Library</string>
</dict>
./Info.hxgroup
<dict>
<key>childOrder</key>
<array>
<string>Unfiled-hxgroup</string>
<string>Groups-hxgroup</string>
<string>Trash-hxtrash</string>
</array>
</dict>
./Root.plist
<dict>
<key>defaultMarkup</key>
<string>markdownqr</string>
</dict>
./Trash-hxtrash/Info.hxtrash
<dict/>
./Unfiled-hxgroup/Info.hxgroup
<dict>
<key>displayName</key>
<string>Inbox</string>
<key>sheetClusters</key>
<array>
<array>
<string>I</string>
</array>
</array>
<key>userIconName</key>
<string>Inbox</string>
</dict>'
[ "$dump" = "$expected" ] || fail "files of the example differ:
$dump"

# A new sheet in the inbox rewrites the inbox's info file and no other.
untouched=$(stat -c '%n %z' "$ex/Info.hxgroup" "$ex/Groups-hxgroup/Info.hxgroup" "$ex/Groups-hxgroup/$G/Info.hxgroup")
echo J | "$cli" library add-sheet "$ex" Inbox >/dev/null
[ "$untouched" = "$(stat -c '%n %z' "$ex/Info.hxgroup" "$ex/Groups-hxgroup/Info.hxgroup" \
    "$ex/Groups-hxgroup/$G/Info.hxgroup")" ] || fail "info files rewritten that did not change"

# A second program's changes, and those of a plain file manager, as a watcher sees them.
"$cli" library add-group "$ex" Library Other
O=$(grep -l '<string>Other</string>' "$ex"/Groups-hxgroup/*/Info.hxgroup | xargs dirname | xargs basename)
"$cli" library watch "$ex" >"$home/watch" 2>"$home/watch.err" &
watcher=$!
for _ in $(seq 50); do grep -q watching "$home/watch.err" && break; sleep 0.1; done
S=$(echo S | "$cli" library add-sheet "$ex" Inbox)
mv "$ex/Groups-hxgroup/$G" "$ex/Groups-hxgroup/$O/"
rm -r "$ex/Unfiled-hxgroup/$I"
for _ in $(seq 50); do [ "$(grep -c . "$home/watch")" -ge 3 ] && break; sleep 0.1; done
kill -INT $watcher
wait $watcher || fail "watch did not end cleanly"
for line in "{\"change\":\"inserted\",\"file\":\"$S\",\"parent\":\"Unfiled-hxgroup\"}" \
    "{\"change\":\"moved\",\"file\":\"$G\",\"parent\":\"$O\"}" \
    "{\"change\":\"removed\",\"file\":\"$I\",\"parent\":\"Unfiled-hxgroup\"}"; do
    grep -qF "$line" "$home/watch" || fail "watch missed $line: $(cat "$home/watch")"
done
grep -q '"change":"inserted","file":"[0-9a-f]*.velmora","parent":"'"$G" "$home/watch" &&
    fail "the moved group was read anew: $(cat "$home/watch")"
exit 0
