// kelvo's commands: the handlers main dispatches to, the look-ups they
// share, and the small helpers of the command files.
//
// Every text kelvo prints, the misspelled ones included ("faiure", "Cannot
// fine", "resonable", "UNKNOW_STATUS"), stays exactly as it is, byte for
// byte: administrators' scripts match on these texts.
#ifndef KELVO_COMMANDS_COMMANDS_H
#define KELVO_COMMANDS_COMMANDS_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>

#include "channel.h"
#include "plug_play.h"
#include "storage_setting.h"
#include "walks.h"

// Spaces and volumes.
void cmd_spacelist(IStorageSetting* setting);
void cmd_vollist(IStorageSetting* setting, const char* space_name);
void cmd_volset(IStorageSetting* setting, const char* volume_name, int volume_type,
                uint32_t volume_state);
// Copies the rest of |path| after its first "share/" into |name| (128
// bytes, cut to 127 characters); leaves |name| untouched without "share/".
void strip_share_prefix(const char* path, char name[128]);
// "NORMAL" for type 0, "SPARE " for any other.
const char* volume_type_text(uint32_t volume_type);
// The first space of |spaces|, fetched here, whose name is |space_name|
// whole; null, after vollist's and spaceinfo's message, when there is none.
const TSpaceInfo* find_space_by_name(IStorageSetting* setting, const char* space_name,
                                     std::list<TSpaceInfo>& spaces);
int find_volume_uuid(IStorageSetting* setting, const char* volume_name, char uuid[36]);
int find_volume_no(IStorageSetting* setting, const char* volume_name, TVolumeConfig& config);

// Channel mapping.
void cmd_voluse(IStorageSetting* setting, IPlugPlayService* service, int channel_id);
void cmd_volchn(IStorageSetting* setting, IPlugPlayService* service, const char* volume_name);

// Storage ids.
void cmd_nullid(IStorageSetting* setting, int channel_id);
void cmd_recoverid(IStorageSetting* setting, int channel_id);
void time_to_text(int64_t seconds, char out[256]);
int probe_period_location(IStorageSetting& setting, const stream_info& info, int64_t time_ms,
                          storage_location& out);

// Recycling.
void cmd_volclean(IStorageSetting* setting, int channel_id);
void cmd_autoclean(IStorageSetting* setting);
// The bound of one stream (|alarm| 0: record type 4, else 1) from one
// period query of its own channel session, |from_ms| to now.
RecycleBound compute_recycle_bound(channel_sid channel, uint32_t alarm, uint32_t stream,
                                   const int64_t& from_ms, int64_t& bound_ms);
void recycle_unit(IStorageSetting* setting, TVolumeInfo volume, int channel_id);
int measure_volume_usage(const TVolumeInfo& volume, int64_t& preallocate_remain_mb,
                         int64_t& used_size_mb);

// Statistics.
void cmd_spaceinfo(IStorageSetting* setting, const char* space_name);

// The periods of one stream from |from_ms| to |to_ms|. The library's three
// trailing flags are undocumented: always 0, 1, 1, whose answers are known.
inline int query_periods(IFrameChannelSession& session, int record_type, int stream,
                         int64_t from_ms, int64_t to_ms, std::list<time_period>& periods) {
    return session.query_time_periods(record_type, stream, from_ms, to_ms, periods, 0, 1, 1);
}

// A sid of 32 '9' characters marks a slot without a channel.
inline bool is_empty_slot(const char sid[32]) {
    for (int i = 0; i < 32; ++i)
        if (sid[i] != '9') return false;
    return true;
}

// Whether a settings entry is selected by a channel argument (-1: all).
inline bool channel_selected(int channel_id, uint32_t entry_channel_id) {
    return channel_id == -1 || static_cast<uint32_t>(channel_id) == entry_channel_id;
}

// The settings entries the channel walks visit: a channel, selected.
inline bool entry_selected(const TChannelStorageSetting& entry, int channel_id) {
    return !is_empty_slot(entry.sid) && channel_selected(channel_id, entry.channel_id);
}

inline channel_sid make_channel_sid(uint32_t channel_id, const char sid[32]) {
    channel_sid channel;
    channel.channel_id = channel_id;
    std::memcpy(channel.sid, sid, sizeof(channel.sid));
    return channel;
}

// Names one stream of a channel; every other byte is zero.
inline stream_info make_stream_info(uint32_t channel_id, const char sid[32], uint32_t stream,
                                    uint32_t record_type) {
    stream_info info;
    info.channel_id = channel_id;
    std::memcpy(info.sid, sid, sizeof(info.sid));
    info.stream = stream;
    info.record_type = record_type;
    return info;
}

inline bool same_uuid(const ornsid& id, const ornsid& other) {
    return std::memcmp(id.uuid, other.uuid, sizeof(id.uuid)) == 0;
}

// A volume's path as a terminated text, even when it fills its whole field.
struct VolumePath {
    char text[sizeof(TVolumeConfig::path) + 1];
    explicit VolumePath(const TVolumeInfo& volume) {
        const char* field = volume.setting.config.path;
        size_t n = strnlen(field, sizeof(TVolumeConfig::path));
        std::memcpy(text, field, n);
        text[n] = '\0';
    }
};

// The volume's folder "<path>/FSU_<uuid bytes 4 to 35>" followed by |rest|,
// written by snprintf into |out|; snprintf's result.
inline int format_fsu_folder(char* out, size_t size, const TVolumeInfo& volume, const char* rest) {
    return snprintf(out, size, "%s/FSU_%.32s%s", VolumePath(volume).text, volume.uuid.uuid + 4,
                    rest);
}

// The present time at the library boundary, in milliseconds.
inline int64_t now_ms() { return static_cast<int64_t>(time(nullptr)) * 1000; }

#endif
