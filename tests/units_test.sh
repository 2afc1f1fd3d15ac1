#!/bin/sh
# The units verify without a word, the service is bounded in time and its
# sandbox scores 2.0 or below, and the folder it writes is writable in it.
# Usage: units_test.sh SOURCE_DIR KELVO_REPORT
set -eu
command -v systemd-analyze >/dev/null || { echo "no systemd-analyze here: skipped"; exit 77; }
d=$(mktemp -d)
trap 'rm -rf "$d"' EXIT
unit=$d/kelvo-report.service
sed "s#/usr/bin/kelvo-report#$2#" "$1/contrib/kelvo-report.service" >"$unit"
cp "$1/contrib/kelvo-report.timer" "$d"
systemd-analyze verify --man=no "$unit" "$d/kelvo-report.timer" >"$d/said" 2>&1 || true
[ ! -s "$d/said" ] || { cat "$d/said"; exit 1; }
systemd-analyze security --offline=yes --threshold=20 "$unit" >"$d/said" || { cat "$d/said"; exit 1; }
tail -n 1 "$d/said"
grep -q '^TimeoutStartSec=[1-9]' "$unit"
out=$(sed -n 's#^ExecStart=.*--output=\(.*\)/[^/]*$#\1#p' "$unit")
grep -q "^ReadWritePaths=.*$out\( \|$\)" "$unit" || { echo "$out is not writable"; exit 1; }
