// Recording statistics of a space: spaceinfo.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

#include "channel_config.h"
#include "commands.h"
#include "log.h"

namespace {

// Collects the storage ids of the channel's profiles, in list order.
void collect_storage_ids(const std::list<TStoreIDProfile>& profiles, const channel_sid& channel,
                         std::list<TStorageId>& ids) {
    for (const TStoreIDProfile& profile : profiles) {
        if (!same_sid(profile.location.owner_channel.sid, channel.sid)) continue;
        TStorageId id;
        std::memcpy(id.storage_id, profile.storage_id, sizeof(id.storage_id));
        ids.push_back(id);
    }
}

// The days of one record type; the caller frees them with free_days.
TRecordDayList recording_days(IChannelStorageConfiguration* config, int record_type,
                              const std::list<TStorageId>& ids, int& result) {
    TRecordDayList days;
    days.day_count = 0;
    days.days = nullptr;
    // The parameter is a fresh copy of |ids|, gone when the call returns.
    result = config->get_recording_days(record_type, 255, ids, &days);
    return days;
}

void free_days(TRecordDayList& days) {
    if (days.days == nullptr) return;
    for (int i = 0; i < days.day_count; ++i) free(days.days[i]);
    free(days.days);
    days.days = nullptr;
}

void print_recording_days(int record_type, const TRecordDayList& days) {
    printf(record_type == kRecordTypeNormal ? "    Normal total days: %d\n"
                                            : "    Alarm total days: %d\n",
           days.day_count);
    if (days.days == nullptr) return;
    for (int i = 0; i < days.day_count; ++i)
        printf("        day[%d] = %s\n", i, days.days[i] ? days.days[i] : "");
}

// Sizes wrap like the library's 64-bit counters instead of overflowing.
int64_t add_mb(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

}  // namespace

bool walk_space_channels(IStorageSetting* setting, const ornsid& space_id,
                         const SpaceChannelVisit& visit, FailedCall* failed) {
    std::list<TStoreIDProfile> profiles;
    const int listed = setting->get_storage_id_profile_list(space_id, profiles);
    if (failed != nullptr) failed->note("get_storage_id_profile_list", listed);

    // Declared before the storage object so that it is released first.
    std::list<TStorageId> ids;
    COrnStorage storage;
    channel_sid current;
    std::memset(current.sid, '0', sizeof(current.sid));

    for (const TStoreIDProfile& profile : profiles) {
        ids.clear();
        const channel_sid& owner = profile.location.owner_channel;
        if (same_sid(owner.sid, current.sid)) continue;
        current = make_channel_sid(owner.channel_id, owner.sid);
        collect_storage_ids(profiles, current, ids);

        SpaceChannel block;
        block.channel = current;
        block.storage_ids = &ids;
        IChannelStorageConfiguration* config = nullptr;
        block.config_result = storage.create_channel_configuration(current, &config);
        block.configured = block.config_result == 0 && config != nullptr;
        for (int t = 0; t < 2; ++t) {
            block.days[t].day_count = 0;
            block.days[t].days = nullptr;
            block.days_result[t] = 0;
        }
        if (!block.configured) {
            visit(block);
            return false;
        }
        block.days[0] = recording_days(config, kRecordTypeNormal, ids, block.days_result[0]);
        block.days[1] = recording_days(config, kRecordTypeAlarm, ids, block.days_result[1]);
        storage.destroy_channel_configuration(static_cast<int>(current.channel_id), &config);
        visit(block);
        free_days(block.days[0]);
        free_days(block.days[1]);
    }
    return true;
}

void cmd_spaceinfo(IStorageSetting* setting, const char* space_name) {
    std::list<TSpaceInfo> spaces;
    const TSpaceInfo* space = find_space_by_name(setting, space_name, spaces);
    if (space == nullptr) return;
    printf("Space: %s uuid: [%.36s]\n", space_name, space->uuid.uuid);
    printf("\n");
    const ornsid space_id(space->uuid.uuid);

    int64_t total = 0;
    bool complete = walk_space_channels(setting, space_id, [&](const SpaceChannel& block) {
        printf("channel: %.32s\n", block.channel.sid);
        for (const TStorageId& id : *block.storage_ids)
            printf("    storage_id: %.32s\n", id.storage_id);
        if (block.config_result != 0) {
            printf("Error TTimeLineInfo call create_channel_configuration ret=%d\n",
                   block.config_result);
            log_Debug("Error TTimeLineInfo call create_channel_configuration ret=%d",
                      block.config_result);
            return;
        }
        if (!block.configured) {
            printf("storage_channel.create_channel_session fail!!\n");
            return;
        }
        print_recording_days(kRecordTypeNormal, block.days[0]);
        print_recording_days(kRecordTypeAlarm, block.days[1]);

        long long normal_mb = 0, alarm_mb = 0, all_mb = 0;
        setting->get_recording_size(space_id, block.channel, kRecordTypeNormal, &normal_mb);
        setting->get_recording_size(space_id, block.channel, kRecordTypeAlarm, &alarm_mb);
        setting->get_total_recording_size(space_id, block.channel, &all_mb);
        printf("    Normal recording size: %lld(MB)\n", normal_mb);
        printf("    Alarm recording size: %lld(MB)\n", alarm_mb);
        printf("    All recording size: %lld(MB)\n", all_mb);
        printf("\n");
        total = add_mb(total, all_mb);
    });
    if (!complete) return;

    // The GB figure is computed in single precision on purpose.
    float total_gb = static_cast<float>(total) * 0.0009765625f;
    printf("Total recording size: %lld(MB)  %.2f(GB)", static_cast<long long>(total),
           static_cast<double>(total_gb));
    printf("\n");
}
