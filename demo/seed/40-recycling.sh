# Recycling: a small backup volume whose space leaks (2048 MB, 1900 MB used,
# 20 MB held in reserve), and hour folders of the last 30 days that come
# before the oldest period their stream lists, next to folders that stay.
V_BAK2=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b07
add_volume "$V_BAK2" "$G_BACKUP" share/Backup2 7 0 0 2048 1900
head -c $((20 * 1024 * 1024)) /dev/zero > "$(fsu_folder share/Backup2 "$V_BAK2")/preallocate/reserve"

rc_sid() { printf 'c4a1e0d2b3f4a5b6c7d8e9f0a1b2c3%02d' "$1"; }

# rc_time DAYS_AGO HOUR: seconds of that hour (UTC), DAYS_AGO days back.
rc_time() { echo $(( NOW / DAY * DAY - $1 * DAY + $2 * HOUR )); }

# rc_folder VOLUME_PATH VOLUME_UUID CH TYPE STREAM DAYS_AGO HOUR: an hour
# folder with a recording file in it.
rc_folder() {
    local dir
    dir=$(hour_folder "$(fsu_folder "$1" "$2")" "$(rc_sid "$3")" "$4" "$5" "$(rc_time "$6" "$7")")
    mkdir -p "$dir"
    printf 'frames\n' > "$dir/000001.rec"
}

# rc_period CH TYPE STREAM DAYS_AGO HOUR: a one-hour period filed under a
# storage id of the new volume, with its first hour folder there.
rc_period() {
    local start
    start=$(rc_time "$4" "$5")
    rc_folder share/Backup2 "$V_BAK2" "$1" "$2" "$3" "$4" "$5"
    sql "INSERT INTO periods VALUES ($1, $2, $3, ${start}000, $(( start + HOUR - 1 ))999,
         '$(printf '5a%02d07%026d' "$1" 0)', 'rc-$1-$2-$3-$start', 1800);"
}

# Channel 0 (periods from 3 days ago on): leftovers in normal stream 1 on
# Rec1 and Backup1, and in normal stream 3, which lists no period at all.
rc_folder share/Rec1 "$V_REC1" 0 4 1 10 14
rc_folder share/Rec1 "$V_REC1" 0 4 1 10 15
rc_folder share/Backup1 "$V_BAK1" 0 4 1 12 9
rc_folder share/Rec2 "$V_REC2" 0 4 3 6 20
rc_folder share/Rec1 "$V_REC1" 0 4 1 45 14     # older than 30 days: stays

# Channels 4 and 5 on the leaking volume.
rc_period 4 4 1 5 6
rc_folder share/Backup2 "$V_BAK2" 4 4 1 12 6
rc_folder share/Backup2 "$V_BAK2" 4 4 1 12 7
rc_folder share/Backup2 "$V_BAK2" 4 4 1 20 22
rc_folder share/Backup2 "$V_BAK2" 4 4 1 40 6   # older than 30 days: stays
rc_folder share/Backup2 "$V_BAK2" 4 4 3 10 6   # a stream without periods: stays
rc_folder share/Backup2 "$V_BAK2" 5 1 1 8 3    # before channel 5's alarm of yesterday
