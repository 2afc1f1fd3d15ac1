#!/bin/bash
# The stand-in as a shared library in a prefix, kelvo and kelvo-report built against
# it through KELVO_STORAGE_LIBRARY and KELVO_STORAGE_INCLUDE_DIR alone, then a case
# file and the report test on them. Usage: seam_test.sh SOURCE_DIR
set -u
export TZ=UTC
src=$(cd "$1" && pwd) tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
run() { "$@" >>"$tmp/log" 2>&1 || { tail -30 "$tmp/log"; echo "FAILED: $*"; exit 1; }; }
configure() { run cmake -S "$src" -B "$tmp/$1" -DCMAKE_BUILD_TYPE=None -DCMAKE_UNITY_BUILD=ON -DKELVO_TESTS=OFF "${@:2}"; }
configure sim -DKELVO_STANDIN_SHARED=ON
run cmake --build "$tmp/sim" --target ornstorage_sim
run cmake --install "$tmp/sim" --component standin --prefix "$tmp/prefix"
configure app -DKELVO_STORAGE_INCLUDE_DIR="$tmp/prefix/include/ornstorage" \
    -DKELVO_STORAGE_LIBRARY="$(echo "$tmp"/prefix/lib*/libornstorage_sim.so)"
run cmake --build "$tmp/app" --target kelvo kelvo-report
for bin in kelvo kelvo-report; do  # loads the library, holds none of it
    readelf -d "$tmp/app/$bin" | grep -q "NEEDED.*libornstorage_sim.so" && ! nm -C --defined-only "$tmp/app/$bin" |
        grep -q create_storage_setting || { echo "FAILED: $bin does not load the prefix's library"; exit 1; }
done
export KELVO=$tmp/app/kelvo KELVO_REPORT=$tmp/app/kelvo-report KELVO_SCHEMA=$src/src/storage_sim/schema.sql
/usr/bin/python3 "$src/tests/cases_test.py" "$src/tests/cases/ids.cases" && /usr/bin/python3 "$src/tests/report_test.py"
