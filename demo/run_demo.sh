#!/bin/bash
# Builds a small simulated recording server under the build folder and runs
# kelvo against it. Usage: run_demo.sh BUILD_DIR
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build/normal}" && pwd)

export KELVO="$build/kelvo"
export KELVO_REPORT="$build/kelvo-report"
export ROOT="${DEMO_ROOT:-$build/demo-server}"
export DB="$ROOT/storage.db"
export ORN_STORAGE_DB="$DB"
export TZ="${TZ:-UTC}"

rm -rf "$ROOT"
mkdir -p "$ROOT"
sqlite3 "$DB" < "$here/../src/storage_sim/schema.sql"

. "$here/lib.sh"
for f in "$here"/seed/*.sh; do . "$f"; done

say "A demo recording server in $ROOT: three spaces, seven volumes and" \
    "eight channels with recordings of the last days, some of them damaged."
echo
for f in "$here"/steps/*.sh; do . "$f"; done

cat <<HINT
Run further commands against the demo server by hand:
  export ORN_STORAGE_DB=$DB TZ=$TZ
  $KELVO spacelist
  $KELVO vollist Recording
  $KELVO nullid -1
The database is a plain SQLite file: sqlite3 $DB '.tables'
HINT
