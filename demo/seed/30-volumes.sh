# A standby volume and a spare volume join the recording space, and the
# daemon's view of which channels record on which volume. Channel 3 moved
# from Rec1 to Rec2, and both volumes still report it.
V_REC3=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b05
V_SPARE1=6a7b8c90-1d2e-4f3a-8b4c-5d6e7f8a9b06
add_volume "$V_REC3" "$G_MAIN" share/Rec3 5 0 1 3815424 3700000
add_volume "$V_SPARE1" "$G_MAIN" share/Spare1 6 2 1 1907712 1850000

# add_volume_channel VOLUME_NO CHANNEL_ID
add_volume_channel() {
    sql "INSERT INTO volume_channels VALUES ($1, $2, '$(printf 'c4a1e0d2b3f4a5b6c7d8e9f0a1b2c3%02d' "$2")');"
}
for ch in 3 0 2 1; do add_volume_channel 1 "$ch"; done
for ch in 4 5 7 3; do add_volume_channel 2 "$ch"; done
