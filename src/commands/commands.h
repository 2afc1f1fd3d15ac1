// Command handlers and the helpers they share.
#ifndef KELVO_COMMANDS_COMMANDS_H
#define KELVO_COMMANDS_COMMANDS_H

#include <cstdint>

#include "channel.h"
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
int compute_recycle_bound(channel_sid channel, uint32_t alarm, uint32_t stream,
                          const int64_t& from_ms, int64_t& bound_ms);
void recycle_unit(IStorageSetting* setting, TVolumeInfo volume, int channel_id);
int measure_volume_usage(const TVolumeInfo& volume, int64_t& preallocate_remain_mb,
                         int64_t& used_size_mb);

// Statistics.
void cmd_spaceinfo(IStorageSetting* setting, const char* space_name);

#endif
