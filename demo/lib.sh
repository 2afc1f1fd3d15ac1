# Helpers for building the demo recording server; sourced by run_demo.sh and
# by the files in seed/ and steps/. Needs ROOT, DB and KELVO set.

sql() { sqlite3 "$DB" "$@"; }

# add_space UUID NAME GROUP_UUID TOTAL_MB USED_MB STATUS SPARE_STATUS
add_space() {
    sql "INSERT INTO spaces VALUES ('$1', '$2', '$3', $4, $5, $6, $7);"
}

# add_volume UUID GROUP_UUID PATH VOLUME_NO TYPE STATE TOTAL_MB USED_MB
# PATH is below ROOT; the FSU folder and its preallocate folder are made.
add_volume() {
    sql "INSERT INTO volumes VALUES ('$1', '$2', '$ROOT/$3', $4, $5, $6, $7, $8, 'label of $3');"
    mkdir -p "$(fsu_folder "$3" "$1")/preallocate"
}

# fsu_folder PATH UUID: the volume's FSU folder (uuid characters 4 to 35).
fsu_folder() { printf '%s/%s/FSU_%s' "$ROOT" "$1" "$(printf '%s' "$2" | cut -c5-36)"; }

add_channel() { sql "INSERT INTO channels VALUES ($1, '$2');"; }

# hour_folder FSU SID RECORD_TYPE STREAM EPOCH_SECONDS: local-time hour folder.
hour_folder() { printf '%s/%s/%s/%s/%s' "$1" "$2" "$3" "$4" "$(date -d "@$5" +%Y%m%d/%H)"; }

# Tells in a sentence or two what the next command shows.
say() { printf '%s\n' "$*" | fold -s -w 76 | sed 's/ *$//; s/^/# /'; }

# Prints the command line and runs kelvo with it.
show() {
    printf '$ kelvo %s\n' "$*"
    "$KELVO" "$@"
    printf '\n'
}

NOW=$(date +%s)
HOUR=3600
DAY=86400
