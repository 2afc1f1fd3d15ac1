#!/usr/bin/env bash
# Scale benchmark: builds simulated servers at 1x, 4x and 16x the base number
# of channels (the same periods per stream at every size), runs the commands
# on each, and prints wall time, peak resident memory, growth factors and the
# targets with whether they hold. A server with the base channels and 16x
# the periods per stream shows memory following the largest query; the 4x
# server with and without the recorder's zone row shows that row's cost.
#
#   bench/run_bench.sh BUILD_DIR [WORK_DIR]
#
# BUILD_DIR holds kelvo, kelvo-report, bench/gen_server and bench/measure. Sizes and data
# shape come from the environment:
#   BENCH_BASE_CHANNELS (16)  channels at 1x; 16x must stay within 256
#   BENCH_PERIODS (1024)      periods per channel, record type and stream
#   BENCH_VOLUMES (8)         volumes, 1 to 32
#   BENCH_NULL_SHARE (0.01)   share of periods with a null storage id
#   BENCH_LEAKING (2)         volumes that autoclean finds leaking
#   BENCH_REPEAT (3)          runs per command at 1x, 4x and 16x, the fastest
#                             counts; recoverid runs once (each run needs a
#                             fresh copy and its wall time is mostly one disk
#                             sync per repaired period), and so does q16x
#   BENCH_KEEP (unset)        keep the generated servers
set -euo pipefail

build=$(cd "${1:?usage: run_bench.sh BUILD_DIR [WORK_DIR]}" && pwd)
work=${2:-$build/bench-data}
here=$(cd "$(dirname "$0")" && pwd)
schema=$here/../src/storage_sim/schema.sql

base=${BENCH_BASE_CHANNELS:-16}
periods=${BENCH_PERIODS:-1024}
volumes=${BENCH_VOLUMES:-8}
null_share=${BENCH_NULL_SHARE:-0.01}
leaking=${BENCH_LEAKING:-2}
repeat=${BENCH_REPEAT:-3}

kelvo=$build/kelvo
report=$build/kelvo-report
gen=$build/bench/gen_server
measure=$build/bench/measure
for tool in "$kelvo" "$report" "$gen" "$measure" sqlite3; do
    command -v "$tool" >/dev/null || { echo "missing: $tool" >&2; exit 1; }
done

export TZ=UTC
unset ORN_LOG_FILE
rm -rf "$work"
mkdir -p "$work"
results=$work/results.txt
: >"$results"

# run NAME SIZE DB command... : appends "NAME|SIZE|wall|peak kB|cpu" with the
# fastest wall time and the largest peak of the runs. A command that writes
# to stderr or exits non-zero stops the benchmark.
run() {
    local name=$1 size=$2 db=$3
    shift 3
    local runs=$repeat best="" best_cpu="" peak=0 i line secs kb code cpu
    [[ $size == q* ]] && runs=1
    for ((i = 0; i < runs; i++)); do
        [[ $name == "recoverid -1" ]] && cp "$work/$size/storage.db" "$db"
        line=$(ORN_STORAGE_DB=$db "$measure" "$work/out" "$work/err" "$@")
        read -r secs kb code cpu <<<"$line"
        if [[ $code != 0 || -s $work/err ]]; then
            echo "$name at $size: exit $code, stderr:" >&2
            head -c 2000 "$work/err" >&2
            exit 1
        fi
        if [[ -z $best ]] || awk -v a="$secs" -v b="$best" 'BEGIN { exit !(a < b) }'; then
            best=$secs
            best_cpu=$cpu
        fi
        ((kb > peak)) && peak=$kb
    done
    echo "$name|$size|$best|$peak|$best_cpu" >>"$results"
}

# The floor of nullid -1: the sqlite3 shell reading the rows nullid asks the
# library for, with the same queries in the same order.
floor_script() {
    local db=$1 now_ms=$2
    sqlite3 "$db" "
        WITH types(record_type, pass) AS (VALUES (4, 0), (1, 1)),
             streams(stream) AS (VALUES (1), (2), (3), (4))
        SELECT 'SELECT stream, start_ms, end_ms, storage_id, period_key FROM periods '
            || 'WHERE channel_id = ' || channel_id || ' AND record_type = ' || record_type
            || ' AND stream = ' || stream || ' AND start_ms <= $now_ms AND end_ms >= 0 '
            || 'ORDER BY rowid;'
        FROM channels, types, streams
        WHERE sid <> '99999999999999999999999999999999'
        ORDER BY channels.rowid, pass, stream;"
}

# The first number of a total line, to check the run did the work.
total_of() { sed -n 's/^Total have \[\([0-9]*\)\].*/\1/p' "$work/out"; }

