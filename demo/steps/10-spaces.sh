say "spacelist shows every storage space with its size, use and status." \
    "Backup is at Warning, and Archive has failed along with its spare."
show spacelist
