// Recording statistics of a space: spaceinfo.
#include "commands.h"
#include "shared.h"

void cmd_spaceinfo(IStorageSetting*, const char*) {}
