say "vollist shows the volumes of one space: Rec1 and Rec2 record, Rec3 and" \
    "the spare Spare1 stand by."
show vollist Recording
say "voluse -1 shows the volume each of the 32 channel slots records on." \
    "ch04 moved from Rec1 to Rec2 and both still report it; voluse shows the" \
    "later one in the volume list, Rec2."
show voluse -1
say "volchn lists the channels that record on one volume, so ch04 appears" \
    "here on Rec1 as well."
show volchn Rec1
say "volset changes a volume's type (0 normal, 1 spare) and state (0 standby," \
    "1 active) and prints nothing; Rec3 now records."
show volset Rec3 0 1
show vollist Recording
