#!/bin/sh
# velmora-cli sheet: a package made, shown, given attachments and new text, its versions, and bad
# input (not a package, damaged XML, a newer format) failing with one line and touching nothing.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
fail() { echo "sheet.sh: $*" >&2; exit 1; }
cd "$home"

printf '# Title\n\nSome *text*.\n' | "$cli" sheet create a.velmora
[ "$("$cli" sheet show a.velmora)" = "$(printf '# Title\n\nSome *text*.\n')" ] || fail "text changed"
"$cli" sheet show a.velmora --json | grep -q '"version": 1' || fail "plain sheet not version 1"
printf 'x' > one.txt
"$cli" sheet create b.velmora --markup markdown one.txt
"$cli" sheet show b.velmora --json | grep -q '"markup": "markdown"' || fail "markup not kept"

printf 'PNG' > picture.png
"$cli" sheet attach a.velmora --note 'A *note*'
"$cli" sheet attach a.velmora --file picture.png
"$cli" sheet attach a.velmora --keywords 'red, green'
"$cli" sheet attach a.velmora --keywords 'green,blue'
"$cli" sheet attach a.velmora --goal words:at_least:500
sleep 1
printf 'New text\n' | "$cli" sheet set-text a.velmora
json=$("$cli" sheet show a.velmora --json)
for expected in '"text": "New text\\n"' '"version": 2' '"A \*note\*"' '"picture.png"' \
    '"red",' '"green",' '"blue"' '"counter": "words"' '"type": "at_least"' '"target": 500'; do
    printf '%s' "$json" | grep -q "$expected" || fail "missing $expected in $json"
done
ls a.velmora/Media/picture.*.png > /dev/null || fail "media not kept"
[ "$(cat a.velmora/Text.txt)" = "New text" ] || fail "Text.txt not written"
[ "$("$cli" sheet versions a.velmora | wc -l)" -ge 1 ] || fail "no version kept"
"$cli" sheet versions a.velmora | head -1 | grep -q '^20[0-9-]*T[0-9:.]*Z	/' || fail "bad listing"

# Bad input: status 1, one line naming the file, nothing on standard output, nothing written.
mkdir notpackage.velmora
cp -r a.velmora damaged.velmora && printf '<sheet version="1"><string>' > damaged.velmora/Content.xml
cp -r a.velmora newer.velmora && sed -i 's/<sheet version="2">/<sheet version="3">/' newer.velmora/Content.xml
cp damaged.velmora/Content.xml damaged.copy
for args in "show notpackage.velmora" "show damaged.velmora" "set-text damaged.velmora one.txt" \
    "show newer.velmora" "attach newer.velmora --note x" "attach a.velmora --goal words:most:1" \
    "create a.velmora one.txt" "create c.txt one.txt" "show missing.velmora"; do
    # shellcheck disable=SC2086
    if out=$("$cli" sheet $args 2>err); then fail "sheet $args succeeded"; fi
    [ -z "$out" ] && [ "$(wc -l < err)" -eq 1 ] || fail "sheet $args: bad failure output"
    file=$(echo "$args" | cut -d' ' -f2)
    grep -q "$file" err || fail "sheet $args: file not named: $(cat err)"
done
"$cli" sheet show newer.velmora 2>err || grep -q 'newer version of Velmora' err || fail "format error"
grep -q 'damaged.velmora/Content.xml' err || "$cli" sheet show damaged.velmora 2>&1 | grep -q 'Content.xml' || fail "damaged file not named"
cmp damaged.velmora/Content.xml damaged.copy || fail "damaged sheet overwritten"
grep -q 'version="3"' newer.velmora/Content.xml || fail "newer sheet overwritten"
