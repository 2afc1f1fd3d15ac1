#!/bin/sh
# Installs the Debian packages that building, testing and the demo need and
# that are not there yet (apt-get as root, through sudo otherwise).
set -eu

# Build: cmake g++ make libsqlite3-dev, and for kelvo-report libcli11-dev
# nlohmann-json3-dev; demo: sqlite3; tests: libgtest-dev libgmock-dev faketime,
# the report's checks python3-prometheus-client python3-jsonschema. The package
# test needs dpkg-dev, file (CPack) and lintian, the manual page test
# groff-base, man-db and bsdextrautils (col), the completion test
# bash-completion, the monitoring test prometheus (promtool) and
# prometheus-node-exporter.
packages="cmake g++ make libsqlite3-dev libcli11-dev nlohmann-json3-dev sqlite3
          libgtest-dev libgmock-dev faketime python3-prometheus-client python3-jsonschema
          dpkg-dev file lintian groff-base man-db bsdextrautils bash-completion
          prometheus prometheus-node-exporter"

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
