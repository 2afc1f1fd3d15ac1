// Recycling: volclean, autoclean, the recycle bound and volume usage.
#include "commands.h"
#include "shared.h"

void cmd_volclean(IStorageSetting*, int) {}

void cmd_autoclean(IStorageSetting*) {}
