#!/bin/sh
# velmora-cli themes and theme: the listing in both forms with user themes beside the built-in
# ones, the resolved look of a theme in each mode, and bad input failing with one line on
# standard error. Runs in a home of its own.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
fail() { echo "themes.sh: $*" >&2; exit 1; }
tab=$(printf '\t')

# A user theme in the old single-file form, and a disabled one as a package.
themes="$home/data/Velmora/Themes"
mkdir -p "$themes/quiet.velmoratheme"
printf '<theme version="1" displayName="Old" palettes="clearmist.light;clearmist.dark"><item definition="strong" colors="#a3404d;;"/></theme>' > "$themes/old.xml"
printf '<theme version="2" displayName="Quiet"/>' > "$themes/quiet.velmoratheme/Theme.xml"
printf '<plist version="1.0"><dict><key>enabled</key><false/></dict></plist>' > "$themes/quiet.velmoratheme/Info.plist"

expected=$(cat <<END
clearmist${tab}Clear Mist${tab}built-in${tab}enabled
embers${tab}Embers${tab}built-in${tab}enabled
contrast${tab}High Contrast${tab}built-in${tab}enabled
parchment${tab}Parchment${tab}built-in${tab}enabled
old${tab}Old${tab}user${tab}enabled
quiet${tab}Quiet${tab}user${tab}disabled
END
)
[ "$("$cli" themes list)" = "$expected" ] || fail "unexpected listing: $("$cli" themes list)"
json=$("$cli" themes list --json)
for expected in '"identifier": "clearmist"' '"displayName": "High Contrast"' '"builtin": false' \
    '"enabled": false'; do
    printf '%s' "$json" | grep -q "$expected" || fail "missing $expected in $json"
done
[ "$(printf '%s' "$json" | grep -c '"identifier"')" -eq 6 ] || fail "not six themes: $json"

light=$("$cli" theme show clearmist)
[ "$(printf '%s\n' "$light" | wc -l)" -eq 34 ] || fail "not 34 lines: $light"
for line in "background${tab}#f7f9fb" "foreground${tab}#27313b" \
    "scope:heading${tab}#2f5f8a${tab}#5a6d80${tab}-${tab}bold" \
    "scope:object${tab}-${tab}#654e8f${tab}-${tab}-" \
    "heading3${tab}#2f5f8a${tab}#5a6d80${tab}-${tab}bold" \
    "codeblock${tab}#2e6b62${tab}#5a6d80${tab}#e3ebec${tab}-" \
    "delete${tab}#a3404d${tab}#5a6d80${tab}-${tab}strikethrough" \
    "image${tab}-${tab}#654e8f${tab}-${tab}-"; do
    printf '%s\n' "$light" | grep -qxF "$line" || fail "light: no line '$line'"
done
[ "$(printf '%s\n' "$light" | sed -n '3p;9p;34p' | cut -f1 | tr '\n' ' ')" = "scope:heading heading1 footnote " ] ||
    fail "light: lines out of order"
dark=$("$cli" theme show clearmist --dark)
for line in "background${tab}#1d232a" "mark${tab}-${tab}#8a9db0${tab}#545042${tab}-" \
    "orderedList${tab}-${tab}#8ab2d8${tab}-${tab}-" "link${tab}#8ab2d8${tab}#8a9db0${tab}-${tab}-"; do
    printf '%s\n' "$dark" | grep -qxF "$line" || fail "dark: no line '$line'"
done
"$cli" theme show old | grep -q "^strong${tab}#a3404d${tab}" || fail "old theme not migrated"

# Bad input: status 1, one line on standard error, nothing on standard output.
for args in "theme show nosuch" "theme show clearmist --light" "theme show" "theme list" \
    "theme show clearmist embers" "themes list --xml" "themes"; do
    # shellcheck disable=SC2086
    if "$cli" $args > "$home/out" 2> "$home/err"; then fail "'$args' succeeded"; fi
    [ ! -s "$home/out" ] || fail "'$args' wrote output"
    [ "$(wc -l < "$home/err")" -eq 1 ] || fail "'$args' gave $(cat "$home/err")"
done
"$cli" theme show nosuch 2>&1 | grep -q "nosuch" || fail "unknown theme not named"
[ -f "$themes/old.xml" ] || fail "listing rewrote the user's themes"
