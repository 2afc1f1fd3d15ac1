#!/bin/bash
# Drives the bash completion through bash against the demo server.
# Usage: completion_test.sh SOURCE_DIR KELVO_DIR
set -u
src=$1
kelvo_dir=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
DEMO_ROOT="$tmp/demo" "$src/demo/run_demo.sh" "$kelvo_dir" >"$tmp/demo.log" 2>&1 ||
    { echo "FAILED: demo server"; cat "$tmp/demo.log"; exit 1; }

# Prints the completions of the words given; the last word is the one completed.
complete_words() {
    ORN_STORAGE_DB="$tmp/demo/storage.db" TZ=UTC PATH="$kelvo_dir:$PATH" bash --norc -c '
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        _kelvo
        printf "%s\n" "${COMPREPLY[@]}" | sort' _ "$src/contrib/kelvo.bash-completion" "$@"
}

failures=0
expect() {  # expect NAME EXPECTED_LINES WORDS...
    local name=$1 expected=$2; shift 2
    local got
    got=$(complete_words "$@")
    if [ "$got" = "$expected" ]; then
        echo "ok: $name"
    else
        echo "FAILED: $name"; echo "expected:"; echo "$expected"; echo "got:"; echo "$got"
        failures=$((failures + 1))
    fi
}
contains() {  # contains NAME LINE WORDS...
    local name=$1 line=$2; shift 2
    if complete_words "$@" | grep -qxF -- "$line"; then
        echo "ok: $name"
    else
        echo "FAILED: $name (no $line)"; failures=$((failures + 1))
    fi
}

expect "all command words" "$(printf '%s\n' autoclean nullid recoverid spaceinfo spacelist \
    volchn volclean vollist volset voluse)" kelvo ""
expect "command words by prefix" "$(printf '%s\n' volchn volclean vollist volset voluse)" kelvo vol
expect "space names for vollist" "$(printf '%s\n' Archive Backup Recording)" kelvo vollist ""
expect "space names by prefix for spaceinfo" "Recording" kelvo spaceinfo Re
contains "volume names for volset" Rec1 kelvo volset ""
contains "volume names for volchn" Backup1 kelvo volchn ""
contains "volume names by prefix" Rec2 kelvo volchn Rec
if complete_words kelvo volchn Rec | grep -qv '^Rec'; then
    echo "FAILED: a volume name without the prefix"; failures=$((failures + 1))
fi
expect "volset type values" "$(printf '%s\n' 0 1)" kelvo volset Rec1 ""
expect "volset state values" "1" kelvo volset Rec1 0 1
expect "nothing after the last argument" "" kelvo vollist Recording ""
expect "nothing for channel numbers" "" kelvo nullid ""
[ "$failures" -eq 0 ]
