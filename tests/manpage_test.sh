#!/bin/bash
# The manual pages render without a groff or man warning, within 80 columns;
# kelvo(8) shows an example of every command and every text kelvo prints,
# kelvo-report(8) every key of its JSON Schema. Usage: manpage_test.sh SOURCE_DIR
set -u
src=$1
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }
render() { LC_ALL=C.UTF-8 MANWIDTH=80 man "$@" -l "$page" 2>/dev/null | col -bx; }

for page in "$src"/doc/kelvo.8 "$src"/doc/kelvo-report.8; do
    warnings=$(groff -ww -man -Tutf8 -z "$page" 2>&1; LC_ALL=C.UTF-8 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "${page##*/}: warnings:"$'\n'"$warnings"
    wide=$(render | awk 'length($0) > 80')
    [ -z "$wide" ] || fail "${page##*/}: lines wider than 80 columns:"$'\n'"$wide"
    for word in ORN_STORAGE_DB ORN_LOG_FILE TZ /var/lib/ornstorage/storage.db EXAMPLES; do
        render | grep -qF "$word" || fail "${page##*/}: does not mention $word"
    done
done

# The literals of kelvo's sources, cut at conversions and line ends.
page=$src/doc/kelvo.8
flat=$(render | tr -s ' \n' ' ')
for command in spacelist vollist volset volchn voluse volclean autoclean nullid recoverid spaceinfo; do
    grep -qF "\$ kelvo $command" <<<"$flat" || fail "kelvo.8: no example of $command"
done
grep -qF "4294967295, 99999999999999999999" <<<"$flat" && grep -qw timezone <<<"$flat" || fail "kelvo.8: no caution on wrapped channel numbers or the timezone row"
fragments=$(grep -hv '^ *\(#\|//\)' "$src"/src/commands/*.cpp "$src"/src/main/main.cpp |
    grep -o '"[^"]*"' | sed 's/^"//; s/"$//; s/%%/%/g; s/\\[nt]/\n/g; s/%[-.*0-9]*l*[a-z]/\n/g' |
    grep -v -e '/' -e '^[a-z]*_[a-z_]*$' | sed 's/^ *//; s/ *$//' | grep '[A-Za-z]\{3\}' | sort -u)
while IFS= read -r fragment; do
    grep -qF -- "$fragment" <<<"$flat" || fail "kelvo.8: does not show \"$fragment\""
done <<<"$fragments"

page=$src/doc/kelvo-report.8
flat=$(render | tr -s ' \n' ' ')
keys=$(/usr/bin/python3 -c 'import json, sys
walk = lambda n: [*n.get("properties", {}), *(k for v in n.values() for k in walk(v))] if isinstance(n, dict) \
    else [k for v in n for k in walk(v)] if isinstance(n, list) else []
print(*set(walk(json.load(open(sys.argv[1])))))' "$src/doc/kelvo-report.schema.json")
for key in $keys; do
    grep -qw -- "$key" <<<"$flat" || fail "kelvo-report.8: no JSON key $key"
done
for name in $(grep -o 'kelvo_[a-z_]*' "$src/src/report/prometheus_output.cpp"; sed -n 's/^ *- alert: //p' "$src/contrib/prometheus/kelvo.rules.yml"); do
    grep -qw -- "$name" <<<"$flat" || fail "kelvo-report.8: does not name $name"
done
[ "$failures" -eq 0 ] && echo "manual pages ok"
