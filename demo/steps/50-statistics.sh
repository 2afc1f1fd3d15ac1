say "spaceinfo shows, for each channel that records in a space, its storage" \
    "ids, the days with normal and alarm recordings and their sizes in MB."
show spaceinfo Recording
