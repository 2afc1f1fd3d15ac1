// Small helpers shared by the command files.
#ifndef KELVO_COMMANDS_SHARED_H
#define KELVO_COMMANDS_SHARED_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "channel.h"
#include "storage_setting.h"

// Record types, walked in this order by every command.
const int kRecordTypeNormal = 4;
const int kRecordTypeAlarm = 1;
const int kRecordTypes[] = {kRecordTypeNormal, kRecordTypeAlarm};
// Streams are numbered 0 to 4; recycling walks them all, the storage-id
// commands leave out stream 0.
const int kRecycleFirstStream = 0;
const int kStorageIdFirstStream = 1;
const int kLastStream = 4;

inline const char* record_type_label(uint32_t record_type) {
    return record_type == kRecordTypeNormal ? "NR" : "AR";
}

// Every per-stream walk's order: record type 4 then 1, streams
// |first_stream| to 4 in each.
template <typename Visit>
void for_each_record_stream(int first_stream, Visit visit) {
    for (int record_type : kRecordTypes)
        for (int stream = first_stream; stream <= kLastStream; ++stream)
            visit(record_type, stream);
}

// Channels are numbered from 0 inside and from 1 on screen.
inline int shown_channel(uint32_t channel_id) { return static_cast<int>(channel_id + 1u); }

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

// Sids read as texts: up to the first zero byte, at most 32 characters.
inline bool same_sid(const char* a, const char* b) { return strncmp(a, b, 32) == 0; }

inline channel_sid make_channel_sid(uint32_t channel_id, const char sid[32]) {
    channel_sid channel;
    channel.channel_id = channel_id;
    std::memcpy(channel.sid, sid, sizeof(channel.sid));
    return channel;
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

inline bool same_uuid(const ornsid& a, const ornsid& b) {
    return std::memcmp(a.uuid, b.uuid, sizeof(a.uuid)) == 0;
}

// The present time at the library boundary, in milliseconds.
inline int64_t now_ms() { return static_cast<int64_t>(time(nullptr)) * 1000; }

// Use percentage in single precision, as every report shows it.
inline double use_percent(int64_t used_mb, int64_t total_mb) {
    float used = static_cast<float>(used_mb);
    float total = static_cast<float>(total_mb);
    return static_cast<double>(used * 100.0f / total);
}

#endif
