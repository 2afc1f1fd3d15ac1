#!/bin/sh
# Installs the Debian packages that one purpose needs and that are missing
# (apt-get as root, through sudo otherwise). Usage: setup.sh [build|demo|package|test]
# (test, the default, covers the other three).
set -eu

# Each list holds one package per line.
build="
cmake
g++
make
libsqlite3-dev
libhowardhinnant-date-dev
libcli11-dev
nlohmann-json3-dev
"
# The demo server is made with the sqlite3 shell.
demo="
sqlite3
"
# dpkg-buildpackage and what debian/control asks beyond the build.
package="
debhelper
dpkg-dev
"
# Unit tests, fixed clocks, the report's schema and metrics parser, the
# package's checks (lintian, file, the textfile collector's folder), the
# monitoring test (promtool, prometheus, the node exporter), the manual pages (groff, man, col) and the completions.
test="
libgtest-dev
libgmock-dev
faketime
python3-prometheus-client
python3-jsonschema
lintian
file
prometheus
prometheus-node-exporter
groff-base
man-db
bsdextrautils
bash-completion
"

case "${1:-test}" in
    build) packages=$build ;;
    demo) packages="$build $demo" ;;
    package) packages="$build $package" ;;
    test) packages="$build $demo $package $test" ;;
    *) echo "usage: $0 [build|demo|package|test]"; exit 2 ;;
esac

missing=""
for p in $packages; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

echo "Installing missing packages:$missing"
if [ "$(id -u)" -eq 0 ]; then
    apt_get="apt-get"
else
    apt_get="sudo apt-get"
fi
$apt_get update -qq
DEBIAN_FRONTEND=noninteractive $apt_get install -y -qq --no-install-recommends $missing
