#!/bin/sh
# velmora-cli markups: the listing in both forms, add (file, package folder, ZIP), remove and
# reset, and bad input failing with one line on standard error. Runs in a home of its own.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
fail() { echo "markups.sh: $*" >&2; exit 1; }

[ "$("$cli" markups list)" = "$(printf 'markdown\tMarkdown\tbuilt-in\tenabled\nmarkdownqr\tMarkdown QR\tbuilt-in\tenabled')" ] ||
    fail "unexpected listing"
"$cli" markups list --json | grep -q '"builtin": true' || fail "no JSON listing"

"$cli" markup show markdown > "$home/m.xml"
id=$("$cli" markups add "$home/m.xml")
[ ${#id} -eq 32 ] || fail "no identifier: $id"
mkdir "$home/package" && cp "$home/m.xml" "$home/package/markup.xml"
id2=$("$cli" markups add "$home/package")
"$cli" markups list | grep -q "^$id	.*	user	enabled$" || fail "added markup not listed"
[ -f "$home/data/Velmora/Markups/$id.velmoramarkup" ] || fail "no file written"

# The user markup parses text like any other.
printf 'a *b*\n' | "$cli" string parse --markup "$id" | grep -q 'kind="emph"' || fail "not usable"

"$cli" markups remove "$id"
"$cli" markups remove "$id2"
! "$cli" markups list | grep -q user || fail "removed markup still listed"
[ -z "$(ls "$home/data/Velmora/Markups")" ] || fail "files left behind"
"$cli" markups reset markdownqr

# Bad input: status 1, one line on standard error, nothing on standard output.
for args in "remove markdownqr" "reset nosuch" "add $home/missing.xml" "remove"; do
    # shellcheck disable=SC2086
    if out=$("$cli" markups $args 2>"$home/err"); then fail "markups $args succeeded"; fi
    [ -z "$out" ] && [ "$(wc -l < "$home/err")" -eq 1 ] || fail "markups $args: bad failure output"
done
printf 'PK\003\004garbage' > "$home/bad.zip"
! "$cli" markups add "$home/bad.zip" 2>"$home/err" || fail "damaged archive accepted"
grep -q "bad.zip" "$home/err" || fail "damaged archive not named"
