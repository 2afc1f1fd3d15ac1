#!/bin/sh
# Installs the Debian packages that building, testing and the demo need and
# that are not there yet (apt-get as root, through sudo otherwise).
set -eu

# The package, manual page and completion tests need dpkg-dev, groff-base,
# man-db and bsdextrautils (col); kelvo-report needs CLI11 and nlohmann/json, its
# tests the Prometheus parser and jsonschema of Debian's python3.
packages="cmake g++ make libgtest-dev libgmock-dev libsqlite3-dev sqlite3 libbenchmark-dev faketime coreutils
          dpkg-dev groff-base man-db bsdextrautils
          libcli11-dev nlohmann-json3-dev python3-prometheus-client python3-jsonschema"

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
