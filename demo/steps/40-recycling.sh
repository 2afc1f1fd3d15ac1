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
show volclean 0
rc_show_removed
show autoclean
rc_show_removed
