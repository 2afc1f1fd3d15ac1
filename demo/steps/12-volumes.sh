show vollist Recording
show voluse -1
show volchn Rec1
