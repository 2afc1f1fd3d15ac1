#!/bin/bash
# The storage library seam: the stand-in built as a shared library and
# installed into a prefix, kelvo and kelvo-report built against that prefix
# through KELVO_STORAGE_LIBRARY and KELVO_STORAGE_INCLUDE_DIR alone, then a
# case file and the report test on them. Usage: seam_test.sh SOURCE_DIR
set -u
export TZ=UTC
src=$(cd "$1" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
run() { "$@" >>"$tmp/log" 2>&1 || { tail -30 "$tmp/log"; echo "FAILED: $*"; exit 1; }; }
quick=(-DCMAKE_BUILD_TYPE=None -DCMAKE_UNITY_BUILD=ON -DKELVO_TESTS=OFF)
run cmake -S "$src" -B "$tmp/sim" "${quick[@]}" -DKELVO_STANDIN_SHARED=ON
run cmake --build "$tmp/sim" --target ornstorage_sim
run cmake --install "$tmp/sim" --component standin --prefix "$tmp/prefix"
run cmake -S "$src" -B "$tmp/app" "${quick[@]}" -DKELVO_STORAGE_INCLUDE_DIR="$tmp/prefix/include/ornstorage" \
    -DKELVO_STORAGE_LIBRARY="$(echo "$tmp"/prefix/lib*/libornstorage_sim.so)"
run cmake --build "$tmp/app" --target kelvo kelvo-report
for bin in kelvo kelvo-report; do
    readelf -d "$tmp/app/$bin" | grep -q "NEEDED.*libornstorage_sim.so" &&
        ! nm -C --defined-only "$tmp/app/$bin" | grep -q create_storage_setting ||
        { echo "FAILED: $bin does not take the storage library from the prefix"; exit 1; }
done
export KELVO=$tmp/app/kelvo KELVO_REPORT=$tmp/app/kelvo-report KELVO_SCHEMA=$src/src/storage_sim/schema.sql
/usr/bin/python3 "$src/tests/cases_test.py" "$src/tests/cases/ids.cases" && /usr/bin/python3 "$src/tests/report_test.py"
