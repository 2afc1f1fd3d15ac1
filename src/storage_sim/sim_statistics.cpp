// Recording statistics: profiles of a space, recording sizes, channel
// storage configurations and their recording days.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "sim.h"

namespace sim {
namespace {

bool same_space(const ornsid& a, const ornsid& b) {
    return std::memcmp(a.uuid, b.uuid, sizeof(a.uuid)) == 0;
}

// Storage ids (32 bytes each) of the channel's profiles in the space.
std::set<std::string> profile_storage_ids(const ornsid& space, uint32_t channel_id) {
    std::set<std::string> ids;
    static const std::string sql = std::string("SELECT ") + kProfileColumns +
                                   " FROM profiles WHERE channel_id = ?1 "
                                   "ORDER BY rowid";
    Stmt rows(sql.c_str());
    rows.bind(1, static_cast<long long>(channel_id));
    while (rows.step()) {
        TStoreIDProfile profile;
        fill_profile(rows, profile);
        if (same_space(profile.location.space_uuid, space))
            ids.insert(std::string(profile.storage_id, sizeof(profile.storage_id)));
    }
    return ids;
}

// Sums size_mb of the rows (storage_id, size_mb) whose storage id is in |ids|.
// The sum wraps like the 64-bit field it lands in.
long long sum_sizes(Stmt& rows, const std::set<std::string>& ids) {
    uint64_t sum = 0;
    while (rows.step()) {
        int size = 0;
        const unsigned char* data = rows.bytes(0, &size);
        if (ids.count(storage_id_bytes(data, size)) != 0)
            sum += static_cast<uint64_t>(rows.int64(1));
    }
    return static_cast<long long>(sum);
}

using LocalDay = std::tuple<int, int, int>;  // local year, month, day

// Day texts in malloc'ed memory, the layout the caller frees with free().
int hand_out_days(const std::set<LocalDay>& days, TRecordDayList* out) {
    if (days.empty()) return 0;
    char** array = static_cast<char**>(malloc(days.size() * sizeof(char*)));
    if (array == nullptr) return -1;
    int count = 0;
    for (const LocalDay& day : days) {
        char text[48];
        int n = snprintf(text, sizeof(text), "%04d-%02d-%02d", std::get<0>(day), std::get<1>(day),
                         std::get<2>(day));
        char* copy = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
        if (copy == nullptr) {
            for (int i = 0; i < count; ++i) free(array[i]);
            free(array);
            return -1;
        }
        std::memcpy(copy, text, static_cast<size_t>(n) + 1);
        array[count++] = copy;
    }
    out->day_count = count;
    out->days = array;
    return 0;
}

class ChannelConfiguration : public IChannelStorageConfiguration {
public:
    explicit ChannelConfiguration(uint32_t channel_id) : channel_id_(channel_id) {}
    ~ChannelConfiguration() override = default;

