// Storage-id maintenance: nullid, recoverid and the probe of hour folders.
#include "commands.h"
#include "shared.h"

void cmd_nullid(IStorageSetting*, int) {}

void cmd_recoverid(IStorageSetting*, int) {}
