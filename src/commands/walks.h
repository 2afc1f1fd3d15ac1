// What kelvo's commands and kelvo-report share: the walks over the
// library's lists, each handing its items to a std::function, and the texts
// and rules both programs apply to what the walks hand out.
#ifndef KELVO_COMMANDS_WALKS_H
#define KELVO_COMMANDS_WALKS_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>

#include "channel.h"
#include "channel_config.h"
#include "plug_play.h"
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
using StreamVisit = std::function<void(int record_type, int stream)>;
inline void for_each_record_stream(int first_stream, const StreamVisit& visit) {
    for (int record_type : kRecordTypes)
        for (int stream = first_stream; stream <= kLastStream; ++stream)
            visit(record_type, stream);
}

// A number argument as kelvo reads it: strtol's leading number, narrowed to
// int (so "-1" is every channel, "3x" is 3).
inline int command_number(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }

// Channels are numbered from 0 inside and from 1 on screen.
inline int shown_channel(uint32_t channel_id) { return static_cast<int>(channel_id + 1u); }

// Sids read as texts: up to the first zero byte, at most 32 characters.
inline bool same_sid(const char* sid, const char* other) { return strncmp(sid, other, 32) == 0; }

inline bool is_null_storage_id(const time_period& period) { return period.storage_id[0] == '\0'; }

// Use percentage in single precision, as every report shows it.
inline double use_percent(int64_t used_mb, int64_t total_mb) {
    float used = static_cast<float>(used_mb);
    float total = static_cast<float>(total_mb);
    return static_cast<double>(used * 100.0f / total);
}

// The status and state texts of spacelist and vollist, padded to 25 and 19
// characters.
void space_status_text(uint32_t status, int32_t spare_status, char out[26]);
void volume_state_text(int32_t state, char out[20]);
// The name vollist shows: the path rest after "share/", else "VolName_<no>".
void volume_display_name(const TVolumeInfo& volume, char name[128]);

// The first library call of a walk whose result was not 0, for kelvo-report,
// which must never show a partial walk as whole; kelvo's commands go on past
// a failure as they always did and pass no FailedCall.
struct FailedCall {
    const char* call = nullptr;  // null while every call succeeded
    int result = 0;
    void note(const char* name, int call_result) {
        if (call != nullptr || call_result == 0) return;
        call = name;
        result = call_result;
    }
};

// Every volume in list order with its display name and the channels the
// service reports on it (voluse).
using VolumeChannelsVisit = std::function<void(const TVolumeInfo& volume, const char (&name)[128],
                                               const std::list<channel_sid>& channels)>;
void walk_volume_channels(IStorageSetting* setting, IPlugPlayService* service,
                          const VolumeChannelsVisit& visit, FailedCall* failed = nullptr);
// By channel id, stable (volchn's order).
void sort_channels(std::list<channel_sid>& channels);

// The period walk hands out each selected entry with a channel, before its
// answers (without a session the entry has no answers)...
using ChannelVisit = std::function<void(const TChannelStorageSetting& entry, bool has_session)>;
// ...then each query (0 to now_ms) with its periods in the library's order;
// record type 4 then 1, streams first_stream to 4 in each.
using PeriodAnswerVisit =
    std::function<void(const TChannelStorageSetting& entry, int record_type, int stream,
                       int result, std::list<time_period>& periods)>;
// One channel session per selected entry (-1: all), one query per record
// type and stream. False when the library lists no channel slot at all.
// A failed query hands on an empty list, whatever the library left in it:
// nothing is ever counted from a failed answer. Only the settings list goes
// to |failed|: each query's result is handed out.
bool walk_channel_periods(IStorageSetting* setting, int channel_id, int first_stream,
                          int64_t now_ms, const ChannelVisit& channel,
                          const PeriodAnswerVisit& answer, FailedCall* failed = nullptr);

// The walk's query of one stream, 0 to |to_ms|: the library's result, and
// on failure an empty list.
int query_stream_periods(IFrameChannelSession& session, int record_type, int stream, int64_t to_ms,
                         std::list<time_period>& periods);

