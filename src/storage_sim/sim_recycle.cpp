// Recycling engines: remove the hour folders of one stream that lie wholly
// inside a time range, on every volume of a space (tier) or on one volume
// (unit). Folders are walked through directory handles and symlinks are
// never followed, so nothing outside a stream folder can be removed.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "recycle.h"
#include "sim.h"

namespace sim {
namespace {

// Bound volumes of a tier: those of the space's group.
const char* const kTierVolumes =
    "SELECT path, uuid FROM volumes WHERE group_uuid = "
    "(SELECT group_uuid FROM spaces WHERE uuid = ?1 ORDER BY rowid LIMIT 1) ORDER BY rowid";
const char* const kUnitVolumes =
    "SELECT path, uuid FROM volumes WHERE uuid = ?1 ORDER BY rowid LIMIT 1";
const char* const kSpaceExists = "SELECT 1 FROM spaces WHERE uuid = ?1";

struct VolumeFolder {
    std::string path;
    std::string uuid;
};

std::string column_text(const Stmt& row, int col) {
    int size = 0;
    const unsigned char* data = row.bytes(col, &size);
    return data ? std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(size))
                : std::string();
}

std::vector<VolumeFolder> bound_volumes(const char* sql, const std::string& uuid) {
    std::vector<VolumeFolder> volumes;
    Stmt rows(sql);
    rows.bind(1, uuid);
    while (rows.step()) volumes.push_back({column_text(rows, 0), column_text(rows, 1)});
    return volumes;
}

bool row_exists(const char* sql, const std::string& uuid) {
    Stmt rows(sql);
    rows.bind(1, uuid);
    return rows.step();
}

int open_folder_at(int parent, const char* name) {
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// A real folder (not a symlink) named |name| inside |parent|.
bool is_folder_at(int parent, const char* name) {
    struct stat st;
    return fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// Names inside the folder |fd|, without "." and "..". Reading all names
// first keeps removals from disturbing the walk.
std::vector<std::string> folder_entries(int fd) {
    std::vector<std::string> names;
    int copy = dup(fd);
    if (copy < 0) return names;
    DIR* dir = fdopendir(copy);
    if (dir == nullptr) {
        close(copy);
        return names;
    }
    while (const dirent* entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.push_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

// Removes the folder |name| inside |parent| with everything below it.
// Symlinks inside are removed as links, never followed.
bool remove_tree_at(int parent, const char* name) {
    int fd = open_folder_at(parent, name);
    if (fd < 0) return false;
    bool ok = true;
    for (const std::string& entry : folder_entries(fd)) {
        if (is_folder_at(fd, entry.c_str()))
            ok = remove_tree_at(fd, entry.c_str()) && ok;
        else if (unlinkat(fd, entry.c_str(), 0) != 0)
            ok = false;
    }
    close(fd);
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 && ok;
}

bool all_digits(const char* text, size_t count) {
    if (std::strlen(text) != count) return false;
    for (size_t i = 0; i < count; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

int number_at(const char* text, size_t count) {
    int value = 0;
    for (size_t i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
    return value;
}

int days_in_month(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

// A day folder name: YYYYMMDD of a real calendar date.
bool parse_day(const char* name, struct tm& day) {
    if (!all_digits(name, 8)) return false;
    int year = number_at(name, 4), month = number_at(name + 4, 2), mday = number_at(name + 6, 2);
    if (month < 1 || month > 12 || mday < 1 || mday > days_in_month(year, month)) return false;
    day = tm();
    day.tm_year = year - 1900;
    day.tm_mon = month - 1;
    day.tm_mday = mday;
    return true;
}

// An hour folder name: HH, 00 to 23.
bool parse_hour(const char* name, int& hour) {
    if (!all_digits(name, 2)) return false;
    hour = number_at(name, 2);
    return hour <= 23;
}

long long local_hour_start_ms(const struct tm& day, int hour) {
    struct tm t = day;
    t.tm_hour = hour;
    t.tm_isdst = -1;
    return static_cast<long long>(mktime(&t)) * 1000;
}

// Whether the hour, from its local start to one millisecond before the next
// hour's local start, lies wholly in [from_ms, to_ms].
bool hour_inside(const struct tm& day, int hour, long long from_ms, long long to_ms) {
    long long start = local_hour_start_ms(day, hour);
    long long end = local_hour_start_ms(day, hour + 1) - 1;
    return start >= from_ms && end <= to_ms;
}

// Removes the hour folders of one day folder that lie in the range.
bool recycle_day(int stream_fd, const char* name, long long from_ms, long long to_ms) {
    struct tm day;
    if (!parse_day(name, day) || !is_folder_at(stream_fd, name)) return true;
    int fd = open_folder_at(stream_fd, name);
    if (fd < 0) return false;
    bool ok = true;
    for (const std::string& entry : folder_entries(fd)) {
        int hour = 0;
        if (parse_hour(entry.c_str(), hour) && is_folder_at(fd, entry.c_str()) &&
            hour_inside(day, hour, from_ms, to_ms))
            ok = remove_tree_at(fd, entry.c_str()) && ok;
    }
    close(fd);
    return ok;
}

// A single path component: not empty, no '/', not "." or "..".
bool plain_name(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Opens <fsu>/<sid>/<record_type>/<stream> without following symlinks
// below the volume's own path. -1 when any part is missing.
int open_stream_folder(const std::string& fsu, const stream_info& info) {
    std::string sid = field_text(info.sid, sizeof(info.sid));
    if (!plain_name(sid)) return -1;
    int fd = open(fsu.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const std::string parts[] = {sid, std::to_string(info.record_type),
                                 std::to_string(info.stream)};
    for (const std::string& part : parts) {
        if (fd < 0) return -1;
        int next = open_folder_at(fd, part.c_str());
        close(fd);
        fd = next;
    }
    return fd;
}

// Recycles one stream on one volume; a missing stream folder is no error.
bool recycle_volume(const VolumeFolder& volume, const stream_info& info, long long from_ms,
                    long long to_ms) {
    std::string tail = volume.uuid.size() > 4 ? volume.uuid.substr(4, 32) : std::string();
    int fd = open_stream_folder(volume.path + "/FSU_" + tail, info);
    if (fd < 0) return true;
    bool ok = true;
    std::vector<std::string> days = folder_entries(fd);
    for (const std::string& day : days) ok = recycle_day(fd, day.c_str(), from_ms, to_ms) && ok;
    struct tm unused;
    for (const std::string& day : days) {
        // Only empty day folders go; rmdir refuses the others.
        if (parse_day(day.c_str(), unused) && is_folder_at(fd, day.c_str()) &&
            unlinkat(fd, day.c_str(), AT_REMOVEDIR) != 0 && errno != ENOTEMPTY && errno != EEXIST)
            ok = false;
    }
    close(fd);
    return ok;
}

int engine_init(const char* op, const char* fault_op, const char* exists_sql, const ornsid& id,
                char bound_uuid[36], bool& bound) {
    std::string uuid = uuid_text(id);
    int result = 0;
    if (!fault(fault_op, uuid, false, &result)) result = row_exists(exists_sql, uuid) ? 0 : -1;
    bound = result == 0;
    if (bound) std::memcpy(bound_uuid, id.uuid, sizeof(id.uuid));
    log_call(op, {arg("uuid", uuid)}, result);
    return result;
}

int engine_recycle(const char* engine, const char* volumes_sql, const char bound_uuid[36],
                   bool bound, const stream_info& info, long long from_ms, long long to_ms) {
    std::string uuid = field_text(bound_uuid, 36);
    int result = -1;
    if (bound) {
        bool ok = true;
        for (const VolumeFolder& volume : bound_volumes(volumes_sql, uuid))
            ok = recycle_volume(volume, info, from_ms, to_ms) && ok;
        result = ok ? 0 : -1;
    }
    log_call("recycle_channel_data",
             {arg("engine", engine), arg("uuid", uuid),
              arg("channel_id", static_cast<long long>(info.channel_id)),
              arg("sid", field_text(info.sid, sizeof(info.sid))),
              arg("stream", static_cast<long long>(info.stream)),
              arg("record_type", static_cast<long long>(info.record_type)),
              arg("from_ms", from_ms), arg("to_ms", to_ms)},
             result);
    return result;
}

int engine_uninit(const char* op, char bound_uuid[36], bool& bound) {
    bound = false;
    std::memset(bound_uuid, 0, 36);
    log_call(op, {}, 0);
    return 0;
}

}  // namespace
}  // namespace sim

CFSTier::CFSTier() : bound_uuid_(), bound_(false) { sim::log_call("CFSTier", {}); }

CFSTier::~CFSTier() { sim::log_call("~CFSTier", {}); }

int CFSTier::init(ornsid space_uuid) {
    return sim::engine_init("CFSTier::init", "tier_init", sim::kSpaceExists, space_uuid,
                            bound_uuid_, bound_);
}

int CFSTier::recycle_channel_data(stream_info info, long long from_ms, long long to_ms) {
    return sim::engine_recycle("tier", sim::kTierVolumes, bound_uuid_, bound_, info, from_ms,
                               to_ms);
}

int CFSTier::uninit() { return sim::engine_uninit("CFSTier::uninit", bound_uuid_, bound_); }

CFSUnit::CFSUnit() : bound_uuid_(), bound_(false) { sim::log_call("CFSUnit", {}); }

CFSUnit::~CFSUnit() { sim::log_call("~CFSUnit", {}); }

int CFSUnit::init(ornsid volume_uuid) {
    return sim::engine_init("CFSUnit::init", "unit_init", sim::kUnitVolumes, volume_uuid,
                            bound_uuid_, bound_);
}

int CFSUnit::recycle_channel_data(stream_info info, long long from_ms, long long to_ms) {
    return sim::engine_recycle("unit", sim::kUnitVolumes, bound_uuid_, bound_, info, from_ms,
                               to_ms);
}

int CFSUnit::uninit() { return sim::engine_uninit("CFSUnit::uninit", bound_uuid_, bound_); }