# bench_size SIZE CHANNELS PERIODS_PER_STREAM
bench_size() {
    local size=$1 channels=$2 per_stream=$3 dir=$work/$1 made nulls
    made=$("$gen" --schema "$schema" --db "$dir/storage.db" --root "$dir" \
        --channels "$channels" --volumes "$volumes" --periods "$per_stream" \
        --null-share "$null_share" --leaking "$leaking" --seed "$channels$per_stream")
    echo "generated $size: $made"
    nulls=${made#*, }
    nulls=${nulls%% *}
    local db=$dir/storage.db now_ms=$(($(date +%s) * 1000 + 3600000))
    if [[ $size != q* ]]; then
        floor_script "$db" "$now_ms" >"$dir/floor.sql"
        run "sqlite3 floor" "$size" "$db" sqlite3 "$db" ".read $dir/floor.sql"
    fi
    run "nullid -1" "$size" "$db" "$kelvo" nullid -1
    [[ $(total_of) == "$nulls" ]] || echo "WARNING: nullid -1 listed $(total_of) of $nulls" >&2
    run "recoverid -1" "$size" "$dir/copy.db" "$kelvo" recoverid -1
    [[ $(total_of) == "$nulls" ]] || echo "WARNING: recoverid -1 saw $(total_of) of $nulls" >&2
    # The generator makes one space: this is spaceinfo of every space.
    run "spaceinfo" "$size" "$db" "$kelvo" spaceinfo Space0
    run "kelvo-report" "$size" "$db" "$report" --format=json
    [[ $(grep -o '"null_storage_ids":[0-9]*' "$work/out" | awk -F: '{ n += $2 } END { print n + 0 }') == "$nulls" ]] ||
        echo "WARNING: kelvo-report counted other null storage ids than $nulls" >&2
    # Series of the metrics file: at most 5 per channel entry beside those of spaces and volumes.
    local entries series own
    entries=$(grep -c '"channel_id":' "$work/out")
    ORN_STORAGE_DB=$db "$report" --format=prometheus >"$work/metrics"
    series=$(grep -vc '^#' "$work/metrics")
    own=$(grep -c '^kelvo_channel_' "$work/metrics")
    echo "metrics $size: $series series, $own of them for $entries channel entries" \
        "($(awk -v s="$own" -v e="$entries" 'BEGIN { printf "%.2f a channel entry, at most 5: %s",
            s / (e ? e : 1), s <= 5 * e ? "holds" : "FAILS" }'))"
    run "voluse -1" "$size" "$db" "$kelvo" voluse -1
    # The plans first: the commands then remove what they list.
    run "plan volclean" "$size" "$db" "$report" --plan=volclean:-1
    run "volclean -1" "$size" "$db" "$kelvo" volclean -1
    run "plan autoclean" "$size" "$db" "$report" --plan=autoclean
    run "autoclean" "$size" "$db" "$kelvo" autoclean
    [[ -n ${BENCH_KEEP:-} ]] || rm -rf "$dir"
}

echo "Machine: $(nproc) cores, $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)," \
    "$(awk '/MemTotal/ { printf "%.0f GB", $2 / 1048576 }' /proc/meminfo) RAM, $(uname -sr)," \
    "SQLite $(sqlite3 --version | cut -d' ' -f1)"
echo "Data: $periods periods per channel, record type and stream (8 streams), $volumes volumes," \
    "null share $null_share, $leaking leaking; fastest of $repeat runs (q16x: 1)"
echo

# The recorder's zone row: the 4x server without it (local times in the
# caller's UTC) and with a zone other than the caller's, for the commands
# that read local times; fastest of 5 runs each.
bench_zone() {
    local dir=$work/zone db=$work/zone/storage.db zone=Asia/Kolkata name
    "$gen" --schema "$schema" --db "$db" --root "$dir" --channels $((base * 4)) \
        --volumes "$volumes" --periods "$periods" --null-share "$null_share" \
        --leaking "$leaking" --seed 7 >/dev/null
    for name in "spaceinfo" "kelvo-report"; do
        local args=("$kelvo" spaceinfo Space0)
        [[ $name == kelvo-report ]] && args=("$report" --format=json --no-du)
        sqlite3 "$db" "DELETE FROM settings WHERE key = 'timezone'"
        results=$work/zone.txt repeat=5 run "$name" without "$db" "${args[@]}"
        sqlite3 "$db" "INSERT INTO settings VALUES ('timezone', '$zone')"
        results=$work/zone.txt repeat=5 run "$name" with "$db" "${args[@]}"
    done
    awk -F'|' -v zone=$zone '{ secs[$1 "|" $2] = $3; if ($2 == "with") names[++n] = $1 }
        END { for (i = 1; i <= n; i++) { c = names[i]; a = secs[c "|without"]; b = secs[c "|with"]
              r = 100 * (b - a) / a
              printf "  %-13s zone row %s (caller UTC) %.3f s, none %.3f s: %+.1f%% (target <= 5%%): %s\n",
                     c, zone, b, a, r, r <= 5 ? "holds" : "FAILS" } }' "$work/zone.txt" >"$work/zone-figures.txt"
    [[ -n ${BENCH_KEEP:-} ]] || rm -rf "$dir"
}

