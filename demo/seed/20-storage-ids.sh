# Recordings of the last days: periods, storage-id profiles and hour folders.
# Some periods have lost their storage id; recoverid finds their first hour
# on disk and writes the channel's storage id for that volume back. Two of
# them cannot be repaired: one has no folder on any volume, the other lies on
# the archive volume, where its channel has no profile.

ids_sid() { printf 'c4a1e0d2b3f4a5b6c7d8e9f0a1b2c3%02d' "$1"; }

# ids_storage_id CH VOLUME_NO: the storage id of a channel on one volume.
ids_storage_id() { printf '5a%02d%02d%026d' "$1" "$2" 0; }

# ids_volume NAME: sets IDS_SPACE, IDS_GROUP, IDS_UUID, IDS_PATH, IDS_NO.
ids_volume() {
    case "$1" in
        rec1) IDS_SPACE=$S_MAIN IDS_GROUP=$G_MAIN IDS_UUID=$V_REC1
              IDS_PATH=share/Rec1 IDS_NO=1 ;;
        rec2) IDS_SPACE=$S_MAIN IDS_GROUP=$G_MAIN IDS_UUID=$V_REC2
              IDS_PATH=share/Rec2 IDS_NO=2 ;;
        bak1) IDS_SPACE=$S_BACKUP IDS_GROUP=$G_BACKUP IDS_UUID=$V_BAK1
              IDS_PATH=share/Backup1 IDS_NO=3 ;;
        arc1) IDS_SPACE=$S_ARCHIVE IDS_GROUP=$G_ARCHIVE IDS_UUID=$V_ARC1
              IDS_PATH=mnt/archive0 IDS_NO=4 ;;
    esac
}

# ids_profile CH VOLUME: the channel records on that volume.
ids_profile() {
    ids_volume "$2"
    sql "INSERT INTO profiles VALUES ($1, '$(ids_sid "$1")', '$IDS_SPACE', '$IDS_GROUP',
         '$IDS_UUID', '$(ids_storage_id "$1" "$IDS_NO")');"
}

# ids_period CH TYPE STREAM DAYS_AGO HOUR MINUTES VOLUME [null]
# A period starting at HOUR o'clock (UTC) DAYS_AGO days back, with the hour
# folder of its start on VOLUME (none: on no volume). Streams 1 to 4 record
# about 30, 8, 5 and 2 MB a minute.
ids_period() {
    local start=$(( NOW / DAY * DAY - $4 * DAY + $5 * HOUR ))
    local end=$(( start + $6 * 60 - 1 ))
    local rate
    case "$3" in 1) rate=30 ;; 2) rate=8 ;; 3) rate=5 ;; *) rate=2 ;; esac
    local storage_id=NULL
    if [ "$7" != none ]; then
        ids_volume "$7"
        local fsu
        fsu=$(fsu_folder "$IDS_PATH" "$IDS_UUID")
        mkdir -p "$(hour_folder "$fsu" "$(ids_sid "$1")" "$2" "$3" "$start")"
        [ "${8:-}" = null ] || storage_id="'$(ids_storage_id "$1" "$IDS_NO")'"
    fi
    sql "INSERT INTO periods VALUES ($1, $2, $3, ${start}000, ${end}999, $storage_id,
         'ch$1-$2-$3-$start', $(( $6 * rate )));"
}

for ch in 0 1 2 3 7; do ids_profile "$ch" rec1; ids_profile "$ch" rec2; done
for ch in 4 5; do ids_profile "$ch" bak1; done

ids_period 0 4 1 3 8 60 rec1
ids_period 0 4 1 2 8 60 rec1
ids_period 0 4 1 1 8 60 rec2
ids_period 0 4 2 2 8 60 rec2 null
ids_period 0 1 1 1 14 10 rec1 null
ids_period 1 4 1 2 9 60 rec1 null
ids_period 1 4 1 1 9 60 rec1
ids_period 1 4 3 1 9 45 rec2 null
ids_period 2 4 1 2 10 60 rec2
ids_period 2 1 1 1 16 15 rec2
ids_period 3 4 1 3 7 60 none null
ids_period 3 4 1 2 7 60 rec1
ids_period 3 1 2 1 21 20 rec2 null
ids_period 4 4 1 2 6 60 bak1
ids_period 4 4 2 1 6 60 bak1 null
ids_period 4 1 1 1 18 10 arc1 null
ids_period 5 4 1 1 12 60 bak1
ids_period 5 1 1 1 13 10 bak1
ids_period 7 4 4 2 11 60 rec1 null
ids_period 7 4 1 2 11 60 rec1
