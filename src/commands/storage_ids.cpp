// Storage-id maintenance: nullid, recoverid and the probe of hour folders.
#include <dirent.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>

#include "commands.h"

namespace {

// Shown in place of a time that has no local broken-down form.
const char kInvalidTimeText[] = "[invalid time]";
const size_t kPathBufferSize = 512;

bool starts_before(const time_period& a, const time_period& b) { return a.start_ms < b.start_ms; }

// The volume's FSU folder. False when the path does not fit: the volume is
// then skipped, never probed truncated.
bool make_fsu_folder(const TVolumeInfo& volume, char out[kPathBufferSize]) {
    int n = format_fsu_folder(out, kPathBufferSize, volume, "");
    return n >= 0 && static_cast<size_t>(n) < kPathBufferSize;
}

// Whether the library's hour folder of |info| at |time_ms| opens as a
// directory below |fsu_folder|. A path the library could not fit (empty or
// unterminated) counts as absent.
bool has_hour_folder(const char* fsu_folder, const stream_info& info, int64_t time_ms) {
    // Only the naming fields reach the library, whatever the others hold.
    const stream_info copy =
        make_stream_info(info.channel_id, info.sid, info.stream, info.record_type);
    char hour_folder[kPathBufferSize];
    std::memset(hour_folder, 0, sizeof(hour_folder));
    make_hour_folder_full_path(hour_folder, fsu_folder, copy, time_ms);
    if (hour_folder[0] == '\0' || hour_folder[kPathBufferSize - 1] != '\0') return false;
    DIR* dir = opendir(hour_folder);
    if (dir == nullptr) return false;
    closedir(dir);
    return true;
}

// The first volume in list order that holds the hour folder, or null.
const TVolumeInfo* find_volume_with_hour_folder(const std::list<TVolumeInfo>& volumes,
                                                const stream_info& info, int64_t time_ms) {
    for (const TVolumeInfo& volume : volumes) {
        char fsu_folder[kPathBufferSize];
        if (!make_fsu_folder(volume, fsu_folder)) continue;
        if (has_hour_folder(fsu_folder, info, time_ms)) return &volume;
    }
    return nullptr;
}

void print_period_start(int record_type, const time_period& period, const char* start_text,
                        const char* end_text) {
    printf("\t[%s S%.2d] %s-%s", record_type_label(record_type), static_cast<int>(period.stream),
           start_text, end_text);
}

// The header stands before a channel's first period line, once.
void print_header_once(bool& header, uint32_t channel_id) {
    if (header) printf("ch%.2d list:\n", shown_channel(channel_id));
    header = false;
}

// The library objects and lists of one walk over the channels, released in
// reverse order: periods, channel factory, settings.
struct ChannelWalk {
    std::list<TChannelStorageSetting> settings;
    COrnChannel channel_factory;
    std::list<time_period> periods;
};

// Each null period of a channel, by start; |header| is true until the
// channel's first period line has printed the channel's header.
using NullPeriodVisit = std::function<void(const TChannelStorageSetting& entry, int record_type,
                                           time_period& period, bool& header)>;

// nullid's and recoverid's view of the period walk: a failure line per
// failed query, then each null period of an answer by start.
bool walk_null_periods(IStorageSetting* setting, int channel_id, const NullPeriodVisit& visit) {
    bool header = true;
    return walk_channel_periods(
        setting, channel_id, kStorageIdFirstStream, now_ms(),
        [&header](const TChannelStorageSetting&, bool) { header = true; },
        [&](const TChannelStorageSetting& entry, int record_type, int stream, int result,
            std::list<time_period>& periods) {
        if (result != 0) {
            printf("ch%.2d [%s S%.2d] retrieve time period fail\n",
                   shown_channel(entry.channel_id), record_type_label(record_type), stream);
            return;
        }
        periods.sort(starts_before);  // stable: equal starts keep the library's order
        for (time_period& period : periods)
            if (is_null_storage_id(period)) visit(entry, record_type, period, header);
        });
}

struct PeriodTexts {
    char start[256];
    char end[256];
};

PeriodTexts period_texts(const time_period& period) {
    PeriodTexts texts;
    time_to_text(period.start_ms / 1000, texts.start);
    time_to_text(period.end_ms / 1000, texts.end);
    return texts;
}

// What recoverid keeps for the whole run.
struct Recovery {
    std::list<TStoreIDProfile> profiles;
    storage_location location{};
    int null_count = 0;
    int success_count = 0;
};

// The first profile, in the library's order, for the place of |location|.
TStoreIDProfile* find_profile(std::list<TStoreIDProfile>& profiles,
                              const storage_location& location) {
    for (TStoreIDProfile& profile : profiles) {
        const storage_location& place = profile.location;
        if (same_uuid(place.space_uuid, location.space_uuid) &&
            same_uuid(place.group_uuid, location.group_uuid) &&
            same_uuid(place.volume_uuid, location.volume_uuid))
            return &profile;
    }
    return nullptr;
}

// Probes the disk for one null period and writes back the storage id of
// the channel's first profile at the place found.
void recover_period(IStorageSetting* setting, Recovery& r, const TChannelStorageSetting& entry,
                    int record_type, time_period& period, bool& header) {
    ++r.null_count;
    char storage_id[33];
    std::memset(storage_id, 0, sizeof(storage_id));
    PeriodTexts texts = period_texts(period);
    print_header_once(header, entry.channel_id);
    const char* result = storage_id;
    if (retrieve_storage_id_profile_list(make_channel_sid(entry.channel_id, entry.sid),
                                         r.profiles) != 0 ||
        r.profiles.empty()) {
        result = "data base access fail.  ";
    } else {
        const stream_info info = make_stream_info(entry.channel_id, entry.sid, period.stream,
                                                  static_cast<uint32_t>(record_type));
        if (probe_period_location(*setting, info, period.start_ms, r.location) != 0) {
            print_period_start(record_type, period, texts.start, texts.end);
            printf(", recover storage id: [no found data in volume.]\n");
            return;
        }
        TStoreIDProfile* profile = find_profile(r.profiles, r.location);
        if (profile == nullptr ||
            update_time_period(make_channel_sid(entry.channel_id, entry.sid), period.period_key,
                               profile->storage_id) != 0) {
            result = "update time period fail.";
        } else {
            ++r.success_count;
            std::memcpy(storage_id, profile->storage_id, 32);
        }
    }
    print_period_start(record_type, period, texts.start, texts.end);
    printf(", recover storage id: [%s]\n", result);
}

}  // namespace