// Start of the window recycling looks back over: 30 days before |now_ms|.
int64_t recycle_window_start_ms(int64_t now_ms);
// What the recycle bound of one stream comes to (as a 32-bit result: 0, 1, -1).
enum class RecycleBound : int32_t {
    kFound = 0,        // bound: the earliest listed start in the window, minus 1
    kWholeWindow = 1,  // nothing listed in the window: bound at the present time
    kNoSession = -1,   // no channel session: no bound, the stream is skipped
};
// The one rule for the bound from a period answer: the earliest start
// among the periods that reach |from_ms|, minus 1; without such a period
// the whole window, up to |now_ms|.
RecycleBound recycle_bound_from_answer(const std::list<time_period>& periods, int64_t from_ms,
                                       int64_t now_ms, int64_t& bound_ms);

// Which recycling a walk follows: volclean hands every stream with a bound
// to the tiers of every space, unit recycling (autoclean) only the streams
// whose database lists a period in the window.
enum class RecycleCommand { kVolclean, kUnit };
bool command_recycles(RecycleCommand command, RecycleBound bound);

// One stream of the recycling walk: its bound, the answer it came from, and
// whether the command hands the window [from_ms, bound_ms] to its engines.
struct RecycleStream {
    const TChannelStorageSetting& entry;
    int record_type;
    int stream;
    RecycleBound bound;
    int64_t from_ms;
    int64_t bound_ms;
    int query_result;  // of the period query; the bound does not examine it
    std::list<time_period> periods;
    bool recycles;
};
using RecycleChannelVisit = std::function<void(const TChannelStorageSetting& entry)>;
using RecycleStreamVisit = std::function<void(const RecycleStream& s)>;
// volclean's and unit recycling's walk: each selected entry (-1: all; |channel|
// may be empty), then record type 4 then 1, streams 0 to 4, one
// compute_recycle_bound each, from |from_ms| to the present time.
void walk_recycle_streams(const std::list<TChannelStorageSetting>& channels, int channel_id,
                          int64_t from_ms, RecycleCommand command,
                          const RecycleChannelVisit& channel, const RecycleStreamVisit& visit);

// Why the preallocate folder was not measured.
enum UsageFailure { kUsageNoFolder = -1, kUsageNoDu = -2 };
// What one run of du printed about a folder.
struct DuReading {
    bool printed = false;    // at least one line
    int64_t first_kib = 0;   // the first line's number, 0 when it has none (autoclean's reading)
    int64_t total_kib = 0;   // the last line's: the folder's own total
    bool numbers = false;    // both lines begin with a number
    bool succeeded = false;  // du exited with status 0 in time
    bool timed_out = false;  // killed after the time limit
    bool missing = false;    // no absolute PATH entry holds du: it did not run
};
// The volume's preallocate folder entered (chdir) and measured with du
// (killed after |timeout_ms| > 0): 0, kUsageNoFolder or kUsageNoDu.
int read_preallocate(const TVolumeInfo& volume, int timeout_ms, DuReading& reading);
// Kills the du that runs now, and every later one as soon as it starts: for
// a process that gives up while another thread measures.
void stop_running_du();
// autoclean's rule: the volume leaks when what is neither used nor
// preallocated exceeds 5% of its size.
bool volume_leaks(int64_t total_mb, int64_t preallocate_remain_mb, int64_t used_mb,
                  int64_t& lost_mb);

// autoclean's figures of one volume.
struct VolumeLeak {
    int64_t total_mb = 0;
    int64_t preallocate_remain_mb = 0;  // the total when du printed nothing
    int64_t used_mb = 0;
    int64_t lost_mb = 0;
    bool leaks = false;
};
// autoclean's measurement (entering the preallocate folder) and rule,
// without its messages: 0, kUsageNoFolder or kUsageNoDu.
int check_volume_leak(const TVolumeInfo& volume, VolumeLeak& leak);

// One channel block of a space's profiles, as spaceinfo shows it.
struct SpaceChannel {
    channel_sid channel;
    const std::list<TStorageId>* storage_ids;
    int config_result;       // of create_channel_configuration
    bool configured;         // result 0 and a configuration: the days are filled
    TRecordDayList days[2];  // record type 4, then 1; freed after the visit
    int days_result[2];      // of get_recording_days, in the same order
};
using SpaceChannelVisit = std::function<void(const SpaceChannel& block)>;
// Walks the channel blocks of the space's storage-id profiles; after each
// block's configuration is released, |visit| gets it. Stops, false, at a
// channel without a configuration.
// The profile list goes to |failed|; a block carries its configuration's result.
bool walk_space_channels(IStorageSetting* setting, const ornsid& space_id,
                         const SpaceChannelVisit& visit, FailedCall* failed = nullptr);

#endif
