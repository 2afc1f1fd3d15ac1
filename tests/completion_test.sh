#!/bin/bash
# The bash completions of kelvo and kelvo-report, loaded by bash-completion from where they
# are installed, on the demo server. Usage: completion_test.sh SOURCE_DIR KELVO_DIR
set -u
src=$1 kelvo_dir=$2
loader=/usr/share/bash-completion/bash_completion
[ -r "$loader" ] || { echo "SKIPPED: bash-completion is not installed"; exit 77; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
DEMO_ROOT="$tmp/demo" "$src/demo/run_demo.sh" "$kelvo_dir" >"$tmp/demo.log" 2>&1 ||
    { echo "FAILED: demo server"; cat "$tmp/demo.log"; exit 1; }
mkdir -p "$tmp/bin" "$tmp/share/bash-completion/completions" "$tmp/out"
ln -s "$(cd "$kelvo_dir" && pwd)/kelvo" "$tmp/bin/kelvo"
for command in kelvo kelvo-report; do
    cp "$src/contrib/$command.bash-completion" "$tmp/share/bash-completion/completions/$command"
done
touch "$tmp/out/metrics.prom"

# The completions of the words as bash splits them ("=" a word of its own); the last is completed.
complete_words() {
    ORN_STORAGE_DB="$tmp/demo/storage.db" TZ=UTC PATH="$tmp/bin:$PATH" XDG_DATA_DIRS="$tmp/share" bash --norc -c '
        source "$1"; shift
        __load_completion "$1" || exit 1
        function=$(complete -p "$1" | sed -n "s/.* -F \([^ ]*\) .*/\1/p")
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        COMP_LINE="$*"; COMP_LINE=${COMP_LINE// = /=}; COMP_POINT=${#COMP_LINE}
        compopt() { :; }  # only valid while bash itself completes
        "$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        printf "%s\n" "${COMPREPLY[@]}" | sort' _ "$loader" "$@"
}

failures=0
# Rows: expected completions (blank-separated) | words.
while IFS='|' read -r expected words; do
    [ -z "$words" ] && continue
    eval "set -- $words"
    got=$(complete_words "$@" | tr '\n' ' ' | sed 's/ *$//')
    expected=$(sed 's/^ *//; s/ *$//' <<<"$expected")
    [ "$got" = "$expected" ] && echo "ok: $words" && continue
    printf 'FAILED: %s\n  expected: %s\n  got:      %s\n' "$words" "$expected" "$got"
    failures=$((failures + 1))
done <<ROWS
autoclean nullid recoverid spaceinfo spacelist volchn volclean vollist volset voluse | kelvo ''
volchn volclean vollist volset voluse                  | kelvo vol
Archive Backup Recording                               | kelvo vollist ''
Backup1 Backup2 Rec1 Rec2 Rec3 Spare1                  | kelvo volset ''
Rec1 Rec2 Rec3                                         | kelvo volchn Rec
0 1                                                    | kelvo volset Rec1 ''
1                                                      | kelvo volset Rec1 0 1
-1 0 1 2 3 4 5 7                                       | kelvo nullid ''
1                                                      | kelvo voluse 1
                                                       | kelvo vollist Recording ''
--critical= --du-timeout= --format= --help --min-days= --no-du --output= --plan= --timeout= --version --warning= | kelvo-report ''
autoclean volclean:-1                                  | kelvo-report --plan = ''
-1                                                     | kelvo-report --plan = volclean:
check json prometheus                                  | kelvo-report --format = ''
prometheus                                             | kelvo-report --format = p
$tmp/out/metrics.prom                                  | kelvo-report --output = $tmp/out/m
ROWS
[ "$failures" -eq 0 ]
