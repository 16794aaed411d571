#!/bin/sh
# velmora-cli stats and goal: rows per file and a total, the norm page options, JSON numbers, a
# sheet package beside a text file, goals in each status, and bad input failing with one line.
set -eu
cli=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home"
export LC_ALL=C.UTF-8
fail() { echo "stats.sh: $*" >&2; exit 1; }
cd "$home"

# 8 words in 4 sentences; the comment and the tags don't count.
printf '# Heading\n\nOne *two* three. Four five!\n// not counted at all\nSix {>>nor this<<} seven.\n' > a.txt
printf 'A sheet of words.\n' | "$cli" sheet create b.velmora

out=$("$cli" stats a.txt b.velmora)
expected=$(cat <<'END'
a.txt
characters	47
charactersWithoutWhitespaces	37
words	8
sentences	4
wordsPerSentence	2
paragraphs	3
lines	4
pages	0.2
slowReadingTime	2 s
averageReadingTime	2 s
fastReadingTime	1 s

b.velmora
characters	18
charactersWithoutWhitespaces	14
words	4
sentences	1
wordsPerSentence	4
paragraphs	1
lines	1
pages	0.1
slowReadingTime	1 s
averageReadingTime	1 s
fastReadingTime	0 s

total
characters	65
charactersWithoutWhitespaces	51
words	12
sentences	5
wordsPerSentence	2.4
paragraphs	4
lines	5
pages	0.2
slowReadingTime	4 s
averageReadingTime	3 s
fastReadingTime	2 s
END
)
[ "$out" = "$expected" ] || fail "stats rows: $out"

json=$("$cli" stats --json --chars-per-line 10 --lines-per-page 2 a.txt b.velmora)
for expected in '"words": 12' '"lines": 8' '"pages": 4' '"slowReadingTime": 2.667' \
    '"a.txt": {' '"b.velmora": {' '"total": {'; do
    printf '%s' "$json" | grep -q "$expected" || fail "missing $expected in $json"
done

[ "$("$cli" goal --counter words --target 12 --type close_to a.txt b.velmora)" = "$(printf 'count\t12\nprogress\t1\nstatus\treached')" ] ||
    fail "goal reached"
"$cli" goal --counter words --target 11 --type at_most a.txt b.velmora | grep -q 'status	exceeded' || fail "exceeded"
"$cli" goal --counter words --target 13 --type at_least a.txt b.velmora | grep -q 'status	almost_reached' || fail "almost"
"$cli" goal --counter words --target 0 --type at_least a.txt | grep -q 'status	empty' || fail "empty"
"$cli" goal --json --counter pages --target 1 --type at_least --lines-per-page 2 a.txt |
    grep -q '"count": 2' || fail "pages goal"

# Bad input: status 1, one line on standard error, nothing on standard output.
printf 'a\0b' > binary.txt
for args in "stats missing.txt" "stats binary.txt" "stats --markup nosuch a.txt" "stats" \
    "stats --chars-per-line 0 a.txt" "goal --counter slowReadingTime --target 1 --type at_least a.txt" \
    "goal --counter words --target x --type at_least a.txt" "goal --counter words --target 1 --type over a.txt" \
    "stats --frobnicate a.txt"; do
    # shellcheck disable=SC2086
    if "$cli" $args > out.txt 2> err.txt; then fail "'$args' succeeded"; fi
    [ ! -s out.txt ] || fail "'$args' wrote output"
    [ "$(wc -l < err.txt)" -eq 1 ] || fail "'$args' gave $(cat err.txt)"
done
"$cli" stats binary.txt 2>&1 | grep -q '^velmora-cli: binary.txt: ' || fail "file not named"
