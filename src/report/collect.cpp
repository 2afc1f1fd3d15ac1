// Gathers the report through the walks kelvo's commands print: spacelist's
// and vollist's records, voluse's volume walk, autoclean's measurement and
// leak rule, nullid's period walk (which also gives the recycle bound) and
// spaceinfo's channel blocks. Read-only: nothing here changes the server.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <map>

#include "helpers.h"
#include "plug_play.h"
#include "report.h"
#include "storage_setting.h"
#include "walks.h"

namespace {

// A uuid field whole but for trailing zero bytes: unlike the text up to the
// first zero byte, it tells every two distinct fields apart.
std::string id_field(const char* field, size_t width) {
    while (width > 0 && field[width - 1] == '\0') --width;
    return std::string(field, width);
}

std::string trimmed(const char* text) {
    std::string s = text;
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
}

// Library objects of one run, released in reverse order of creation.
struct Library {
    COrnStorage storage;
    COrnStorageDaemon daemon;
    IStorageSetting* setting = nullptr;
    IPlugPlayService* service = nullptr;
    ~Library() {
        if (service != nullptr) daemon.destroy_plug_play_service(&service);
        if (setting != nullptr) storage.destroy_storage_setting(&setting);
    }
};

void collect_spaces(const std::list<TSpaceInfo>& spaces, Report& report) {
    for (const TSpaceInfo& space : spaces) {
        SpaceFigures s;
        s.name = field_text(space.name, sizeof(space.name));
        s.uuid = id_field(space.uuid.uuid, sizeof(space.uuid.uuid));
        s.group_uuid = std::string(space.group_uuid.uuid, sizeof(space.group_uuid.uuid));
        char status[26];
        space_status_text(space.status, space.spare_status, status);
        s.status = trimmed(status);
        s.total_mb = space.total_size_mb;
        s.used_mb = space.used_size_mb;
        report.spaces.push_back(s);
    }
}

// vollist shows a volume under every space of its group; the report names
// the first.
int space_of_group(const Report& report, const ornsid& group) {
    for (size_t i = 0; i < report.spaces.size(); ++i)
        if (std::memcmp(report.spaces[i].group_uuid.data(), group.uuid, sizeof(group.uuid)) == 0)
            return static_cast<int>(i);
    return -1;
}

// autoclean's measurement and rule, with a time limit; it enters (chdir) each
// preallocate folder, exactly as autoclean does. A du that fails, is killed
// or prints no number measures nothing.
void measure(const TVolumeInfo& volume, const Options& options, VolumeFigures& v) {
    // At least 1 ms: a limit of 0 would mean none.
    const int limit_ms =
        static_cast<int>(std::min(std::max(options.du_timeout_s * 1000, 1.0), 2e9));
    DuReading du;
    int result = read_preallocate(volume, limit_ms, du);
    if (result == kUsageNoFolder) v.not_measured = "no preallocate folder";
    else if (result == kUsageNoDu) v.not_measured = "du could not be started";
    else if (du.missing) v.not_measured = "du not found in the absolute entries of PATH";
    else if (du.timed_out) v.not_measured = "du was killed after the time limit";
    else if (!du.succeeded) v.not_measured = "du failed";
    else if (!du.numbers) v.not_measured = "du printed no number";
    if (!v.not_measured.empty()) return;
    v.measured = true;
    v.preallocate_remain_mb = du.first_kib / 1024;
    v.preallocate_total_mb = du.total_kib / 1024;
    v.leak = volume_leaks(volume.setting.total_size_mb, v.preallocate_remain_mb,
                          volume.setting.used_size_mb, v.lost_mb);
}

// Volumes with their channels (voluse's walk) and, per channel id, the
// volume voluse shows for it: the last volume in list order that reports it.
void collect_volumes(IStorageSetting* setting, IPlugPlayService* service, const Options& options,
                     Report& report, std::map<uint32_t, std::string>& volume_of_channel,
                     FailedCall& failed) {
    walk_volume_channels(
        setting, service,
        [&](const TVolumeInfo& volume, const char(&name)[128],
            const std::list<channel_sid>& channels) {
        if (failed.call != nullptr) return;  // the report is lost: no du to wait for
        const TVolumeSetting& vs = volume.setting;
        VolumeFigures v;
        v.name = name;
        v.uuid = id_field(volume.uuid.uuid, sizeof(volume.uuid.uuid));
        v.space = space_of_group(report, vs.group_uuid);
        v.spare = vs.volume_type != 0;
        char state[20];
        volume_state_text(vs.state, state);
        v.state = trimmed(state);
        v.total_mb = vs.total_size_mb;
        v.used_mb = vs.used_size_mb;
        std::list<channel_sid> sorted = channels;
        sort_channels(sorted);
        for (const channel_sid& channel : sorted) {
            v.channel_ids.push_back(channel.channel_id);
            volume_of_channel[channel.channel_id] = name;
        }
        if (options.du) measure(volume, options, v);
        report.volumes.push_back(v);
        },
        &failed);
}

// One channel per settings entry; each query of the period walk serves both
// the null-id count (streams 1 to 4, as nullid) and the recycle bound.
void collect_channels(IStorageSetting* setting, int64_t now_ms, Report& report,
                      FailedCall& failed) {
    walk_channel_periods(
        setting, -1, kRecycleFirstStream, now_ms,
        [&report](const TChannelStorageSetting& entry, bool) {
        ChannelFigures c;
        c.channel_id = entry.channel_id;
        c.sid = field_text(entry.sid, sizeof(entry.sid));
        report.channels.push_back(c);
        },
        [&report, now_ms](const TChannelStorageSetting&, int record_type, int stream, int result,
                          std::list<time_period>& periods) {
        ChannelFigures& c = report.channels.back();
        if (stream >= kStorageIdFirstStream) {
            if (result != 0) ++c.query_failures;
            for (const time_period& period : periods)
                if (is_null_storage_id(period)) ++c.null_storage_ids;
        }
        RecycleFigures r;
        r.record_type = record_type;
        r.stream = stream;
        r.from_ms = recycle_window_start_ms(now_ms);
        r.query_failed = result != 0;
        r.whole_window = recycle_bound_from_answer(periods, r.from_ms, now_ms, r.bound_ms) ==
                         RecycleBound::kWholeWindow;
        c.recycle.push_back(r);
    },
        &failed);
}

// spaceinfo's channel blocks of every space, attached to the channel
// entries with the same sid; a channel repeated later in the profiles
// (spaceinfo shows it again) is taken once.
void collect_recordings(IStorageSetting* setting, const std::list<TSpaceInfo>& spaces,
                        Report& report, FailedCall& failed) {
    int index = 0;
    for (const TSpaceInfo& space : spaces) {
        const ornsid space_id(space.uuid.uuid);
        walk_space_channels(
            setting, space_id,
            [&](const SpaceChannel& block) {
            if (!block.configured) return;
            bool sized = false;
            long long size_mb = 0;
            for (ChannelFigures& c : report.channels) {
                if (!same_sid(c.sid.c_str(), block.channel.sid)) continue;
                if (!c.recordings.empty() && c.recordings.back().space == index) continue;
                if (!sized)
                    failed.note("get_total_recording_size",
                                setting->get_total_recording_size(space_id, block.channel,
                                                                  &size_mb));
                sized = true;
                Recordings r;
                r.space = index;
                r.size_mb = size_mb;
                for (int t = 0; t < 2; ++t) r.days_failed[t] = block.days_result[t] != 0;
                for (int t = 0; t < 2; ++t)
                    for (int i = 0; block.days[t].days != nullptr && i < block.days[t].day_count;
                         ++i)
                        r.days[t].push_back(block.days[t].days[i] ? block.days[t].days[i] : "");
                c.recordings.push_back(r);
            }
            },
            &failed);
        ++index;
    }
}

// Whether the library can name the hour folder of the present time: without
// the recorder's local time it cannot, and recycles nothing.
bool names_hour_folders(int64_t now_ms) {
    char path[512] = {};
    stream_info info;
    info.record_type = kRecordTypeNormal;
    return make_hour_folder_full_path(path, "", info, now_ms) == 0;
}

// The report is lost once a call fails: |error| names it.
bool failed_call(const FailedCall& failed, Report& report, std::string& error) {
    if (failed.call == nullptr) return false;
    report.failed_call = failed.call;
    error = report.failed_call + " failed (result " + std::to_string(failed.result) + ")";
    return true;
}

}  // namespace

