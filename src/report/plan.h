// kelvo-report --plan: what volclean or autoclean would remove, found
// read-only through the commands' own walk, bound and window, with the hour
// folders the library names.
#ifndef KELVO_REPORT_PLAN_H
#define KELVO_REPORT_PLAN_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "walks.h"

// volclean of one channel (-1: all) or autoclean.
struct PlanRequest {
    bool volclean = true;
    int channel_id = -1;
};

// "volclean:CHANNEL" (CHANNEL read as kelvo reads it) or "autoclean".
bool parse_plan_request(const std::string& text, PlanRequest& request);

// A volume autoclean measures, with its figures and decision.
struct PlanVolume {
    std::string name;  // as autoclean shows it
    std::string uuid;
    int measured = 0;  // 0, kUsageNoFolder or kUsageNoDu
    VolumeLeak leak;
    bool no_channels = false;  // leaking, but the library lists no channel
};

// One stream of the walk, under one channel entry (and, for autoclean, one
// leaking volume).
struct PlanStream {
    uint32_t channel_id = 0;
    std::string sid;
    int record_type = 0;
    int stream = 0;
    RecycleBound bound = RecycleBound::kNoSession;
    bool query_failed = false;
    bool recycles = false;  // the window goes to the engines
    int64_t from_ms = 0;
    int64_t to_ms = 0;
    int volume = -1;  // autoclean: index into the volumes
};

// An existing hour folder that holds an instant of a stream's window.
struct PlanFolder {
    std::string path;
    int64_t bytes = 0;           // on disk, as du counts them
    bool inside_window = false;  // every instant it holds lies in the window
    int listed_periods = 0;      // periods of the stream's answer it holds
    size_t stream = 0;           // index into the streams
    std::string place;           // the space (volclean) or volume (autoclean)
    std::string place_uuid;
    bool goes() const { return inside_window && listed_periods == 0; }
};

struct Plan {
    PlanRequest request;
    int64_t now_ms = 0;
    int64_t from_ms = 0;
    std::string nothing;  // kelvo's message when it would do nothing at all
    bool named = true;    // the library named the hour folders
    std::vector<PlanVolume> volumes;
    std::vector<PlanStream> streams;
    std::vector<PlanFolder> folders;
};

// Per channel (or for the run): what would go, and what the window holds.
struct PlanTotals {
    int64_t folders = 0;  // that go
    int64_t bytes = 0;
    int64_t kept_listed = 0;   // inside a window, holding listed periods
    int64_t whole_window = 0;  // streams recycled up to the present time
};
PlanTotals plan_totals(const Plan& plan, bool all, uint32_t channel_id);

// Gathers the plan; false, with |error|, when the library cannot be reached.
bool collect_plan(const PlanRequest& request, Plan& plan, std::string& error);
void write_plan_text(FILE* out, const Plan& plan);
void write_plan_json(FILE* out, const Plan& plan);
// "kelvo volclean N" or "kelvo autoclean".
std::string plan_command_line(const PlanRequest& request);

#endif
