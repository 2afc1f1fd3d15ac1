// The stored setting of one volume.
#include "sim.h"

namespace sim {

int StorageSetting::get_volume_setting(ornsid, TVolumeSetting*) {
    return -1;  // built with the volume commands
}

int StorageSetting::set_volume_setting(ornsid, TVolumeSetting*) {
    return -1;  // built with the volume commands
}

int StorageSetting::refresh_space(ornsid) {
    return -1;  // built with the volume commands
}

}  // namespace sim
