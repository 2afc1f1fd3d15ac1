// The stored setting of one volume.
#include <string>

#include "sim.h"

namespace sim {

int StorageSetting::get_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) {
    std::string uuid = uuid_text(volume_uuid);
    int result = 0;
    if (fault("get_volume_setting", uuid, false, &result)) {
        log_call("get_volume_setting", {arg("uuid", uuid)}, result);
        return result;
    }
    static const std::string sql = std::string("SELECT ") + kVolumeColumns +
                                   " FROM volumes WHERE uuid = ?1 ORDER BY rowid LIMIT 1";
    Stmt row(sql.c_str());
    row.bind(1, uuid);
    result = -1;
    if (row.step()) {
        // Every byte no column maps to keeps the record's default.
        TVolumeInfo volume;
        fill_volume(row, volume);
        *setting = volume.setting;
        result = 0;
    }
    log_call("get_volume_setting", {arg("uuid", uuid)}, result);
    return result;
}

int StorageSetting::set_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) {
    std::string uuid = uuid_text(volume_uuid);
    std::string label = field_text(setting->label, sizeof(setting->label));
    Stmt update(
        "UPDATE volumes SET label = ?2, volume_type = ?3, volume_no = ?4, path = ?5, "
        "total_size_mb = ?6, state = ?7, group_uuid = ?8, used_size_mb = ?9 "
        "WHERE rowid = (SELECT rowid FROM volumes WHERE uuid = ?1 ORDER BY rowid LIMIT 1)");
    update.bind(1, uuid)
        .bind(2, label)
        .bind(3, static_cast<long long>(setting->volume_type))
        .bind(4, static_cast<long long>(setting->config.volume_no))
        .bind(5, field_text(setting->config.path, sizeof(setting->config.path)))
        .bind(6, static_cast<long long>(setting->total_size_mb))
        .bind(7, static_cast<long long>(setting->state))
        .bind(8, uuid_text(setting->group_uuid))
        .bind(9, static_cast<long long>(setting->used_size_mb));
    update.step();
    int result = update.ok() && sqlite3_changes(db()) > 0 ? 0 : -1;
    log_call("set_volume_setting",
             {arg("uuid", uuid), arg("volume_type", static_cast<long long>(setting->volume_type)),
              arg("state", static_cast<long long>(setting->state)), arg("label", label)},
             result);
    return result;
}

int StorageSetting::refresh_space(ornsid group_uuid) {
    log_call("refresh_space", {arg("uuid", uuid_text(group_uuid))}, 0);
    return 0;
}

}  // namespace sim
