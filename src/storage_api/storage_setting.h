// Storage setting interface of the recording server's storage library:
// identifiers, space and volume records, and the factory that hands out
// the setting interface.
#ifndef KELVO_STORAGE_API_STORAGE_SETTING_H
#define KELVO_STORAGE_API_STORAGE_SETTING_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>

#include "channel.h"
#include "ornsid.h"

struct TSpaceInfo {
    ornsid uuid;
    char reserved_76[4];
    char name[512];
    ornsid group_uuid;
    uint8_t field_668;
    char reserved_669[3];
    ornsid field_672;
    uint32_t field_748;
    char field_752[16];
    int64_t field_768;
    uint32_t field_776;
    char reserved_780[4];
    int64_t field_784;
    uint32_t field_792;
    uint8_t field_796;
    char reserved_797[3];
    int64_t total_size_mb;
    int64_t used_size_mb;
    uint32_t status;
    int32_t spare_status;
    uint32_t field_824;
    char reserved_828[4];

    TSpaceInfo() {
        std::memset(static_cast<void*>(this), 0, sizeof(*this));
        uuid = ornsid();
        group_uuid = ornsid();
        field_672 = ornsid();
    }
};
static_assert(offsetof(TSpaceInfo, uuid) == 0, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, name) == 80, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, group_uuid) == 592, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_668) == 668, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_672) == 672, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_748) == 748, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_752) == 752, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_768) == 768, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_776) == 776, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_784) == 784, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_792) == 792, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_796) == 796, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, total_size_mb) == 800, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, used_size_mb) == 808, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, status) == 816, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, spare_status) == 820, "TSpaceInfo layout");
static_assert(offsetof(TSpaceInfo, field_824) == 824, "TSpaceInfo layout");
static_assert(sizeof(TSpaceInfo) == 832, "TSpaceInfo is 832 bytes");

// Volume descriptor; also embedded in every volume setting.
struct TVolumeConfig {
    char field_0[512];
    char field_512[512];
    char field_1024[64];
    int32_t field_1088;
    int32_t field_1092;
    int32_t volume_no;
    int32_t field_1100;
    char field_1104[256];
    char path[1024];

    TVolumeConfig() {
        std::memset(static_cast<void*>(this), 0, sizeof(*this));
        field_1088 = -1;
        field_1092 = -1;
        volume_no = -1;
        field_1100 = -1;
    }
};
static_assert(offsetof(TVolumeConfig, field_1088) == 1088, "TVolumeConfig layout");
static_assert(offsetof(TVolumeConfig, field_1092) == 1092, "TVolumeConfig layout");
static_assert(offsetof(TVolumeConfig, volume_no) == 1096, "TVolumeConfig layout");
static_assert(offsetof(TVolumeConfig, field_1100) == 1100, "TVolumeConfig layout");
static_assert(offsetof(TVolumeConfig, field_1104) == 1104, "TVolumeConfig layout");
static_assert(offsetof(TVolumeConfig, path) == 1360, "TVolumeConfig layout");
static_assert(sizeof(TVolumeConfig) == 2384, "TVolumeConfig is 2384 bytes");

// The part of a volume record that get/set_volume_setting read and write.
struct TVolumeSetting {
    char label[512];
    uint32_t field_512;
    uint32_t volume_type;  // 0 normal, anything else spare
    TVolumeConfig config;
    int64_t total_size_mb;
    uint32_t field_2912;
    uint32_t field_2916;
    int64_t field_2920;
    uint32_t field_2928;
    int32_t state;
    ornsid group_uuid;
    ornsid field_3012;
    int64_t used_size_mb;
    uint8_t field_3096;
    char reserved_3097[3];
    uint32_t field_3100;

    TVolumeSetting() : config() {
        std::memset(label, 0, sizeof(label));
        field_512 = 0;
        volume_type = 0;
        total_size_mb = 0;
        field_2912 = 0;
        field_2916 = 95;
        field_2920 = 0;
        field_2928 = 1;
        state = 0;
        group_uuid = ornsid();
        field_3012 = ornsid();
        used_size_mb = 0;
        field_3096 = 0;
        std::memset(reserved_3097, 0, sizeof(reserved_3097));
        field_3100 = 0;
    }
};
static_assert(offsetof(TVolumeSetting, field_512) == 512, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, volume_type) == 516, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, config) == 520, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, config) + offsetof(TVolumeConfig, volume_no) == 1616,
              "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, config) + offsetof(TVolumeConfig, path) == 1880,
              "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, total_size_mb) == 2904, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_2912) == 2912, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_2916) == 2916, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_2920) == 2920, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_2928) == 2928, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, state) == 2932, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, group_uuid) == 2936, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_3012) == 3012, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, used_size_mb) == 3088, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_3096) == 3096, "TVolumeSetting layout");
static_assert(offsetof(TVolumeSetting, field_3100) == 3100, "TVolumeSetting layout");
static_assert(sizeof(TVolumeSetting) == 3104, "TVolumeSetting is 3104 bytes");

struct TVolumeInfo {
    ornsid uuid;
    char reserved_76[4];
    TVolumeSetting setting;

    TVolumeInfo() { std::memset(reserved_76, 0, sizeof(reserved_76)); }
};
static_assert(offsetof(TVolumeInfo, setting) == 80, "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, volume_type) == 596,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, config) == 600,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, config) +
                      offsetof(TVolumeConfig, volume_no) ==
                  1696,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, config) +
                      offsetof(TVolumeConfig, path) ==
                  1960,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, total_size_mb) == 2984,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, state) == 3012,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, group_uuid) == 3016,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, field_3012) == 3092,
              "TVolumeInfo layout");
static_assert(offsetof(TVolumeInfo, setting) + offsetof(TVolumeSetting, used_size_mb) == 3168,
              "TVolumeInfo layout");
static_assert(sizeof(TVolumeInfo) == 3184, "TVolumeInfo is 3184 bytes");

// Only the operations the tool calls, in their order in the interface.
class IStorageSetting {
public:
    virtual int set_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) = 0;
    virtual int get_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) = 0;
    virtual int refresh_space(ornsid group_uuid) = 0;
    virtual int get_total_recording_size(ornsid space_uuid, channel_sid channel,
                                         long long* size_mb) = 0;
    virtual int get_recording_size(ornsid space_uuid, channel_sid channel, int record_type,
                                   long long* size_mb) = 0;
    virtual int get_storage_id_profile_list(ornsid space_uuid,
                                            std::list<TStoreIDProfile>& profiles) = 0;
    virtual int get_space_list(std::list<TSpaceInfo>& spaces) = 0;
    virtual int get_volume_list(std::list<TVolumeInfo>& volumes) = 0;
    // |flag|: undocumented; kelvo always passes 1 and depends on no other value.
    virtual int get_channel_setting_list(std::list<TChannelStorageSetting>& settings,
                                         int flag) = 0;

protected:
    virtual ~IStorageSetting() = default;
};

class IChannelStorageConfiguration;

// Factory of storage settings and channel storage configurations.
class COrnStorage {
public:
    COrnStorage();
    ~COrnStorage();
    COrnStorage(const COrnStorage&) = delete;
    COrnStorage& operator=(const COrnStorage&) = delete;

    void create_storage_setting(IStorageSetting** setting);
    void destroy_storage_setting(IStorageSetting** setting);
    int create_channel_configuration(channel_sid channel, IChannelStorageConfiguration** config);
    void destroy_channel_configuration(int channel_id, IChannelStorageConfiguration** config);
};

#endif
