#!/bin/bash
# The manual page renders without a single groff warning and documents every
# command. Usage: manpage_test.sh SOURCE_DIR
set -u
page=$1/doc/kelvo.8
failures=0
warnings=$(groff -ww -man -Tutf8 -z "$page" 2>&1)
if [ -n "$warnings" ]; then
    echo "FAILED: groff warnings:"; echo "$warnings"; failures=$((failures + 1))
fi
warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
if [ -n "$warnings" ]; then
    echo "FAILED: man -l warnings:"; echo "$warnings"; failures=$((failures + 1))
fi
text=$(LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$page" 2>/dev/null | col -b)
for word in spacelist vollist volset volchn voluse volclean autoclean nullid recoverid spaceinfo \
    CAUTIONS "EXIT STATUS" EXAMPLES; do
    if ! grep -q "$word" <<<"$text"; then
        echo "FAILED: the page does not mention $word"; failures=$((failures + 1))
    fi
done
[ "$failures" -eq 0 ] && echo "manual page ok"
[ "$failures" -eq 0 ]
