// Spaces and volumes: spacelist, vollist, volset, their status texts and the
// volume look-ups by name.
#include <cstdio>
#include <cstring>
#include <list>

#include "commands.h"

namespace {

// Copies |label| padded with blanks to |width| characters.
void write_padded(char* out, size_t width, const char* label) {
    size_t n = strlen(label);
    if (n > width) n = width;
    std::memcpy(out, label, n);
    std::memset(out + n, ' ', width - n);
    out[width] = '\0';
}

}  // namespace

void space_status_text(uint32_t status, int32_t spare_status, char out[26]) {
    const char* label = "UNKNOW_STATUS";
    switch (status) {
    case 0: label = spare_status > 0 ? "Normal(With Spare)" : "Normal"; break;
    case 1: label = "Allocating"; break;
    case 2: label = "Deleting"; break;
    case 3: label = "Expanding"; break;
    case 5: label = spare_status > 0 ? "Error(Spare Error)" : "Error"; break;
    case 6: label = "Warning"; break;
    case 7: label = "Spare Enabled(With Spare)"; break;
    case 8: label = "Warning(Spare Error)"; break;
    case 9: label = "Normal(Spare Error)"; break;
    default: break;
    }
    write_padded(out, 25, label);
}

void volume_state_text(int32_t state, char out[20]) {
    static const char* const names[] = {"ACTIVE",
                                        "STANDBY",
                                        "NOT_MOUNTED",
                                        "STANDBY_NOT_MOUNTED",
                                        "CREAT_SHARE_FOLDERS",
                                        "VOL_OVER_THRESHOLD",
                                        "REMOVING_VOLUME",
                                        "UNKNOW_ERROR"};
    if (state == 8) {
        out[0] = '\0';
        return;
    }
    write_padded(out, 19, state >= 0 && state < 8 ? names[state] : "UNKNOW_STATUS");
}

void strip_share_prefix(const char* path, char name[128]) {
    const char* found = strstr(path, "share/");
    if (found == nullptr) return;
    const char* rest = found + strlen("share/");
    size_t n = strnlen(rest, 127);
    std::memcpy(name, rest, n);
    name[n] = '\0';
}

void cmd_spacelist(IStorageSetting* setting) {
    std::list<TSpaceInfo> spaces;
    setting->get_space_list(spaces);
    if (spaces.empty()) return;
    printf("Space count: %lu\n", static_cast<unsigned long>(spaces.size()));
    int line = 0;
    for (const TSpaceInfo& space : spaces) {
        ++line;
        char status[26];
        space_status_text(space.status, space.spare_status, status);
        printf("[%02d] [%.512s], total size: %lld GB, used: %lld MB, use %2.2f%% [%s]\n", line,
               space.name, static_cast<long long>(space.total_size_mb / 1024),
               static_cast<long long>(space.used_size_mb),
               use_percent(space.used_size_mb, space.total_size_mb), status);
    }
    printf("\n");
}

namespace {

// The first volume whose path rest after "share/" is |volume_name|; volumes
// without "share/" have no name and never match.
int find_volume(IStorageSetting* setting, const char* volume_name, TVolumeInfo& found) {
    std::list<TVolumeInfo> volumes;
    setting->get_volume_list(volumes);
    for (const TVolumeInfo& volume : volumes) {
        const VolumePath path(volume);
        if (strstr(path.text, "share/") == nullptr) continue;
        char name[128];
        strip_share_prefix(path.text, name);
        if (strcmp(name, volume_name) == 0) {
            found = volume;
            return 0;
        }
    }
    return -1;
}

// A space's name field (512 bytes, maybe unterminated) against a terminated text.
bool same_name(const char (&field)[512], const char* name) {
    size_t n = strnlen(field, sizeof(field));
    return strlen(name) == n && std::memcmp(field, name, n) == 0;
}

// Prints the space header; false when the space list has no such name.
bool print_space_header(IStorageSetting* setting, const char* space_name, ornsid& group) {
    std::list<TSpaceInfo> spaces;
    const TSpaceInfo* space = find_space_by_name(setting, space_name, spaces);
    if (space == nullptr) return false;
    char status[26];
    space_status_text(space->status, space->spare_status, status);
    printf("Space: %s\n", space_name);
    printf("[%.512s], total size: %lld GB, used: %lld MB, use %2.2f%% [%s]\n", space->name,
           static_cast<long long>(space->total_size_mb / 1024),
           static_cast<long long>(space->used_size_mb),
           use_percent(space->used_size_mb, space->total_size_mb), status);
    group = ornsid(space->group_uuid.uuid);
    printf("\n");
    return true;
}

}  // namespace

