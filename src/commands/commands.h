// Command handlers and the helpers they share.
#ifndef KELVO_COMMANDS_COMMANDS_H
#define KELVO_COMMANDS_COMMANDS_H

#include <cstdint>
#include <functional>
#include <list>

#include "channel.h"
#include "channel_config.h"
#include "plug_play.h"
#include "storage_setting.h"

// Spaces and volumes.
void cmd_spacelist(IStorageSetting* setting);
void cmd_vollist(IStorageSetting* setting, const char* space_name);
void cmd_volset(IStorageSetting* setting, const char* volume_name, int volume_type,
                uint32_t volume_state);
void space_status_text(uint32_t status, int32_t spare_status, char out[26]);
void volume_state_text(int32_t state, char out[20]);
// Copies the rest of |path| after its first "share/" into |name| (128
// bytes, cut to 127 characters); leaves |name| untouched without "share/".
void strip_share_prefix(const char* path, char name[128]);
// The name vollist shows: the path rest after "share/", else "VolName_<no>".
void volume_display_name(const TVolumeInfo& volume, char name[128]);
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
// Every volume in list order with its display name and the channels the
// service reports on it (voluse).
using VolumeChannelsVisit = std::function<void(const TVolumeInfo& volume, const char (&name)[128],
                                               const std::list<channel_sid>& channels)>;
void walk_volume_channels(IStorageSetting* setting, IPlugPlayService* service,
                          const VolumeChannelsVisit& visit);
// By channel id, stable (volchn's order).
void sort_channels(std::list<channel_sid>& channels);

// Storage ids.
void cmd_nullid(IStorageSetting* setting, int channel_id);
void cmd_recoverid(IStorageSetting* setting, int channel_id);
void time_to_text(int64_t seconds, char out[256]);
int probe_period_location(IStorageSetting& setting, const stream_info& info, int64_t time_ms,
                          storage_location& out);
inline bool is_null_storage_id(const time_period& period) { return period.storage_id[0] == '\0'; }
// What the period walk hands out, channel entry by channel entry.
class PeriodVisitor {
public:
    // Each selected entry with a channel, before its answers; without a
    // session the entry has no answers.
    virtual void channel(const TChannelStorageSetting& entry, bool has_session) = 0;
    // One query (0 to now_ms) and its periods in the library's order; record
    // type 4 then 1, streams first_stream to 4 in each.
    virtual void answer(const TChannelStorageSetting& entry, int record_type, int stream,
                        int result, std::list<time_period>& periods) = 0;

protected:
    ~PeriodVisitor() = default;
};
// One channel session per selected entry (-1: all), one query per record
// type and stream. False when the library lists no channel slot at all.
bool walk_channel_periods(IStorageSetting* setting, int channel_id, int first_stream,
                          int64_t now_ms, PeriodVisitor& visitor);

// Recycling.
void cmd_volclean(IStorageSetting* setting, int channel_id);
void cmd_autoclean(IStorageSetting* setting);
// What the recycle bound of one stream comes to (as a 32-bit result: 0, 1, -1).
enum class RecycleBound : int32_t {
    kFound = 0,        // bound: the earliest listed start in the window, minus 1
    kWholeWindow = 1,  // nothing listed in the window: bound at the present time
    kNoSession = -1,   // no channel session: no bound, the stream is skipped
};
// The bound of one stream (|alarm| 0: record type 4, else 1) from one
// period query of its own channel session, |from_ms| to now.
RecycleBound compute_recycle_bound(channel_sid channel, uint32_t alarm, uint32_t stream,
                                   const int64_t& from_ms, int64_t& bound_ms);
void recycle_unit(IStorageSetting* setting, TVolumeInfo volume, int channel_id);
int measure_volume_usage(const TVolumeInfo& volume, int64_t& preallocate_remain_mb,
                         int64_t& used_size_mb);
// Start of the window recycling looks back over: 30 days before |now_ms|.
int64_t recycle_window_start_ms(int64_t now_ms);
// The one rule for the bound from a period answer: the earliest start
// among the periods that reach |from_ms|, minus 1; without such a period
// the whole window, up to |now_ms|.
RecycleBound recycle_bound_from_answer(const std::list<time_period>& periods, int64_t from_ms,
                                       int64_t now_ms, int64_t& bound_ms);
// measure_volume_usage without its messages: 0, or why it measured nothing.
enum UsageFailure { kUsageNoFolder = -1, kUsageNoDu = -2 };
int measure_preallocate(const TVolumeInfo& volume, int64_t& preallocate_remain_mb);
// What one run of du printed about a folder.
struct DuReading {
    bool printed = false;    // at least one line
    int64_t first_kib = 0;   // the first line's number, 0 when it has none (autoclean's reading)
    int64_t total_kib = 0;   // the last line's: the folder's own total
    bool numbers = false;    // both lines begin with a number
    bool succeeded = false;  // du exited with status 0 in time
    bool timed_out = false;  // killed after the time limit
};
// Runs du on |folder| without a shell, its standard error discarded; with
// |timeout_ms| > 0 kills it when that has passed. False when it could not
// be started at all.
bool run_du(const char* folder, int timeout_ms, DuReading& reading);
// The volume's preallocate folder entered (chdir) and measured with run_du:
// 0, kUsageNoFolder or kUsageNoDu.
int read_preallocate(const TVolumeInfo& volume, int timeout_ms, DuReading& reading);
// autoclean's rule: the volume leaks when what is neither used nor
// preallocated exceeds 5% of its size.
bool volume_leaks(int64_t total_mb, int64_t preallocate_remain_mb, int64_t used_mb,
                  int64_t& lost_mb);

// Statistics.
void cmd_spaceinfo(IStorageSetting* setting, const char* space_name);
// One channel block of a space's profiles, as spaceinfo shows it.
struct SpaceChannel {
    channel_sid channel;
    const std::list<TStorageId>* storage_ids;
    int config_result;       // of create_channel_configuration
    bool configured;         // result 0 and a configuration: the days are filled
    TRecordDayList days[2];  // record type 4, then 1; freed after the visit
};
// Walks the channel blocks of the space's storage-id profiles; after each
// block's configuration is released, |visit| gets it. Stops, false, at a
// channel without a configuration.
bool walk_space_channels(IStorageSetting* setting, const ornsid& space_id,
                         const std::function<void(const SpaceChannel&)>& visit);

#endif