void time_to_text(int64_t seconds, char out[256]) {
    time_t t = static_cast<time_t>(seconds);
    struct tm local;
    if (static_cast<int64_t>(t) != seconds || localtime_r(&t, &local) == nullptr) {
        snprintf(out, 256, "%s", kInvalidTimeText);
        return;
    }
    // The year is widened so that no year localtime_r accepts can overflow.
    snprintf(out, 256, "[%lld-%d-%.2d %.2d:%.2d:%.2d]",
             static_cast<long long>(local.tm_year) + 1900, local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
}

int probe_period_location(IStorageSetting& setting, const stream_info& info, int64_t time_ms,
                          storage_location& out) {
    std::list<TVolumeInfo> volumes;
    setting.get_volume_list(volumes);
    if (volumes.empty()) return -1;
    const TVolumeInfo* volume = find_volume_with_hour_folder(volumes, info, time_ms);
    if (volume == nullptr) return -1;
    std::memcpy(out.volume_uuid.uuid, volume->uuid.uuid, sizeof(out.volume_uuid.uuid));
    std::memcpy(out.group_uuid.uuid, volume->setting.group_uuid.uuid, sizeof(out.group_uuid.uuid));

    std::list<TSpaceInfo> spaces;
    setting.get_space_list(spaces);
    for (const TSpaceInfo& space : spaces) {
        if (same_uuid(space.group_uuid, out.group_uuid)) {
            std::memcpy(out.space_uuid.uuid, space.uuid.uuid, sizeof(out.space_uuid.uuid));
            return 0;
        }
    }
    return -1;
}

int query_stream_periods(IFrameChannelSession& session, int record_type, int stream, int64_t to_ms,
                         std::list<time_period>& periods) {
    int result = query_periods(session, record_type, stream, 0, to_ms, periods);
    if (result != 0) periods.clear();
    return result;
}

bool walk_channel_periods(IStorageSetting* setting, int channel_id, int first_stream,
                          int64_t now_ms, const ChannelVisit& channel,
                          const PeriodAnswerVisit& answer, FailedCall* failed) {
    ChannelWalk walk;
    const int listed = setting->get_channel_setting_list(walk.settings, 1);
    if (failed != nullptr) failed->note("get_channel_setting_list", listed);
    if (walk.settings.empty()) return false;
    for (const TChannelStorageSetting& entry : walk.settings) {
        if (!entry_selected(entry, channel_id)) continue;
        IFrameChannelSession* session = nullptr;
        walk.channel_factory.create_channel_session(make_channel_sid(entry.channel_id, entry.sid),
                                                    &session);
        // Without a session the channel has nothing to show.
        channel(entry, session != nullptr);
        if (session != nullptr) {
            for_each_record_stream(first_stream, [&](int record_type, int stream) {
                int result =
                    query_stream_periods(*session, record_type, stream, now_ms, walk.periods);
                answer(entry, record_type, stream, result, walk.periods);
            });
        }
        walk.channel_factory.destroy_channel_session(&session);
    }
    return true;
}

void cmd_nullid(IStorageSetting* setting, int channel_id) {
    int count = 0;
    bool listed = walk_null_periods(setting, channel_id,
                                    [&count](const TChannelStorageSetting& entry, int record_type,
                                             time_period& period, bool& header) {
        PeriodTexts texts = period_texts(period);
        print_header_once(header, entry.channel_id);
        print_period_start(record_type, period, texts.start, texts.end);
        printf("\n");
        ++count;
    });
    if (!listed) {
        printf("No channel found.\n");
        return;
    }
    printf("\nTotal have [%d] time period data has null storage id.\n", count);
}

void cmd_recoverid(IStorageSetting* setting, int channel_id) {
    Recovery recovery;
    bool listed = walk_null_periods(setting, channel_id,
                                    [&](const TChannelStorageSetting& entry, int record_type,
                                        time_period& period, bool& header) {
        recover_period(setting, recovery, entry, record_type, period, header);
    });
    if (!listed) {
        printf("No channel found.\n");
        return;
    }
    printf("\nTotal have [%d] time period data has null storage id, [%d] recover success.\n",
           recovery.null_count, recovery.success_count);
}
