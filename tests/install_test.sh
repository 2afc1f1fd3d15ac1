#!/bin/bash
# The Debian packages, built from a clean copy of the sources into PACKAGE_DIR:
# their files, the programs' hardening, lintian's verdict. With --lifecycle, as
# root, that package on this machine: installed, run, removed, purged.
# Usage: install_test.sh SOURCE_DIR PACKAGE_DIR [--lifecycle]
set -u
export TZ=UTC
src=$(cd "$1" && pwd) out=$2 tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
check() { if eval "$2"; then echo "ok: $1"; else echo "FAILED: $1"; failures=$((failures + 1)); fi; }

if [ "${3:-}" != --lifecycle ]; then
    rm -rf "$out"
    JOBS=1 "$src/scripts/package.sh" "$src" "$out" >"$tmp/build.log" 2>&1 ||
        { tail -40 "$tmp/build.log"; echo "FAILED: dpkg-buildpackage"; exit 1; }
    deb=$(echo "$out"/kelvo_*.deb) ddeb=$(echo "$out"/kelvo-dbgsym_*.deb)
    dpkg-deb -x "$deb" "$tmp/root"
    check "the package holds the programs, their pages, completions and units, nothing else" \
        'diff <(cd "$tmp/root" && find . ! -type d | sort) <(printf "%s\n" ./usr/bin/kelvo{,-report} \
             ./lib/systemd/system/kelvo-report.{service,timer} ./usr/share/bash-completion/completions/kelvo{,-report} \
             ./usr/share/doc/kelvo/{changelog.gz,copyright,examples/kelvo.rules.yml} ./usr/share/man/man8/kelvo{,-report}.8.gz | sort)'
    check "the programs' version is the package's" '[ "$("$tmp/root/usr/bin/kelvo-report" --version)" = "kelvo-report $(dpkg-deb -f "$deb" Version)" ]'
    for bin in "$tmp"/root/usr/bin/*; do
        id=$(readelf -n "$bin" | sed -n 's/.*Build ID: //p')
        check "${bin##*/}: stripped PIE, BIND_NOW, relro, fortified calls, debug file in kelvo-dbgsym" \
            'file "$bin" | grep -q "pie executable.*, stripped" && readelf -d "$bin" | grep -q BIND_NOW &&
             readelf -lW "$bin" | grep -q GNU_RELRO && readelf --dyn-syms -W "$bin" | grep -qE "__(printf|snprintf)_chk" &&
             dpkg-deb -c "$ddeb" | grep -q "/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug$"'
    done
    check "every source file is built with -O2 and _FORTIFY_SOURCE" '[ -n "$(grep -E " -c \S*/src/" "$tmp/build.log")" ] &&
        ! grep -E " -c \S*/src/" "$tmp/build.log" | awk "!/ -O2 .*-D_FORTIFY_SOURCE=2/ || / -O0/" | grep -q .'
    check "lintian --pedantic: no error, no warning" 'lintian --pedantic --display-info --fail-on error,warning "$deb" "$ddeb" >"$tmp/lintian" 2>&1'
    cat "$tmp/lintian"
    exit $((failures != 0))
fi

[ "$(id -u)" -eq 0 ] || { echo "SKIPPED: installing and purging the package needs root"; exit 77; }
dpkg-query -W kelvo >/dev/null 2>&1 && { echo "SKIPPED: kelvo is installed here already; left alone"; exit 77; }
apt_get() { DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=300 "$@" >>"$tmp/apt.log" 2>&1; }
files_named_kelvo() { find /etc /usr /var /opt /srv -xdev -path /var/tmp -prune -o -name '*kelvo*' -print | sort; }
files_named_kelvo >"$tmp/before"
trap 'dpkg-query -W kelvo >/dev/null 2>&1 && apt_get purge kelvo; rm -rf "$tmp"' EXIT
check "apt-get installs the package" 'apt_get install --no-install-recommends "$(echo "$out"/kelvo_*.deb)"' || { cat "$tmp/apt.log"; exit 1; }
export ORN_STORAGE_DB=$tmp/server.db
{ cat "$src/src/storage_sim/schema.sql"; echo "INSERT INTO spaces VALUES ('$(printf %036d 1)', 'Recording',
  '$(printf %036d 2)', 1000, 500, 0, 0);"; } | sqlite3 "$ORN_STORAGE_DB"
check "kelvo spacelist" \
    '[ "$(/usr/bin/kelvo spacelist | sed -n 2p)" = "[01] [Recording], total size: 0 GB, used: 500 MB, use 50.00% [Normal                   ]" ]'
check "kelvo-report --format=check" '/usr/bin/kelvo-report --format=check | grep -q "^KELVO OK - 1 spaces, "'
command=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/kelvo-report.service) metrics=${command##*--output=}
check "the service's command writes the metrics file" '$command && grep -qx "kelvo_report_success 1" "$metrics"'
touch "${metrics%/*}/.${metrics##*/}.Ab12Cd"  # left by a run that was stopped
link=/etc/systemd/system/timers.target.wants/kelvo-report.timer
check "the timer is not enabled on install" '[ ! -L "$link" ]'
systemctl enable kelvo-report.timer >>"$tmp/apt.log" 2>&1
check "remove disables the timer and keeps the metrics file" \
    '[ -L "$link" ] && apt_get remove kelvo && [ ! -L "$link" ] && [ ! -e /usr/bin/kelvo ] && [ -e "$metrics" ]'
mkdir "${metrics%/*}/.${metrics##*/}.Dir1st"  # no file of the package: purge leaves it
check "purge leaves no file of the package, and nothing else" 'apt_get purge kelvo &&
    rmdir "${metrics%/*}/.${metrics##*/}.Dir1st" && diff "$tmp/before" <(files_named_kelvo)'
[ "$failures" -eq 0 ] || { cat "$tmp/apt.log"; exit 1; }
