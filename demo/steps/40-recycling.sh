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
    rc_removed=$(LC_ALL=C comm -23 <(printf '%s\n' "$rc_before") <(printf '%s\n' "$after"))
    printf '%s\n' "$rc_removed" | sed 's/^/  /'
    echo
    rc_before=$after
}

# show_plan SPEC: the plan kelvo-report gives, and the folders it says go.
show_plan() {
    printf '$ kelvo-report --plan=%s\n' "$1"
    "$KELVO_REPORT" --plan="$1" | tee "$ROOT/plan.txt"
    printf '\n'
    rc_planned=$(awk '$1 == "goes" { print $4 }' "$ROOT/plan.txt" | sed "s|^$ROOT/||" | LC_ALL=C sort -u)
}

# Whether the command removed exactly the folders of the plan.
rc_check_plan() {
    if [ "$rc_removed" = "$rc_planned" ]; then
        echo "The command removed exactly the folders the plan listed."
    else
        echo "The command removed other folders than the plan listed!"
    fi
    echo
}

rc_before=$(rc_hour_folders)
say "Before removing anything, kelvo-report --plan shows what volclean 0" \
    "would remove: each stream's window, from 30 days back to its bound, and" \
    "the hour folders in it; nothing is removed by the plan."
show_plan volclean:0
say "volclean 0 removes ch01's recordings of the last 30 days that lie before" \
    "the oldest period each stream still lists, on every space. A stream that" \
    "lists no period (\"Can not find time period.\") loses its whole last 30" \
    "days: that is why the folder of stream 3 from 6 days ago goes too."
show volclean 0
rc_show_removed
rc_check_plan
say "autoclean measures every volume's reserve with du. Backup2 loses 128 MB" \
    "of its 2048 MB, more than 5%, so the old data of every channel on it is" \
    "recycled; folders older than 30 days and streams without periods stay."
show_plan autoclean
show autoclean
rc_show_removed
rc_check_plan