    int get_recording_days(int record_type, int value, std::list<TStorageId> storage_ids,
                           TRecordDayList* days) override;

private:
    uint32_t channel_id_;
};

int ChannelConfiguration::get_recording_days(int record_type, int value,
                                             std::list<TStorageId> storage_ids,
                                             TRecordDayList* days) {
    std::vector<std::string> id_texts;
    std::set<std::string> ids;
    for (const TStorageId& id : storage_ids) {
        id_texts.push_back(field_text(id.storage_id, sizeof(id.storage_id)));
        ids.insert(std::string(id.storage_id, sizeof(id.storage_id)));
    }
    Call call;
    std::set<LocalDay> found;
    // Without the recorder's zone no date can be read: the call fails.
    const int result = local_time_known() ? 0 : -1;
    if (days != nullptr && result == 0) {
        Stmt rows(
            "SELECT start_ms, storage_id FROM periods WHERE channel_id = ?1 AND record_type = ?2 "
            "ORDER BY rowid");
        rows.bind(1, static_cast<long long>(channel_id_)).bind(2, record_type);
        while (rows.step()) {
            int size = 0;
            const unsigned char* data = rows.bytes(1, &size);
            if (ids.count(storage_id_bytes(data, size)) == 0) continue;
            LocalHour local;
            if (!local_hour_of(rows.int64(0), local)) continue;
            found.emplace(local.year, local.month, local.day);
        }
    }
    log_call("get_recording_days",
             {arg("channel_id", static_cast<long long>(channel_id_)),
              arg("record_type", record_type), arg("value", value), arg("storage_ids", id_texts)},
             result);
    if (!call.finish() || result != 0) {
        if (days != nullptr) days->day_count = 0;
        return -1;
    }
    return days == nullptr ? 0 : hand_out_days(found, days);
}

}  // namespace

int StorageSetting::get_total_recording_size(ornsid space_uuid, channel_sid channel,
                                             long long* size_mb) {
    Call call;
    long long sum = 0;
    {
        std::set<std::string> ids = profile_storage_ids(space_uuid, channel.channel_id);
        Stmt rows("SELECT storage_id, size_mb FROM periods WHERE channel_id = ?1");
        rows.bind(1, static_cast<long long>(channel.channel_id));
        sum = sum_sizes(rows, ids);
    }
    log_call("get_total_recording_size",
             {arg("space_uuid", uuid_text(space_uuid)),
              arg("channel_id", static_cast<long long>(channel.channel_id))},
             0);
    if (!call.finish()) return -1;
    if (size_mb != nullptr) *size_mb = sum;
    return 0;
}

int StorageSetting::get_recording_size(ornsid space_uuid, channel_sid channel, int record_type,
                                       long long* size_mb) {
    Call call;
    long long sum = 0;
    {
        std::set<std::string> ids = profile_storage_ids(space_uuid, channel.channel_id);
        Stmt rows(
            "SELECT storage_id, size_mb FROM periods WHERE channel_id = ?1 AND record_type = ?2");
        rows.bind(1, static_cast<long long>(channel.channel_id)).bind(2, record_type);
        sum = sum_sizes(rows, ids);
    }
    log_call("get_recording_size",
             {arg("space_uuid", uuid_text(space_uuid)),
              arg("channel_id", static_cast<long long>(channel.channel_id)),
              arg("record_type", record_type)},
             0);
    if (!call.finish()) return -1;
    if (size_mb != nullptr) *size_mb = sum;
    return 0;
}

int StorageSetting::get_storage_id_profile_list(ornsid space_uuid,
                                                std::list<TStoreIDProfile>& profiles) {
    Call call;
    std::list<TStoreIDProfile> found;
    {
        static const std::string sql =
            std::string("SELECT ") + kProfileColumns + " FROM profiles ORDER BY rowid";
        Stmt rows(sql.c_str());
        while (rows.step()) {
            TStoreIDProfile profile;
            fill_profile(rows, profile);
            if (same_space(profile.location.space_uuid, space_uuid)) found.push_back(profile);
        }
    }
    log_call("get_storage_id_profile_list", {arg("space_uuid", uuid_text(space_uuid))}, 0);
    if (!call.finish()) return -1;
    profiles.splice(profiles.end(), found);
    return 0;
}

int create_channel_configuration(channel_sid channel, IChannelStorageConfiguration** config) {
    Call call;
    int result = 0;
    bool failed =
        fault("create_channel_configuration", std::to_string(channel.channel_id), true, &result);
    log_call("create_channel_configuration",
             {arg("channel_id", static_cast<long long>(channel.channel_id))}, failed ? result : 0);
    if (!call.finish()) return -1;
    if (failed) return result;
    if (config != nullptr) *config = new ChannelConfiguration(channel.channel_id);
    return 0;
}

void destroy_channel_configuration(int channel_id, IChannelStorageConfiguration** config) {
    log_call("destroy_channel_configuration", {arg("channel_id", channel_id)});
    if (config == nullptr || *config == nullptr) return;
    delete static_cast<ChannelConfiguration*>(*config);
    *config = nullptr;
}

}  // namespace sim
