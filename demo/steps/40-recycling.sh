# Recycling: channel 0's leftovers on every space, then every leaking volume.
# After each command, the hour folders it removed (paths below the demo root).
rc_hour_folders() {
    find "$ROOT" -regextype posix-extended -type d -regex '.*/[0-9]{8}/[0-9]{2}' |
        sed "s|^$ROOT/||" | LC_ALL=C sort
}

rc_show_removed() {
    local after
    after=$(rc_hour_folders)
    echo "Hour folders removed:"
    LC_ALL=C comm -23 <(printf '%s\n' "$rc_before") <(printf '%s\n' "$after") | sed 's/^/  /'
    echo
    rc_before=$after
}

rc_before=$(rc_hour_folders)
say "volclean 0 removes ch01's recordings of the last 30 days that lie before" \
    "the oldest period each stream still lists, on every space. A stream that" \
    "lists no period (\"Can not find time period.\") loses its whole last 30" \
    "days: that is why the folder of stream 3 from 6 days ago goes too."
show volclean 0
rc_show_removed
say "autoclean measures every volume's reserve with du. Backup2 loses 128 MB" \
    "of its 2048 MB, more than 5%, so the old data of every channel on it is" \
    "recycled; folders older than 30 days and streams without periods stay."
show autoclean
rc_show_removed
