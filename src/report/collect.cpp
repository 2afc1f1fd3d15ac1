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

bool used_percent(int64_t used_mb, int64_t total_mb, double& percent) {
    if (total_mb <= 0) return false;
    percent = use_percent(used_mb, total_mb);
    return true;
}

std::string channel_label(uint32_t channel_id) {
    char label[16];
    snprintf(label, sizeof(label), "ch%.2d", shown_channel(channel_id));
    return label;
}

namespace {

// The start of the local day that holds |t_s|.
int64_t local_day_start(int64_t t_s) {
    time_t t = static_cast<time_t>(t_s);
    struct tm day = {};
    localtime_r(&t, &day);
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&day));
}

}  // namespace

bool oldest_day_start(const Recordings& r, int64_t& start_s) {
    bool found = false;
    for (const std::vector<std::string>& days : r.days)
        for (const std::string& day : days) {
            struct tm t = {};
            char rest = 0;
            if (sscanf(day.c_str(), "%4d-%2d-%2d%c", &t.tm_year, &t.tm_mon, &t.tm_mday, &rest) !=
                    3 ||
                t.tm_mon < 1 || t.tm_mon > 12 || t.tm_mday < 1 || t.tm_mday > 31)
                continue;
            t.tm_year -= 1900;
            t.tm_mon -= 1;
            t.tm_isdst = -1;
            const int64_t start = static_cast<int64_t>(mktime(&t));
            if (!found || start < start_s) start_s = start;
            found = true;
        }
    return found;
}

namespace {

struct Judgement {
    const char* text;
    int severity;
};

// Texts not listed (none today) count as critical: an unknown state is no
// state to trust.
int severity_of(const Judgement* table, size_t size, const std::string& text) {
    for (size_t i = 0; i < size; ++i)
        if (text == table[i].text) return table[i].severity;
    return 2;
}

const Judgement kSpaceStatus[] = {
    {"Normal", 0},
    {"Normal(With Spare)", 0},
    {"Allocating", 0},
    {"Expanding", 0},
    {"Deleting", 0},
    {"Warning", 1},
    {"Warning(Spare Error)", 1},
    {"Normal(Spare Error)", 1},
    {"Spare Enabled(With Spare)", 1},
    {"Error", 2},
    {"Error(Spare Error)", 2},
    {"UNKNOW_STATUS", 2},
};

const Judgement kVolumeState[] = {
    {"ACTIVE", 0},
    {"STANDBY", 0},
    {"CREAT_SHARE_FOLDERS", 0},
    {"STANDBY_NOT_MOUNTED", 1},
    {"VOL_OVER_THRESHOLD", 1},
    {"REMOVING_VOLUME", 1},
    {"", 1},
    {"NOT_MOUNTED", 2},
    {"UNKNOW_ERROR", 2},
    {"UNKNOW_STATUS", 2},
};

}  // namespace

int space_status_severity(const std::string& status) {
    return severity_of(kSpaceStatus, sizeof(kSpaceStatus) / sizeof(kSpaceStatus[0]), status);
}

int volume_state_severity(const std::string& state) {
    return severity_of(kVolumeState, sizeof(kVolumeState) / sizeof(kVolumeState[0]), state);
}

namespace {

void add_problem(Report& report, bool critical, const char* kind, const std::string& subject,
                 const std::string& text, const std::string& uuid = "") {
    report.problems.push_back(Problem{critical, kind, subject, text, uuid});
}

void check_use(const Options& options, Report& report, const std::string& subject,
               const std::string& uuid, int64_t used_mb, int64_t total_mb) {
    double percent = 0;
    if (!used_percent(used_mb, total_mb, percent)) return;
    const bool critical = options.critical.alerts(percent);
    if (!critical && !options.warning.alerts(percent)) return;
    char text[192];
    snprintf(text, sizeof(text), "used %.2f%% of %lld MB (%s range %s)", percent,
             static_cast<long long>(total_mb), critical ? "critical" : "warning",
             (critical ? options.critical : options.warning).text().c_str());
    add_problem(report, critical, "use", subject, text, uuid);
}

}  // namespace

void find_problems(const Options& options, Report& report) {
    if (!report.names_hour_folders)
        add_problem(report, true, "local_time", "server",
                    "the storage library has no local time (an unknown recorder zone?): it names "
                    "no hour folder and recycles nothing");
    for (const SpaceFigures& s : report.spaces) {
        const std::string subject = "space " + s.name;
        if (int severity = space_status_severity(s.status))
            add_problem(report, severity == 2, "state", subject, "status " + s.status, s.uuid);
        check_use(options, report, subject, s.uuid, s.used_mb, s.total_mb);
    }
    for (const VolumeFigures& v : report.volumes) {
        const std::string subject = "volume " + v.name;
        if (int severity = volume_state_severity(v.state))
            add_problem(report, severity == 2, "state", subject,
                        "state " + (v.state.empty() ? std::string("(empty)") : v.state), v.uuid);
        check_use(options, report, subject, v.uuid, v.used_mb, v.total_mb);
        if (!v.not_measured.empty())
            add_problem(report, false, "not_measured", subject, "not measured: " + v.not_measured,
                        v.uuid);
        if (!v.leak) continue;
        char text[160];
        snprintf(text, sizeof(text), "leaks: %lld MB lost, over 5%% of %lld MB",
                 static_cast<long long>(v.lost_mb), static_cast<long long>(v.total_mb));
        add_problem(report, true, "leak", subject, text, v.uuid);
    }
    const int64_t today_s = local_day_start(report.generated_s);
    for (const ChannelFigures& c : report.channels) {
        const std::string subject = "channel " + channel_label(c.channel_id);
        if (c.null_storage_ids > 0)
            add_problem(report, false, "null_ids", subject,
                        std::to_string(c.null_storage_ids) +
                            " time periods with a null storage id");
        // An empty answer is a stream without recordings in the window; only a
        // query that failed hides recordings that volclean would take.
        for (const RecycleFigures& r : c.recycle) {
            if (!r.whole_window || !r.query_failed) continue;
            char stream[16];
            snprintf(stream, sizeof(stream), " %s S%.2d", record_type_label(r.record_type),
                     r.stream);
            add_problem(report, false, "failed_queries", subject + stream,
                        "period query failed: volclean would recycle the whole window");
        }
        for (const Recordings& r : c.recordings)
            for (int t = 0; t < 2; ++t)
                if (r.days_failed[t])
                    add_problem(report, false, "failed_queries",
                                subject + " " + record_type_label(kRecordTypes[t]),
                                "recording days query failed in space " +
                                    report.spaces[static_cast<size_t>(r.space)].name);
        if (!options.min_days.set) continue;
        bool any = false;
        int64_t oldest = 0, start = 0;
        for (const Recordings& r : c.recordings)
            if (oldest_day_start(r, start) && (!any || start < oldest)) {
                oldest = start;
                any = true;
            }
        // Calendar days back to the oldest day, today being 0; rounded, as a
        // day with a change of summer time is not 86400 s long.
        const double age_days = std::floor((today_s - oldest) / 86400.0 + 0.5);
        if (!any || !options.min_days.alerts(age_days)) continue;
        char text[128];
        snprintf(text, sizeof(text), "recordings go back %.0f days (range %s)", age_days,
                 options.min_days.text().c_str());
        add_problem(report, false, "retention", subject, text);
    }
}
