// Recycling engines: remove hour folders of a stream inside a time range.
#include "recycle.h"
#include "sim.h"

CFSTier::CFSTier() : bound_uuid_(), bound_(false) {}
CFSTier::~CFSTier() {}
int CFSTier::init(ornsid) { return -1; }  // built with the recycling commands
int CFSTier::recycle_channel_data(stream_info, long long, long long) { return -1; }
int CFSTier::uninit() { return 0; }

CFSUnit::CFSUnit() : bound_uuid_(), bound_(false) {}
CFSUnit::~CFSUnit() {}
int CFSUnit::init(ornsid) { return -1; }  // built with the recycling commands
int CFSUnit::recycle_channel_data(stream_info, long long, long long) { return -1; }
int CFSUnit::uninit() { return 0; }
