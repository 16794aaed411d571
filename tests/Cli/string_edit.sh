#!/bin/sh
# velmora-cli string edit from outside: scripted edits with undo and redo give the expected
# documents, and a bad line fails with "SCRIPT:LINE: problem" alone.
#   $1: velmora-cli
set -eu
cli=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

expect() { # NAME TEXT EXPECTED-TEXT: the script NAME on TEXT gives the document of EXPECTED-TEXT
    printf '%s' "$2" > text
    printf '%s' "$3" > expected
    "$cli" string parse --markup markdownqr expected > expected.xml
    "$cli" string edit --markup markdownqr --script "$1" text > out.xml
    cmp out.xml expected.xml || { echo "$1: unexpected result"; cat out.xml; exit 1; }
}

# A selection replaced from before the typing is a step of its own.
printf 'replace 5 0 "x"\nreplace 6 0 "y"\nreplace 3 4 "ABCD"\nundo\n' > selection
expect selection 'hello world' 'helloxy world'
printf 'replace 5 0 "x"\nreplace 6 0 "y"\nreplace 3 4 "ABCD"\nundo\nundo\n' > both
expect both 'hello world' 'hello world'
# An undo that changes nothing still ends the step: the typing after it is undone alone.
printf 'replace 1 0 "*"\nreplace 7 0 "a"\nreplace 7 1 ""\nundo\nreplace 7 0 "*"\nundo\n' > empty
expect empty '# Start' '#* Start'
# Line feeds in the text, comments and blank lines, redo.
printf '# a comment\n\nreplace 0 0 "# T\\r\\n"\nbreak\nreplace 4 0 "**b**"\nundo\nredo\n' > lines
expect lines 'x' '# T
**b**x'

# The editor's commands: a list goes on and ends, a tag pairs and is typed over, a tag is set
# on two paragraphs at once, and each command is one undo step.
printf 'select 4 0\nkey return\ntype "b"\nkey return\nkey return\n' > list
expect list '1. a' '1. a
2. b

'
printf 'select 4 0\nkey return\nundo\n' > listundo
expect listundo '1. a' '1. a'
printf 'select 0 0\ntype "**"\ntype "b"\ntype "**"\ntype " c"\n' > pair
expect pair '' '**b** c'
printf 'select 0 7\ntoggle strong\nselect 15 0\nkey tab\n' > toggle
expect toggle 'one
two' '**one**
**two**	'
printf 'select 0 7\ntoggle strong\nselect 0 0\ntoggle heading1\nundo\n' > toggleundo
expect toggleundo 'one
two' '**one**
**two**'
printf 'select 1 0\nkey backspace\nkey delete\n' > keys
expect keys 'abc' 'c'

# Bad lines: status 1, nothing on standard output, one line on standard error.
bad() { # SCRIPT-TEXT EXPECTED-ERROR
    printf "$1" > bad
    if "$cli" string edit --markup markdownqr --script bad text > out 2> err; then
        echo "bad script accepted: $1"; exit 1
    fi
    [ ! -s out ] || { echo "output on failure: $1"; exit 1; }
    [ "$(cat err)" = "$2" ] || { echo "error was: $(cat err), expected: $2"; exit 1; }
}
printf 'abc' > text
bad 'undo\n' 'bad:1: nothing to undo'
bad 'replace 0 0 "x"\n\nredo\n' 'bad:3: nothing to redo'
bad 'replace 2 5 "x"\n' 'bad:1: range {2, 5} out of bounds of text of length 3'
bad 'replace 0 0 x\n' "bad:1: expected 'replace LOCATION LENGTH TEXT', 'select LOCATION LENGTH', 'type TEXT', 'key KEY', 'toggle DEFINITION', 'undo', 'redo' or 'break', got 'replace 0 0 x'"
bad 'select 1 9\n' 'bad:1: range {1, 9} out of bounds of text of length 3'
bad 'key enter\n' "bad:1: unknown key 'enter': expected return, backspace, delete, tab or backtab"
bad 'toggle nothing\n' "bad:1: markup 'markdownqr' has no tag for 'nothing'"
bad 'replace 0 0 "a" "b"\n' 'bad:1: TEXT is no JSON string literal: "a" "b"'