bool collect_report(const Options& options, Report& report, std::string& error) {
    Library s;
    s.storage.create_storage_setting(&s.setting);
    if (s.setting == nullptr) {
        report.failed_call = "create_storage_setting";
        error = "cannot reach the storage library";
        return false;
    }
    s.daemon.create_plug_play_service(&s.service);
    if (s.service == nullptr) {
        report.failed_call = "create_plug_play_service";
        error = "cannot reach the storage library's plug and play service";
        return false;
    }
    const int64_t now_s = static_cast<int64_t>(time(nullptr));
    report.generated_s = now_s;

    FailedCall failed;
    std::list<TSpaceInfo> spaces;
    failed.note("get_space_list", s.setting->get_space_list(spaces));
    if (failed_call(failed, report, error)) return false;
    collect_spaces(spaces, report);
    std::map<uint32_t, std::string> volume_of_channel;
    collect_volumes(s.setting, s.service, options, report, volume_of_channel, failed);
    if (failed_call(failed, report, error)) return false;

    collect_channels(s.setting, now_s * 1000, report, failed);
    if (failed_call(failed, report, error)) return false;
    for (ChannelFigures& c : report.channels) {
        auto found = volume_of_channel.find(c.channel_id);
        if (found == volume_of_channel.end()) continue;
        c.has_volume = true;
        c.volume = found->second;
    }
    collect_recordings(s.setting, spaces, report, failed);
    report.names_hour_folders = names_hour_folders(now_s * 1000);
    return !failed_call(failed, report, error);
}
