# Recording statistics: every period carries a size, and channels 0 and 1
# have storage-id profiles and recordings in the Recording space.

# stat_period CHANNEL_ID RECORD_TYPE STORAGE_ID DAYS_AGO HOURS KEY
stat_period() {
    local start=$(( (NOW - $4 * DAY - 6 * HOUR) * 1000 ))
    sql "INSERT INTO periods VALUES ($1, $2, 1, $start, $(( start + $5 * HOUR * 1000 - 1 )),
         '$3', 'stat-$6', 0);"
}

# stat_channel CHANNEL_ID: profiles on both Recording volumes unless the
# channel has some there already, and a few days of recordings unless the
# channel recorded under one of them.
stat_channel() {
    local ch=$1 sid n vol ids first last
    sid=$(printf 'c4a1e0d2b3f4a5b6c7d8e9f0a1b2c3%02d' "$ch")
    if [ "$(sql "SELECT count(*) FROM profiles
                 WHERE channel_id = $ch AND space_uuid = '$S_MAIN';")" = 0 ]; then
        n=1
        for vol in "$V_REC1" "$V_REC2"; do
            sql "INSERT INTO profiles VALUES ($ch, '$sid', '$S_MAIN', '$G_MAIN', '$vol',
                 '$(printf 'e5d4c3b2a1f0e9d8c7b6a5f4e3d2%02d%02d' "$ch" "$n")');"
            n=$((n + 1))
        done
    fi
    # Period storage ids may be zero-padded BLOBs.
    if [ "$(sql "SELECT count(*) FROM periods p JOIN profiles f
                 ON f.channel_id = p.channel_id AND f.space_uuid = '$S_MAIN'
                 AND rtrim(CAST(p.storage_id AS TEXT), char(0)) = f.storage_id
                 WHERE p.channel_id = $ch;")" != 0 ]; then
        return 0
    fi
    ids=$(sql "SELECT storage_id FROM profiles
               WHERE channel_id = $ch AND space_uuid = '$S_MAIN' ORDER BY rowid;")
    first=$(printf '%s\n' "$ids" | sed -n 1p)
    last=$(printf '%s\n' "$ids" | sed -n '$p')
    stat_period "$ch" 4 "$first" 3 $((10 - 4 * ch)) "$ch-nr-3"
    stat_period "$ch" 4 "$first" 2 12 "$ch-nr-2"
    stat_period "$ch" 4 "$last" 1 $((8 + 3 * ch)) "$ch-nr-1"
    stat_period "$ch" 1 "$last" $((2 - ch)) 1 "$ch-ar-$ch"
}

stat_channel 0
stat_channel 1

# Sizes by duration, about 2 GB an hour, for every period still without one.
sql "UPDATE periods SET size_mb = max(1, (end_ms - start_ms + 900) / 1800) WHERE size_mb = 0;"
