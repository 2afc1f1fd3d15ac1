// Channel-to-volume mapping: voluse and volchn.
#include <cstdio>
#include <cstring>
#include <list>

#include "commands.h"

namespace {

const int kChannelSlots = 32;

}  // namespace

void walk_volume_channels(IStorageSetting* setting, IPlugPlayService* service,
                          const VolumeChannelsVisit& visit, FailedCall* failed) {
    std::list<TVolumeInfo> volumes;
    const int listed = setting->get_volume_list(volumes);
    if (failed != nullptr) failed->note("get_volume_list", listed);
    TVolumeConfig config;
    ornsid a, b;  // the service's two ornsid arguments: left at their defaults, never read back
    std::list<channel_sid> channels;
    for (const TVolumeInfo& volume : volumes) {
        char name[128];
        volume_display_name(volume, name);
        config.field_1092 = 0;  // with volume_no: the volume is named by its number alone
        config.volume_no = volume.setting.config.volume_no;
        channels.clear();
        const int asked = service->get_volume_channel_list(config, a, b, channels);
        if (failed != nullptr) failed->note("get_volume_channel_list", asked);
        visit(volume, name, channels);
    }
}

void sort_channels(std::list<channel_sid>& channels) {
    // std::list::sort is stable: equal ids keep the service's order.
    channels.sort(
        [](const channel_sid& x, const channel_sid& y) { return x.channel_id < y.channel_id; });
}

// The service answers which channels record on a volume; asking it about
// every volume in turn gives the volume of each channel (the last one wins).
void cmd_voluse(IStorageSetting* setting, IPlugPlayService* service, int channel_id) {
    char table[kChannelSlots][128];
    std::memset(table, 0, sizeof(table));
    walk_volume_channels(setting, service,
                         [&table](const TVolumeInfo&, const char(&name)[128],
                                  const std::list<channel_sid>& channels) {
        for (const channel_sid& channel : channels) {
            // Ids beyond the table have no line to show them on.
            if (channel.channel_id >= static_cast<uint32_t>(kChannelSlots)) continue;
            std::memcpy(table[channel.channel_id], name, sizeof(name));
        }
    });

    for (int i = 0; i < kChannelSlots; ++i) {
        if (channel_id != -1 && channel_id != i) continue;
        printf("ch%.2d volume=[%s]\n", i + 1, table[i]);
        if (channel_id != -1) break;
    }
}

void cmd_volchn(IStorageSetting* setting, IPlugPlayService* service, const char* volume_name) {
    TVolumeConfig config;
    ornsid a, b;  // as in walk_volume_channels
    std::list<channel_sid> channels;
    if (find_volume_no(setting, volume_name, config) != 0) {
        printf("Cannot fine volume [%s]\n", volume_name);
        return;
    }
    service->get_volume_channel_list(config, a, b, channels);
    sort_channels(channels);
    if (channels.empty()) {
        printf("NO channel using volume [%s]\n", volume_name);
        return;
    }
    int line = 0;
    for (const channel_sid& channel : channels) {
        ++line;
        printf("[%02d] uses channel[%02d]\n", line, shown_channel(channel.channel_id));
    }
}