bench_size 1x "$base" "$periods"
bench_size 4x $((base * 4)) "$periods"
bench_size 16x $((base * 16)) "$periods"
bench_size q16x "$base" $((periods * 16))
bench_zone
echo

awk -F'|' -v base="$base" -v periods="$periods" '
    { key = $1 "|" $2; secs[key] = $3; kb[key] = $4; cpu[key] = $5
      if (!($1 in seen)) { seen[$1] = 1; order[++n] = $1 } }
    function verdict(ok) { return ok ? "holds" : "FAILS" }
    END {
        split("1x 4x 16x q16x", sizes, " ")
        np["1x"] = base * periods * 8; np["4x"] = np["1x"] * 4; np["16x"] = np["1x"] * 16
        np["q16x"] = np["16x"]
        big["1x"] = periods; big["4x"] = periods; big["16x"] = periods
        big["q16x"] = periods * 16
        printf "%-14s %5s %9s %8s %8s %8s %8s %7s\n", "command", "size", "periods",
               "largest", "wall s", "cpu s", "peak MB", "growth"
        for (i = 1; i <= n; i++) {
            c = order[i]
            for (j = 1; j <= 4; j++) {
                s = sizes[j]
                if (!((c "|" s) in secs)) continue
                g = ""
                if (s == "4x") g = sprintf("%.2fx", secs[c "|4x"] / secs[c "|1x"])
                if (s == "16x") g = sprintf("%.2fx", secs[c "|16x"] / secs[c "|4x"])
                printf "%-14s %5s %9d %8d %8.3f %8.3f %8.1f %7s\n", (j == 1 ? c : ""), s,
                       np[s], big[s], secs[c "|" s], cpu[c "|" s], kb[c "|" s] / 1024, g
            }
        }
        print "(size 1x/4x/16x: channels x1/x4/x16; q16x: 1x channels with 16x periods per"
        print " stream; largest: periods in the largest single query; growth: wall time"
        print " against the size before; recoverid: wall time is mostly the disk sync of"
        print " each repaired period, cpu time is the work)"
        print ""
        print "Targets"
        all = 1
        for (i = 1; i <= n; i++) {
            c = order[i]
            if (c == "sqlite3 floor") continue
            r = secs[c "|16x"] / secs[c "|1x"]
            ok = r <= 20; all = all && ok
            printf "  %-13s time 16x / 1x = %5.2f (data x16, target <= 20): %s\n", c, r,
                   verdict(ok)
        }
        for (j = 1; j <= 3; j++) {
            s = sizes[j]
            r = secs["nullid -1|" s] / secs["sqlite3 floor|" s]
            ok = r <= 1.5; all = all && ok
            printf "  nullid -1     %3s: %.3f s, sqlite3 %.3f s: %.2f x floor (target <= 1.5): %s\n",
                   s, secs["nullid -1|" s], secs["sqlite3 floor|" s], r, verdict(ok)
        }
        r = secs["kelvo-report|16x"] / (secs["nullid -1|16x"] + secs["spaceinfo|16x"])
        ok = r <= 1.2; all = all && ok
        printf "  kelvo-report  16x: %.3f s, nullid -1 + spaceinfo %.3f s: %.2f x (target <= 1.2): %s\n",
               secs["kelvo-report|16x"], secs["nullid -1|16x"] + secs["spaceinfo|16x"], r, verdict(ok)
        r = secs["plan volclean|16x"] / secs["volclean -1|16x"]
        ok = r <= 2; all = all && ok
        printf "  plan volclean 16x: %.3f s, volclean -1 %.3f s: %.2f x (target <= 2): %s\n",
               secs["plan volclean|16x"], secs["volclean -1|16x"], r, verdict(ok)
        r = secs["plan autoclean|16x"] / secs["autoclean|16x"]
        printf "  plan autoclean 16x: %.3f s, autoclean %.3f s: %.2f x\n",
               secs["plan autoclean|16x"], secs["autoclean|16x"], r
        # The largest single query is the same at 1x and 16x, so peak memory
        # must stay flat while the periods grow x16; at q16x the largest query
        # grows x16 and memory may follow it.
        for (i = 1; i <= n; i++) {
            c = order[i]
            if (c == "sqlite3 floor") continue
            r = kb[c "|16x"] / kb[c "|1x"]
            q = kb[c "|q16x"] / kb[c "|1x"]
            ok = r <= 1.5; all = all && ok
            printf "  %-13s peak memory 16x / 1x = %.2f (periods x16, largest query x1, target <= 1.5): %s; q16x / 1x = %.2f (largest query x16)\n",
                   c, r, verdict(ok), q
        }
        while ((getline line < zone_figures) > 0) { print line; all = all && line !~ /FAILS/ }
        print ""
        print (all ? "All targets hold." : "Some targets FAIL.")
    }' zone_figures="$work/zone-figures.txt" "$results"
