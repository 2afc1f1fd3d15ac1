// Judges the gathered report: the severity of the server's own status and
// state texts, percent used, retention and every problem the outputs show.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "helpers.h"
#include "report.h"
#include "walks.h"

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
