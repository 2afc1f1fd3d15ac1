#!/bin/bash
# Installs into a temporary prefix and builds the Debian packages; checks the
# files each holds, the hardening of the binary and lintian's verdict.
# Usage: install_test.sh BUILD_DIR
set -u
build=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
check() {
    if eval "$2"; then echo "ok: $1"; else echo "FAILED: $1"; failures=$((failures + 1)); fi
}

# The files of the package below /usr, the report's only once it is built.
files="bin/kelvo share/bash-completion/completions/kelvo share/doc/kelvo/changelog.gz
       share/doc/kelvo/copyright share/man/man8/kelvo.8.gz"
[ -x "$build/kelvo-report" ] && files="$files bin/kelvo-report
       share/bash-completion/completions/kelvo-report share/man/man8/kelvo-report.8.gz
       lib/systemd/system/kelvo-report.service lib/systemd/system/kelvo-report.timer"

cmake --install "$build" --prefix "$tmp/prefix" >"$tmp/install.log" 2>&1
rc=$?
check "install succeeds" '[ $rc -eq 0 ]'
(cd "$tmp/prefix" && find . -type f -o -type l | sort) >"$tmp/installed"
printf './%s\n' $files | sort >"$tmp/expected"
check "installed files are the tools, manual pages, completion, units and docs" \
    'diff -u "$tmp/expected" "$tmp/installed"'
check "installed kelvo runs" \
    '"$tmp/prefix/bin/kelvo" | head -1 | grep -qx "show volume properties or set volume properties of specific space"'
# gzip -9n: no name, no time stamp, best compression (header bytes 3 to 8).
for gz in "$tmp"/prefix/share/man/man8/*.gz "$tmp"/prefix/share/doc/kelvo/*.gz; do
    check "${gz##*/} is made with gzip -9n" \
        '[ "$(od -An -tx1 -j3 -N6 "$gz" | tr -d " ")" = 000000000002 ]'
done

(cd "$build" && cpack -B "$tmp/pkg" >"$tmp/cpack.log" 2>&1)
deb=$(ls "$tmp"/pkg/kelvo_*.deb 2>/dev/null | head -1)
ddeb=$(ls "$tmp"/pkg/kelvo-dbgsym_*.ddeb 2>/dev/null | head -1)
check "cpack builds kelvo and kelvo-dbgsym" '[ -n "$deb" ] && [ -n "$ddeb" ]' || { cat "$tmp/cpack.log"; exit 1; }

dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sort >"$tmp/deb-files"
printf './usr/%s\n' $files | sort >"$tmp/deb-expected"
check "package holds the installed files below /usr" 'diff -u "$tmp/deb-expected" "$tmp/deb-files"'
depends=$(dpkg-deb -f "$deb" Depends)
check "depends on the C++ runtime and no essential package" \
    'grep -q "libstdc++6" <<<"$depends" && ! grep -q "coreutils" <<<"$depends"'
check "section admin, extended description names the stand-in library" \
    '[ "$(dpkg-deb -f "$deb" Section)" = admin ] && dpkg-deb -f "$deb" Description | grep -q "stand-in storage"'
version=$(dpkg-deb -f "$deb" Version)
dpkg-deb -x "$deb" "$tmp/root"
check "changelog's last entry is the package version" \
    'zcat "$tmp/root/usr/share/doc/kelvo/changelog.gz" | head -1 | grep -qF "kelvo ($version)"'

# Hardened and stripped; the debug symbols are in kelvo-dbgsym under the
# binary's build id.
bin=$tmp/root/usr/bin/kelvo
check "binary is a stripped PIE with BIND_NOW, relro and fortified calls" \
    'file "$bin" | grep -q "pie executable.*, stripped" &&
     readelf -d "$bin" | grep -q BIND_NOW && readelf -lW "$bin" | grep -q GNU_RELRO &&
     readelf --dyn-syms -W "$bin" | grep -q "__printf_chk"'
build_id=$(readelf -n "$bin" | sed -n 's/.*Build ID: \([0-9a-f]*\)/\1/p')
check "dbgsym holds the debug file of that build id" \
    'dpkg-deb -c "$ddeb" | grep "usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug" >/dev/null'

if command -v lintian >/dev/null; then
    check "lintian finds no error and no warning" 'lintian "$deb" "$ddeb" 2>/dev/null | tee "$tmp/lintian" | { ! grep -q "^[EW]:"; } || { cat "$tmp/lintian"; false; }'
else
    echo "SKIPPED: lintian is not installed (apt-get install lintian)"
fi
[ "$failures" -eq 0 ]