const TSpaceInfo* find_space_by_name(IStorageSetting* setting, const char* space_name,
                                     std::list<TSpaceInfo>& spaces) {
    setting->get_space_list(spaces);
    if (spaces.empty()) {
        printf("no space [%s] info\n", space_name);
        return nullptr;
    }
    for (const TSpaceInfo& space : spaces)
        if (same_name(space.name, space_name)) return &space;
    printf("\n");
    printf("no space [%s] info\n", space_name);
    return nullptr;
}

void cmd_vollist(IStorageSetting* setting, const char* space_name) {
    ornsid group;
    if (!print_space_header(setting, space_name, group)) return;

    std::list<TVolumeInfo> volumes;
    setting->get_volume_list(volumes);
    int count = 0;
    for (const TVolumeInfo& volume : volumes) {
        const TVolumeSetting& v = volume.setting;
        if (!same_uuid(v.group_uuid, group)) continue;
        ++count;
        char name[128];
        volume_display_name(volume, name);
        char state[20];
        volume_state_text(v.state, state);
        printf("[%02d] [%s], [%s] [%s], total size %lld GB, used %lld MB, use %2.2f%%\n", count,
               name, volume_type_text(v.volume_type), state,
               static_cast<long long>(v.total_size_mb / 1024),
               static_cast<long long>(v.used_size_mb),
               use_percent(v.used_size_mb, v.total_size_mb));
    }
    if (count == 0) printf("no find volume at space [%s]\n", space_name);
}

const char* volume_type_text(uint32_t volume_type) {
    return volume_type == 0 ? "NORMAL" : "SPARE ";
}

void volume_display_name(const TVolumeInfo& volume, char name[128]) {
    snprintf(name, 128, "VolName_%d", volume.setting.config.volume_no);
    strip_share_prefix(VolumePath(volume).text, name);
}

int find_volume_uuid(IStorageSetting* setting, const char* volume_name, char uuid[36]) {
    TVolumeInfo volume;
    if (find_volume(setting, volume_name, volume) != 0) return -1;
    std::memcpy(uuid, volume.uuid.uuid, sizeof(volume.uuid.uuid));
    return 0;
}

int find_volume_no(IStorageSetting* setting, const char* volume_name, TVolumeConfig& config) {
    config.field_1092 = 0;  // with volume_no: the volume is named by its number alone
    TVolumeInfo volume;
    if (find_volume(setting, volume_name, volume) != 0) return -1;
    config.volume_no = volume.setting.config.volume_no;
    return 0;
}

// Read-modify-write of the whole setting: only the type and the state change.
void cmd_volset(IStorageSetting* setting, const char* volume_name, int volume_type,
                uint32_t volume_state) {
    uint32_t type_code = volume_type == 0 ? 0 : 2;   // NORMAL / SPARE
    int32_t state_code = volume_state == 0 ? 1 : 0;  // STANDBY / ACTIVE

    char uuid[36];
    std::memset(uuid, '0', sizeof(uuid));
    if (find_volume_uuid(setting, volume_name, uuid) != 0) {
        printf("Cannot fine volume [%s]\n", volume_name);
        return;
    }
    ornsid volume_uuid(uuid);
    TVolumeSetting record;
    // Writing back a record the library did not fill would replace the
    // volume's real setting with defaults.
    if (setting->get_volume_setting(volume_uuid, &record) != 0) {
        printf("Cannot read setting of volume [%s]\n", volume_name);
        return;
    }
    record.volume_type = type_code;
    record.state = state_code;
    setting->set_volume_setting(volume_uuid, &record);
    setting->refresh_space(ornsid(record.group_uuid.uuid));
}
