// Channel-to-volume mapping: voluse and volchn.
#include "commands.h"
#include "shared.h"

void cmd_voluse(IStorageSetting*, IPlugPlayService*, int) {}

void cmd_volchn(IStorageSetting*, IPlugPlayService*, const char*) {}
