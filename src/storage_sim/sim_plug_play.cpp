// The storage daemon and its plug-and-play service.
#include "sim.h"

COrnStorageDaemon::COrnStorageDaemon() { sim::log_call("COrnStorageDaemon", {}); }

COrnStorageDaemon::~COrnStorageDaemon() { sim::log_call("~COrnStorageDaemon", {}); }

int COrnStorageDaemon::create_plug_play_service(IPlugPlayService**) {
    return -1;  // built with the channel mapping commands
}

int COrnStorageDaemon::destroy_plug_play_service(IPlugPlayService**) {
    return -1;  // built with the channel mapping commands
}
