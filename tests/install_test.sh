#!/bin/bash
# Installs into a temporary prefix and builds the Debian package; checks the
# files each holds. Usage: install_test.sh BUILD_DIR
set -u
build=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
check() {
    if eval "$2"; then echo "ok: $1"; else echo "FAILED: $1"; failures=$((failures + 1)); fi
}

cmake --install "$build" --prefix "$tmp/prefix" >"$tmp/install.log" 2>&1
rc=$?
check "install succeeds" '[ $rc -eq 0 ]'
(cd "$tmp/prefix" && find . -type f -o -type l | sort) >"$tmp/installed"
printf '%s\n' ./bin/kelvo ./share/bash-completion/completions/kelvo ./share/man/man1/kelvo.1 \
    >"$tmp/expected"
check "installed files are exactly the tool, its manual page and its completion" \
    'diff -u "$tmp/expected" "$tmp/installed"'
check "installed kelvo runs" \
    '"$tmp/prefix/bin/kelvo" | head -1 | grep -qx "show volume properties or set volume properties of specific space"'

(cd "$build" && cpack -B "$tmp/pkg" >"$tmp/cpack.log" 2>&1)
deb=$(ls "$tmp"/pkg/*.deb 2>/dev/null | head -1)
check "cpack builds a .deb" '[ -n "$deb" ]'
if [ -n "$deb" ]; then
    dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sort >"$tmp/deb-files"
    printf '%s\n' ./usr/bin/kelvo ./usr/share/bash-completion/completions/kelvo \
        ./usr/share/man/man1/kelvo.1 >"$tmp/deb-expected"
    check "package holds exactly the tool, its manual page and its completion" \
        'diff -u "$tmp/deb-expected" "$tmp/deb-files"'
    depends=$(dpkg-deb -f "$deb" Depends)
    check "package depends on coreutils (du)" 'grep -q "coreutils" <<<"$depends"'
    check "package depends on the C++ runtime" 'grep -q "libstdc++6" <<<"$depends"'
    check "package section is admin" '[ "$(dpkg-deb -f "$deb" Section)" = admin ]'
fi
[ "$failures" -eq 0 ]
