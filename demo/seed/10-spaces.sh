# The recorder writes its hour folders in this zone, whatever TZ kelvo runs in.
sql "INSERT INTO settings VALUES ('timezone', '$TZ');"
# Two recording spaces and a small archive space that has gone wrong.
G_MAIN=9f1c7a20-5b3e-4c1d-8e2f-1a2b3c4d5e60
G_BACKUP=9f1c7a20-5b3e-4c1d-8e2f-1a2b3c4d5e61
G_ARCHIVE=9f1c7a20-5b3e-4c1d-8e2f-1a2b3c4d5e62
S_MAIN=3d9e2b10-7a4c-4f8e-9b1d-2c3e4f5a6b70
S_BACKUP=3d9e2b10-7a4c-4f8e-9b1d-2c3e4f5a6b71
S_ARCHIVE=3d9e2b10-7a4c-4f8e-9b1d-2c3e4f5a6b72
add_space "$S_MAIN" Recording "$G_MAIN" 13354240 12902310 0 1
add_space "$S_BACKUP" Backup "$G_BACKUP" 3817472 3689900 6 0
add_space "$S_ARCHIVE" Archive "$G_ARCHIVE" 1907712 1907000 5 1

V_REC1=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b01
V_REC2=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b02
V_BAK1=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b03
V_ARC1=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b04
add_volume "$V_REC1" "$G_MAIN" share/Rec1 1 0 0 3815424 3650000
add_volume "$V_REC2" "$G_MAIN" share/Rec2 2 0 0 3815424 3702310
add_volume "$V_BAK1" "$G_BACKUP" share/Backup1 3 0 0 3815424 3688000
add_volume "$V_ARC1" "$G_ARCHIVE" mnt/archive0 4 0 2 1907712 1907000

# Eight camera channels; slot 6 holds no channel.
for ch in 0 1 2 3 4 5 6 7; do
    if [ "$ch" = 6 ]; then
        add_channel "$ch" 99999999999999999999999999999999
    else
        add_channel "$ch" "$(printf 'c4a1e0d2b3f4a5b6c7d8e9f0a1b2c3%02d' "$ch")"
    fi
done
