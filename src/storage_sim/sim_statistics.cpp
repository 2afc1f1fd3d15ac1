// Recording statistics: profiles of a space, recording sizes, channel
// storage configurations and their recording days.
#include "sim.h"

namespace sim {

int StorageSetting::get_total_recording_size(ornsid, channel_sid, long long*) {
    return -1;  // built with the statistics command
}

int StorageSetting::get_recording_size(ornsid, channel_sid, int, long long*) {
    return -1;  // built with the statistics command
}

int StorageSetting::get_storage_id_profile_list(ornsid, std::list<TStoreIDProfile>&) {
    return -1;  // built with the statistics command
}

int create_channel_configuration(channel_sid, IChannelStorageConfiguration**) {
    return -1;  // built with the statistics command
}

void destroy_channel_configuration(int, IChannelStorageConfiguration**) {}

}  // namespace sim
