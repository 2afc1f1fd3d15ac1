// kelvo-report: the storage figures of one server, gathered read-only with
// kelvo's own walks, and the three ways of writing them.
#ifndef KELVO_REPORT_REPORT_H
#define KELVO_REPORT_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "range.h"

struct Options {
    std::string format = "json";  // json, prometheus or check
    Range warning;                // percent used of a space or volume
    Range critical;
    Range min_days;  // age in days of a channel's oldest recording day
    bool du = true;
    double du_timeout_s = 60;  // du is killed after this long
};

struct SpaceFigures {
    std::string name;
    std::string uuid;
    std::string group_uuid;
    std::string status;  // spacelist's text, trimmed
    int64_t total_mb = 0;
    int64_t used_mb = 0;
};

struct VolumeFigures {
    std::string name;  // as vollist shows it
    std::string uuid;
    int space = -1;  // index of the first space whose group holds it
    bool spare = false;
    std::string state;  // vollist's text, trimmed
    int64_t total_mb = 0;
    int64_t used_mb = 0;
    bool measured = false;              // du ran: the next three figures hold
    int64_t preallocate_remain_mb = 0;  // du's first line, as autoclean reads it
    int64_t preallocate_total_mb = 0;   // du's last line: the whole folder
    int64_t lost_mb = 0;                // from the first line, as autoclean
    std::string not_measured;           // why du gave no figures, when asked to run
    bool leak = false;
    std::vector<uint32_t> channel_ids;  // sorted, as volchn lists them
};

struct RecycleFigures {
    int record_type = 0;
    int stream = 0;
    int64_t from_ms = 0;
    int64_t bound_ms = 0;
    bool whole_window = false;
    bool query_failed = false;
};

struct Recordings {
    int space = 0;  // index into the spaces
    int64_t size_mb = 0;
    std::vector<std::string> days[2];  // NR, AR
    bool days_failed[2] = {false, false};
};

// Start of the earliest recording day of |r| in local time; false when it
// holds no day that reads as a date.
bool oldest_day_start(const Recordings& r, int64_t& start_s);

struct ChannelFigures {
    uint32_t channel_id = 0;
    std::string sid;
    bool has_volume = false;
    std::string volume;
    int null_storage_ids = 0;
    int query_failures = 0;
    std::vector<RecycleFigures> recycle;
    std::vector<Recordings> recordings;
};

struct Problem {
    bool critical = false;
    // What the problem is about: use, state, leak, null_ids, failed_queries,
    // retention, not_measured or local_time.
    std::string kind;
    std::string subject;
    std::string text;
    std::string uuid;  // of the space or volume the subject names
};

struct Report {
    int64_t generated_s = 0;
    bool names_hour_folders = true;  // false: the library has no local time
    double duration_s = 0;
    std::vector<SpaceFigures> spaces;
    std::vector<VolumeFigures> volumes;
    std::vector<ChannelFigures> channels;
    std::vector<Problem> problems;
    // The library call whose failure left the report incomplete, if any.
    std::string failed_call;
};

// Gathers the report. False, with |error| set, when the storage library
// cannot be reached or a call whose answer the report shows whole fails
// (named in |report.failed_call|); per-stream period queries are counted
// instead.
bool collect_report(const Options& options, Report& report, std::string& error);
void find_problems(const Options& options, Report& report);
// Percent used as kelvo prints it; false when the size is not positive.
bool used_percent(int64_t used_mb, int64_t total_mb, double& percent);
// The judgement of the server's own texts: 0 fine, 1 warning, 2 critical.
int space_status_severity(const std::string& status);
int volume_state_severity(const std::string& state);
// "ch01" for channel id 0.
std::string channel_label(uint32_t channel_id);

// The text with every byte that does not start a valid UTF-8 sequence
// replaced by U+FFFD.
std::string valid_utf8(const std::string& in);

void write_json(FILE* out, const Report& report);
// The JSON answer of a report that could not be gathered, naming the
// library call that failed when one did.
void write_json_error(FILE* out, const std::string& error, const std::string& failed_call);
void write_prometheus(FILE* out, const Report& report, bool success);
// Returns the exit status of the check (0 OK, 1 WARNING, 2 CRITICAL).
int write_check(FILE* out, const Options& options, const Report& report);
void write_check_unknown(FILE* out, const std::string& why);

#endif
