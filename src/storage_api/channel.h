// Channel records, time periods, storage-id profiles and channel sessions of
// the storage library.
#ifndef KELVO_STORAGE_API_CHANNEL_H
#define KELVO_STORAGE_API_CHANNEL_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>

#include "ornsid.h"

// A channel: 0-based id and its 32-character sid (32 x '9' = empty slot).
struct channel_sid {
    uint32_t channel_id;
    char sid[32];
    char zero[2];
    char reserved_38[2];

    channel_sid() { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }
};
static_assert(offsetof(channel_sid, channel_id) == 0, "channel_sid layout");
static_assert(offsetof(channel_sid, sid) == 4, "channel_sid layout");
static_assert(offsetof(channel_sid, zero) == 36, "channel_sid layout");

// One channel slot of the storage settings.
struct TChannelStorageSetting {
    uint32_t channel_id;
    char sid[32];
    char field_36[48];
    char field_84[512];
    char reserved_596[4];
    ornsid field_600;
    char field_676[80];
    ornsid field_756;
    char field_832[100];
    ornsid field_932;

    TChannelStorageSetting() {
        std::memset(static_cast<void*>(this), 0, sizeof(*this));
        field_600 = ornsid();
        field_756 = ornsid();
        field_932 = ornsid();
    }
};
static_assert(offsetof(TChannelStorageSetting, channel_id) == 0, "TChannelStorageSetting layout");
static_assert(offsetof(TChannelStorageSetting, sid) == 4, "TChannelStorageSetting layout");
static_assert(offsetof(TChannelStorageSetting, field_84) == 84, "TChannelStorageSetting layout");
static_assert(offsetof(TChannelStorageSetting, field_600) == 600, "TChannelStorageSetting layout");
static_assert(offsetof(TChannelStorageSetting, field_756) == 756, "TChannelStorageSetting layout");
static_assert(offsetof(TChannelStorageSetting, field_932) == 932, "TChannelStorageSetting layout");

// One recorded time period of a channel stream.
struct time_period {
    uint32_t stream;
    char reserved_4[4];
    int64_t start_ms;
    int64_t end_ms;
    char reserved_24[4];
    char storage_id[32];  // first byte zero: null storage id
    char period_key[64];  // terminated text naming the period

    time_period() { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }
};
static_assert(offsetof(time_period, stream) == 0, "time_period layout");
static_assert(offsetof(time_period, start_ms) == 8, "time_period layout");
static_assert(offsetof(time_period, end_ms) == 16, "time_period layout");
static_assert(offsetof(time_period, storage_id) == 28, "time_period layout");
static_assert(offsetof(time_period, period_key) == 60, "time_period layout");

// Names one stream of one channel and record type.
struct stream_info {
    uint32_t channel_id;
    char sid[32];
    char zero[2];
    char reserved_38[38];
    uint32_t stream;
    uint32_t record_type;

    stream_info() { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }
};
static_assert(offsetof(stream_info, channel_id) == 0, "stream_info layout");
static_assert(offsetof(stream_info, sid) == 4, "stream_info layout");
static_assert(offsetof(stream_info, zero) == 36, "stream_info layout");
static_assert(offsetof(stream_info, stream) == 76, "stream_info layout");
static_assert(offsetof(stream_info, record_type) == 80, "stream_info layout");

// A storage place: space, volume group and volume, plus the owning channel.
struct storage_location {
    ornsid space_uuid;
    ornsid group_uuid;
    ornsid volume_uuid;
    channel_sid owner_channel;
    char reserved_268[36];
};
static_assert(offsetof(storage_location, space_uuid) == 0, "storage_location layout");
static_assert(offsetof(storage_location, group_uuid) == 76, "storage_location layout");
static_assert(offsetof(storage_location, volume_uuid) == 152, "storage_location layout");
static_assert(offsetof(storage_location, owner_channel) == 228, "storage_location layout");
static_assert(offsetof(storage_location, owner_channel) + offsetof(channel_sid, sid) == 232,
              "storage_location layout");
static_assert(sizeof(storage_location) == 304, "storage_location is 304 bytes");

// The storage id under which recordings made at one place are filed.
struct TStoreIDProfile {
    storage_location location;
    char storage_id[32];

    TStoreIDProfile() : location() { std::memset(storage_id, 0, sizeof(storage_id)); }
};
static_assert(offsetof(TStoreIDProfile, location) == 0, "TStoreIDProfile layout");
static_assert(offsetof(TStoreIDProfile, storage_id) == 304, "TStoreIDProfile layout");

class IFrameChannelSession {
public:
    // |a|, |b|, |c|: flags the library does not document; kelvo always
    // passes 0, 1, 1 (query_periods), as what other values do is unknown.
    virtual int query_time_periods(int record_type, int stream, long long from_ms, long long to_ms,
                                   std::list<time_period>& periods, int a, int b, int c) = 0;

protected:
    virtual ~IFrameChannelSession() = default;
};

// Factory of channel sessions.
class COrnChannel {
public:
    COrnChannel();
    ~COrnChannel();
    COrnChannel(const COrnChannel&) = delete;
    COrnChannel& operator=(const COrnChannel&) = delete;

    int create_channel_session(channel_sid channel, IFrameChannelSession** session);
    int destroy_channel_session(IFrameChannelSession** session);
};

int retrieve_storage_id_profile_list(channel_sid channel, std::list<TStoreIDProfile>& profiles);
int update_time_period(channel_sid channel, char* period_key, char* storage_id);
// Writes at most 512 bytes into |out|.
int make_hour_folder_full_path(char* out, const char* fsu_folder, stream_info info,
                               long long time_ms);

#endif
