#!/bin/sh
# Builds the Debian packages with dpkg-buildpackage in a clean copy of the
# sources (the files git tracks or would track, as they are in the work tree)
# and moves the results into OUT_DIR. Usage: package.sh SOURCE_DIR OUT_DIR
set -eu
src=$(cd "$1" && pwd)
mkdir -p "$2"
out=$(cd "$2" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

tree="$tmp/kelvo-$(dpkg-parsechangelog -l "$src/debian/changelog" -SVersion)"
mkdir "$tree"
cd "$src"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        tar --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$tree"
else
    tar --exclude=./build -cf - . | tar -xf - -C "$tree"
fi
cd "$tree"
DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=${JOBS:-2}}" dpkg-buildpackage -us -uc -b
mv "$tmp"/*.deb "$tmp"/*.buildinfo "$tmp"/*.changes "$out"/
ls "$out"/*.deb
