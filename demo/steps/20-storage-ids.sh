# Periods that lost their storage id, their repair, and what is left.
show nullid -1
show recoverid -1
show nullid -1
