say "nullid -1 lists the recorded periods whose storage id is null, for every" \
    "channel: without it the server cannot find their recordings."
show nullid -1
say "recoverid looks on every volume for the folder of each period's first hour" \
    "and writes back the channel's storage id for that place. Two stay null:" \
    "ch04's first hour is on no volume, and ch05 has no storage id for the" \
    "archive volume where its hour lies."
show recoverid -1
say "Only those two periods are left."
show nullid -1
