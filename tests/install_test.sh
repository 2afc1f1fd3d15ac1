#!/bin/bash
# Installs into a temporary prefix and builds the Debian packages: what they
# hold, the binary's hardening, lintian's verdict. Usage: install_test.sh BUILD_DIR
set -u
build=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
check() { if eval "$2"; then echo "ok: $1"; else echo "FAILED: $1"; failures=$((failures + 1)); fi; }

check "install succeeds" 'cmake --install "$build" --prefix "$tmp/prefix" >"$tmp/install.log" 2>&1'
check "installed kelvo runs" \
    '"$tmp/prefix/bin/kelvo" | head -1 | grep -qx "show volume properties or set volume properties of specific space"'
for gz in "$tmp"/prefix/share/man/man8/*.gz "$tmp"/prefix/share/doc/kelvo/*.gz; do  # no name, no time
    check "${gz##*/} is made with gzip -9n" '[ "$(od -An -tx1 -j3 -N6 "$gz" | tr -d " ")" = 000000000002 ]'
done

(cd "$build" && cpack -B "$tmp/pkg" >"$tmp/cpack.log" 2>&1)
deb=$(ls "$tmp"/pkg/kelvo_*.deb 2>/dev/null | head -1)
ddeb=$(ls "$tmp"/pkg/kelvo-dbgsym_*.ddeb 2>/dev/null | head -1)
check "cpack builds kelvo and kelvo-dbgsym" '[ -n "$deb" ] && [ -n "$ddeb" ]' || { cat "$tmp/cpack.log"; exit 1; }
dpkg-deb -x "$deb" "$tmp/root"
check "the package holds what the prefix holds" \
    'diff <(cd "$tmp/prefix" && find . | sort) <(cd "$tmp/root/usr" && find . | sort)'
check "depends on the C++ runtime and no essential package" \
    'dpkg-deb -f "$deb" Depends | grep -q "libstdc++6" && ! dpkg-deb -f "$deb" Depends | grep -q coreutils'
check "changelog's last entry is the package version" \
    'zcat "$tmp/root/usr/share/doc/kelvo/changelog.gz" | head -1 | grep -qF "kelvo ($(dpkg-deb -f "$deb" Version))"'
bin=$tmp/root/usr/bin/kelvo
check "binary is a stripped PIE with BIND_NOW, relro and fortified calls" \
    'file "$bin" | grep -q "pie executable.*, stripped" && readelf -d "$bin" | grep -q BIND_NOW &&
     readelf -lW "$bin" | grep -q GNU_RELRO && readelf --dyn-syms -W "$bin" | grep -q "__printf_chk"'
id=$(readelf -n "$bin" | sed -n 's/.*Build ID: \([0-9a-f]*\)/\1/p')
check "dbgsym holds the debug file of that build id" \
    'dpkg-deb -c "$ddeb" | grep "usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" >/dev/null'
if command -v lintian >/dev/null; then
    check "lintian finds no error and no warning" \
        'lintian "$deb" "$ddeb" >"$tmp/lintian" 2>&1; ! grep "^[EW]:" "$tmp/lintian"'
else
    echo "SKIPPED: lintian is not installed (apt-get install lintian)"
fi
[ "$failures" -eq 0 ]
