#!/bin/sh
# velmora-cli layout: one JSON line per line of text, tags hanging left of the column, wrapped
# list text behind its marker, lines inside their paragraphs and stacked; bad input failing with
# one line.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
export LC_ALL=C.UTF-8
fail() { echo "layout.sh: $*" >&2; exit 1; }
cd "$home"

# The value of a field of one output line.
field() { printf '%s\n' "$1" | sed -n "s/.*\"$2\":\([-0-9.e+]*\).*/\1/p"; }
# The output line of the paragraph, by its place among that paragraph's lines (1 the first).
line_of() { grep "^{\"paragraph\":$2," "$1" | sed -n "$3p"; }
less() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }

printf '# A heading\n\nA plain paragraph.\n* a list item long enough to wrap onto a second line at this width\n\tindented\n' > a.txt
"$cli" layout --width 400 a.txt > out.txt 2> err.txt || fail "layout failed: $(cat err.txt)"
[ ! -s err.txt ] || fail "wrote on standard error: $(cat err.txt)"
grep -qv '^{"paragraph":[0-9]*,"location":[0-9]*,"length":[0-9]*,"x":[-0-9.e+]*,"y":[-0-9.e+]*,"width":[-0-9.e+]*,"height":[-0-9.e+]*}$' out.txt &&
    fail "malformed line in $(cat out.txt)"

# Standard input, given as "-" or not at all, gives the same lines.
"$cli" layout --width 400 - < a.txt | cmp -s - out.txt || fail "'-' differs from the file"
"$cli" layout --width 400 < a.txt | cmp -s - out.txt || fail "standard input differs from the file"

# Every line lies inside its paragraph (line feeds left out), and each one starts below the last.
awk 'NR == FNR { start[NR - 1] = total; size[NR - 1] = length($0); total += length($0) + 1; next }
    {
        match($0, /"paragraph":[0-9]+/); p = substr($0, RSTART + 12, RLENGTH - 12) + 0
        match($0, /"location":[0-9]+/); l = substr($0, RSTART + 11, RLENGTH - 11) + 0
        match($0, /"length":[0-9]+/); n = substr($0, RSTART + 9, RLENGTH - 9) + 0
        match($0, /"y":[-0-9.e+]+/); y = substr($0, RSTART + 4, RLENGTH - 4) + 0
        match($0, /"height":[-0-9.e+]+/); h = substr($0, RSTART + 9, RLENGTH - 9) + 0
        if (l < start[p] || l + n > start[p] + size[p]) { print "outside: " $0; exit 1 }
        if (FNR > 1 && (y - bottom > 0.01 || bottom - y > 0.01)) { print "not stacked: " $0; exit 1 }
        bottom = y + h
    }' a.txt out.txt || fail "lines and paragraphs"

heading=$(line_of out.txt 0 1)
plain=$(line_of out.txt 2 1)
less "$(field "$heading" x)" "$(field "$plain" x)" || fail "the heading's tag doesn't hang: $heading"
blank=$(line_of out.txt 1 1)
[ "$(field "$blank" length)" = 0 ] && [ "$(grep -c '^{"paragraph":1,' out.txt)" = 1 ] ||
    fail "blank line: $blank"

# The list item wraps: its first line starts at the column, its second one behind the marker.
item=$(line_of out.txt 3 1)
wrapped=$(line_of out.txt 3 2)
[ -n "$wrapped" ] || fail "the list item didn't wrap: $(cat out.txt)"
[ "$(field "$item" x)" = "$(field "$plain" x)" ] || fail "list item's first line: $item"
less "$(field "$item" x)" "$(field "$wrapped" x)" || fail "continuation not indented: $wrapped"
[ "$(field "$wrapped" location)" -eq $(($(field "$item" location) + $(field "$item" length))) ] ||
    fail "continuation doesn't follow: $wrapped"

# Bad input: status 1, one line on standard error, nothing on standard output.
printf 'a\377b\n' > latin1.txt
for args in "layout" "layout --width" "layout --width x a.txt" "layout --width 0 a.txt" \
    "layout --width -5 a.txt" "layout --width 400 --font DejaVu a.txt" \
    "layout --width 400 --font NoSuchFamily --size 12 a.txt" "layout --width 400 --size big a.txt" \
    "layout --width 400 --markup nosuch a.txt" "layout --width 400 missing.txt" \
    "layout --width 400 a.txt a.txt" "layout --width 400 --frobnicate a.txt" \
    "layout --width 400 latin1.txt"; do
    # shellcheck disable=SC2086
    if "$cli" $args > out.txt 2> err.txt; then fail "'$args' succeeded"; fi
    [ ! -s out.txt ] || fail "'$args' wrote output"
    [ "$(wc -l < err.txt)" -eq 1 ] || fail "'$args' gave $(cat err.txt)"
done
"$cli" layout --width 400 latin1.txt 2>&1 | grep -q '^velmora-cli: latin1.txt: ' || fail "file not named"
