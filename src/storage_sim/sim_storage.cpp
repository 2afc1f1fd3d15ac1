// COrnStorage and the storage setting: spaces, volumes, channel settings and
// the stored setting of one volume.
#include <cstdint>
#include <list>
#include <string>

#include "sim.h"

namespace sim {

const char* const kVolumeColumns =
    "uuid, group_uuid, path, volume_no, volume_type, state, total_size_mb, used_size_mb, "
    "label";

void fill_volume(const Stmt& row, TVolumeInfo& volume) {
    int size = 0;
    const unsigned char* data = row.bytes(0, &size);
    copy_uuid(volume.uuid, data, size);
    TVolumeSetting& setting = volume.setting;
    data = row.bytes(1, &size);
    copy_uuid(setting.group_uuid, data, size);
    data = row.bytes(2, &size);
    copy_field(setting.config.path, sizeof(setting.config.path), data, size);
    setting.config.volume_no = static_cast<int32_t>(row.int64(3));
    setting.volume_type = static_cast<uint32_t>(row.int64(4));
    setting.state = static_cast<int32_t>(row.int64(5));
    setting.total_size_mb = row.int64(6);
    setting.used_size_mb = row.int64(7);
    data = row.bytes(8, &size);
    copy_field(setting.label, sizeof(setting.label), data, size);
}

const char* const kProfileColumns =
    "channel_id, sid, space_uuid, group_uuid, volume_uuid, storage_id";

void fill_profile(const Stmt& row, TStoreIDProfile& profile) {
    storage_location& location = profile.location;
    fill_channel(row, location.owner_channel);
    int size = 0;
    const unsigned char* data = row.bytes(2, &size);
    copy_uuid(location.space_uuid, data, size);
    data = row.bytes(3, &size);
    copy_uuid(location.group_uuid, data, size);
    data = row.bytes(4, &size);
    copy_uuid(location.volume_uuid, data, size);
    data = row.bytes(5, &size);
    copy_field(profile.storage_id, sizeof(profile.storage_id), data, size);
}

namespace {

// Appends every row of |sql| to |out| as |fill| makes it, in one call:
// nothing is appended when reading fails or a fault row names |op|.
template <typename Record, typename Fill>
int read_list(const char* op, std::initializer_list<Arg> args, const char* sql, Fill fill,
              std::list<Record>& out) {
    Call call;
    int result = 0;
    const bool failed = fault(op, "*", true, &result);
    std::list<Record> found;
    if (!failed) {
        Stmt rows(sql);
        while (rows.step()) {
            found.emplace_back();
            fill(rows, found.back());
        }
    }
    log_call(op, args, result);
    if (!call.finish()) return -1;
    if (failed) return result;
    out.splice(out.end(), found);
    return 0;
}

void fill_space(const Stmt& rows, TSpaceInfo& space) {
    int size = 0;
    const unsigned char* data = rows.bytes(0, &size);
    copy_uuid(space.uuid, data, size);
    data = rows.bytes(1, &size);
    copy_field(space.name, sizeof(space.name), data, size);
    data = rows.bytes(2, &size);
    copy_uuid(space.group_uuid, data, size);
    space.total_size_mb = rows.int64(3);
    space.used_size_mb = rows.int64(4);
    space.status = static_cast<uint32_t>(rows.int64(5));
    space.spare_status = static_cast<int32_t>(rows.int64(6));
}

}  // namespace

int StorageSetting::get_space_list(std::list<TSpaceInfo>& spaces) {
    return read_list("get_space_list", {},
                     "SELECT uuid, name, group_uuid, total_size_mb, used_size_mb, status, "
                     "spare_status FROM spaces ORDER BY rowid",
                     fill_space, spaces);
}

int StorageSetting::get_volume_list(std::list<TVolumeInfo>& volumes) {
    static const std::string sql =
        std::string("SELECT ") + kVolumeColumns + " FROM volumes ORDER BY rowid";
    return read_list("get_volume_list", {}, sql.c_str(), fill_volume, volumes);
}

int StorageSetting::get_channel_setting_list(std::list<TChannelStorageSetting>& settings,
                                             int flag) {
    return read_list("get_channel_setting_list", {arg("flag", flag)},
                     "SELECT channel_id, sid FROM channels ORDER BY rowid",
                     fill_channel<TChannelStorageSetting>, settings);
}

}  // namespace sim

COrnStorage::COrnStorage() { sim::log_call("COrnStorage", {}); }

COrnStorage::~COrnStorage() { sim::log_call("~COrnStorage", {}); }

void COrnStorage::create_storage_setting(IStorageSetting** setting) {
    if (!sim::open_db()) return;
    sim::Call call;
    int result = 0;
    bool failed = sim::fault("create_storage_setting", "*", false, &result);
    sim::log_call("create_storage_setting", {});
    if (!call.finish() || failed) return;
    *setting = new sim::StorageSetting();
}

void COrnStorage::destroy_storage_setting(IStorageSetting** setting) {
    sim::log_call("destroy_storage_setting", {});
    if (setting == nullptr || *setting == nullptr) return;
    delete static_cast<sim::StorageSetting*>(*setting);
    *setting = nullptr;
}

int COrnStorage::create_channel_configuration(channel_sid channel,
                                              IChannelStorageConfiguration** config) {
    return sim::create_channel_configuration(channel, config);
}

void COrnStorage::destroy_channel_configuration(int channel_id,
                                                IChannelStorageConfiguration** config) {
    sim::destroy_channel_configuration(channel_id, config);
}
