#!/bin/bash
# The manual pages render without a groff or man warning and within 80
# columns, have their sections, an example of every kelvo command, and every
# text kelvo prints. Usage: manpage_test.sh SOURCE_DIR
set -u
src=$1
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }
render() { LC_ALL=C.UTF-8 MANWIDTH=80 man "$@" -l "$page"; }

for page in "$src"/doc/kelvo.8 "$src"/doc/kelvo-report.8; do
    name=${page##*/}
    warnings=$(groff -ww -man -Tutf8 -z "$page" 2>&1)
    [ -z "$warnings" ] || fail "$name: groff warnings:"$'\n'"$warnings"
    warnings=$(render --warnings 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$name: man warnings:"$'\n'"$warnings"
    text=$(render 2>/dev/null | col -bx)
    wide=$(awk 'length($0) > 80' <<<"$text")
    [ -z "$wide" ] || fail "$name: lines wider than 80 columns:"$'\n'"$wide"
    sections="NAME SYNOPSIS DESCRIPTION EXIT.STATUS ENVIRONMENT FILES CAUTIONS DIAGNOSTICS
              EXAMPLES SEE.ALSO"
    case $name in
    kelvo.8) sections="$sections COMMANDS" ;;
    *) sections="$sections OPTIONS" ;;
    esac
    for section in $sections; do
        grep -qx "$section" <<<"$text" || fail "$name: no section $section"
    done
    for variable in ORN_STORAGE_DB ORN_LOG_FILE TZ /var/lib/ornstorage/storage.db; do
        grep -qF "$variable" <<<"$text" || fail "$name: does not mention $variable"
    done
done

# kelvo(8): one example per command, and every fixed text of kelvo's output
# (the literals of its sources, cut at conversions and line ends) somewhere.
page=$src/doc/kelvo.8
flat=$(render 2>/dev/null | col -bx | tr -s ' \n' ' ')
for command in spacelist vollist volset volchn voluse volclean autoclean nullid recoverid spaceinfo; do
    grep -qF "\$ kelvo $command" <<<"$flat" || fail "kelvo.8: no example of $command"
done
fragments=$(grep -hv '^ *\(#\|//\)' "$src"/src/commands/*.cpp "$src"/src/main/main.cpp |
    grep -o '"[^"]*"' | sed 's/^"//; s/"$//; s/%%/%/g; s/\\[nt]/\n/g; s/%[-.*0-9]*l*[a-z]/\n/g' |
    grep -v '/' | sed 's/^ *//; s/ *$//' | grep '[A-Za-z]\{3\}' | sort -u)
while IFS= read -r fragment; do
    grep -qF -- "$fragment" <<<"$flat" || fail "kelvo.8: does not show \"$fragment\""
done <<<"$fragments"

# kelvo-report(8): every key of the JSON Schema, once the report ships it.
schema=$src/doc/kelvo-report.schema.json
if [ -f "$schema" ]; then
    page=$src/doc/kelvo-report.8
    flat=$(render 2>/dev/null | col -bx | tr -s ' \n' ' ')
    keys=$(/usr/bin/python3 -c 'import json, sys
def walk(node):
    if isinstance(node, dict):
        for key, value in node.get("properties", {}).items(): print(key)
        for value in node.values(): walk(value)
    elif isinstance(node, list):
        for value in node: walk(value)
walk(json.load(open(sys.argv[1])))' "$schema" | sort -u)
    for key in $keys; do
        grep -qw -- "$key" <<<"$flat" || fail "kelvo-report.8: no JSON key $key"
    done
fi
[ "$failures" -eq 0 ] && echo "manual pages ok"
[ "$failures" -eq 0 ]
