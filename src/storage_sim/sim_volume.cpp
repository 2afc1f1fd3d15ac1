// The stored setting of one volume.
#include <cstring>
#include <string>

#include "sim.h"

namespace sim {
namespace {

// The rows with that uuid, first by rowid; |rowid| of the first. Returns
// how many there are, at most 2.
int find_volume(const std::string& uuid, long long& rowid, TVolumeInfo& volume) {
    static const std::string sql = std::string("SELECT ") + kVolumeColumns +
                                   ", rowid FROM volumes WHERE uuid = ?1 ORDER BY rowid LIMIT 2";
    Stmt rows(sql.c_str());
    rows.bind(1, uuid);
    int count = 0;
    while (rows.step()) {
        if (count++ == 0) {
            fill_volume(rows, volume);
            rowid = rows.int64(9);
        }
    }
    return count;
}

bool same_bytes(const void* a, const void* b, size_t size) { return std::memcmp(a, b, size) == 0; }

}  // namespace

int StorageSetting::get_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) {
    std::string uuid = uuid_text(volume_uuid);
    Call call;
    int result = 0;
    // Every byte no column maps to keeps the record's default.
    TVolumeInfo volume;
    if (!fault("get_volume_setting", uuid, false, &result)) {
        long long rowid = 0;
        result = find_volume(uuid, rowid, volume) > 0 ? 0 : -1;
    }
    log_call("get_volume_setting", {arg("uuid", uuid)}, result);
    if (!call.finish()) return -1;
    if (result == 0) *setting = volume.setting;
    return result;
}

// A field the record carries as it was read is left as stored, so values the
// record cannot hold whole are never cut; the sizes are the server's own.
int StorageSetting::set_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) {
    std::string uuid = uuid_text(volume_uuid);
    std::string label = field_text(setting->label, sizeof(setting->label));
    Call call(true);
    TVolumeInfo stored;
    long long rowid = 0;
    int result = -1;
    // Two rows of one uuid: which one is meant cannot be told.
    if (find_volume(uuid, rowid, stored) == 1) {
        const TVolumeSetting& old = stored.setting;
        Stmt update(
            "UPDATE volumes SET label = CASE WHEN ?9 THEN label ELSE ?2 END, "
            "volume_type = CASE WHEN ?10 THEN volume_type ELSE ?3 END, "
            "volume_no = CASE WHEN ?11 THEN volume_no ELSE ?4 END, "
            "path = CASE WHEN ?12 THEN path ELSE ?5 END, "
            "state = CASE WHEN ?13 THEN state ELSE ?6 END, "
            "group_uuid = CASE WHEN ?14 THEN group_uuid ELSE ?7 END WHERE rowid = ?1");
        update.bind(1, rowid)
            .bind(2, label)
            .bind(3, static_cast<long long>(setting->volume_type))
            .bind(4, static_cast<long long>(setting->config.volume_no))
            .bind(5, field_text(setting->config.path, sizeof(setting->config.path)))
            .bind(6, static_cast<long long>(setting->state))
            .bind(7, uuid_text(setting->group_uuid))
            .bind(9, same_bytes(old.label, setting->label, sizeof(old.label)))
            .bind(10, old.volume_type == setting->volume_type)
            .bind(11, old.config.volume_no == setting->config.volume_no)
            .bind(12, same_bytes(old.config.path, setting->config.path, sizeof(old.config.path)))
            .bind(13, old.state == setting->state)
            .bind(14, same_bytes(old.group_uuid.uuid, setting->group_uuid.uuid,
                                 sizeof(old.group_uuid.uuid)));
        update.step();
        result = update.ok() ? 0 : -1;
    }
    log_call("set_volume_setting",
             {arg("uuid", uuid), arg("volume_type", static_cast<long long>(setting->volume_type)),
              arg("state", static_cast<long long>(setting->state)), arg("label", label)},
             result);
    return call.finish() ? result : -1;
}

int StorageSetting::refresh_space(ornsid group_uuid) {
    Call call;
    log_call("refresh_space", {arg("uuid", uuid_text(group_uuid))}, 0);
    return call.finish() ? 0 : -1;
}

}  // namespace sim
