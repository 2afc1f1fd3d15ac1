// Recycling engines: remove the hour folders of one stream that lie wholly
// inside a time range and hold no part of a period the database lists, on
// every volume of a space (tier) or on one volume (unit). Folders are walked
// through directory handles on the stream folder's own file system, symlinks
// are never followed, and volumes or sids that could name a folder elsewhere
// are skipped, so nothing outside a stream folder can be removed.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "recycle.h"
#include "sim.h"

// The volume or space an engine's init bound it to.
struct RecycleEngineBinding {
    char uuid[36] = {};
    bool bound = false;
};

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

// Spans of the stream's periods that reach into [from_ms, to_ms]; a 32-bit
// field matches its value stored either signed or unsigned.
std::vector<Span> listed_spans(const stream_info& info, long long from_ms, long long to_ms) {
    auto both_forms = [](uint32_t v) { return static_cast<long long>(v) - (1LL << 32); };
    Stmt rows(
        "SELECT start_ms, end_ms FROM periods WHERE channel_id IN (?1, ?2) "
        "AND record_type IN (?3, ?4) AND stream IN (?5, ?6) AND (typeof(start_ms) <> 'integer' "
        "OR typeof(end_ms) <> 'integer' OR (min(start_ms, end_ms) <= ?8 "
        "AND max(start_ms, end_ms) >= ?7))");
    rows.bind(1, static_cast<long long>(info.channel_id))
        .bind(2, both_forms(info.channel_id))
        .bind(3, static_cast<long long>(info.record_type))
        .bind(4, both_forms(info.record_type))
        .bind(5, static_cast<long long>(info.stream))
        .bind(6, both_forms(info.stream))
        .bind(7, from_ms)
        .bind(8, to_ms);
    std::vector<Span> spans;  // whichever end of a period comes first
    while (rows.step()) {
        long long start = rows.int64(0), end = rows.int64(1);
        spans.push_back({std::min(start, end), std::max(start, end)});
    }
    return spans;
}

bool any_overlap(const std::vector<Span>& spans, long long first, long long last) {
    for (const Span& span : spans)
        if (span.first <= last && span.last >= first) return true;
    return false;
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

// Whether the entry |name| of |parent| (not followed) lies on |device|.
bool on_device_at(int parent, const char* name, dev_t device) {
    struct stat st;
    return fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == device;
}

// Opens the folder |name| of |parent| when it lies on |device|; -1 otherwise.
int open_folder_on(int parent, const char* name, dev_t device) {
    int fd = open_folder_at(parent, name);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || st.st_dev != device)) {
        close(fd);
        return -1;
    }
    return fd;
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

// Removes the folder |name| inside |parent| with everything below it that
// lies on |device|; what is mounted from elsewhere stays, with the folders
// above it. Symlinks inside are removed as links, never followed.
bool remove_tree_at(int parent, const char* name, dev_t device) {
    int fd = open_folder_on(parent, name, device);
    if (fd < 0) return false;
    bool ok = true;
    for (const std::string& entry : folder_entries(fd)) {
        if (!on_device_at(fd, entry.c_str(), device)) ok = false;
        else if (is_folder_at(fd, entry.c_str()))
            ok = remove_tree_at(fd, entry.c_str(), device) && ok;
        else if (unlinkat(fd, entry.c_str(), 0) != 0) ok = false;
    }
    close(fd);
    return ok && unlinkat(parent, name, AT_REMOVEDIR) == 0;
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
struct Day {
    int year, month, day;
};
bool parse_day(const char* name, Day& day) {
    if (!all_digits(name, 8)) return false;
    day = Day{number_at(name, 4), number_at(name + 4, 2), number_at(name + 6, 2)};
    return day.month >= 1 && day.month <= 12 && day.day >= 1 &&
           day.day <= days_in_month(day.year, day.month);
}

// An hour folder name: HH, 00 to 23.
bool parse_hour(const char* name, int& hour) {
    if (!all_digits(name, 2)) return false;
    hour = number_at(name, 2);
    return hour <= 23;
}

// What one recycling call may remove: hours wholly in [from_ms, to_ms]
// that hold no part of a listed period, on the stream folder's device.
struct Recycling {
    long long from_ms, to_ms;
    std::vector<Span> listed;
    dev_t device;
};

// Whether every instant the hour folder holds lies in the range and outside
// every listed period.
bool hour_removable(const Day& day, int hour, const Recycling& r) {
    Span span;
    return local_hour_span(day.year, day.month, day.day, hour, span) && span.first >= r.from_ms &&
           span.last <= r.to_ms && !any_overlap(r.listed, span.first, span.last);
}

// Removes the hour folders of one day folder that may go.
bool recycle_day(int stream_fd, const char* name, const Recycling& r) {
    Day day;
    if (!parse_day(name, day) || !is_folder_at(stream_fd, name)) return true;
    int fd = open_folder_on(stream_fd, name, r.device);
    if (fd < 0) return false;
    bool ok = true;
    for (const std::string& entry : folder_entries(fd)) {
        int hour = 0;
        if (parse_hour(entry.c_str(), hour) && is_folder_at(fd, entry.c_str()) &&
            hour_removable(day, hour, r))
            ok = remove_tree_at(fd, entry.c_str(), r.device) && ok;
    }
    close(fd);
    return ok;
}

bool id_chars(const std::string& text, const char* extra) {
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && std::strchr(extra, c) == nullptr)
            return false;
    return true;
}

// An absolute path without zero bytes and without "." or ".." components.
bool safe_path(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos) return false;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(start, end - start);
        if (part == "." || part == "..") return false;
        start = end + 1;
    }
    return true;
}

// The FSU folder of a volume, empty when its path or uuid could lead
// anywhere but below the volume folder.
std::string fsu_folder(const VolumeFolder& volume) {
    if (!safe_path(volume.path) || volume.uuid.size() < 36) return "";
    std::string tail = volume.uuid.substr(4, 32);
    return id_chars(tail, "-") ? volume.path + "/FSU_" + tail : "";
}

// Opens <fsu>/<sid>/<record_type>/<stream> without following symlinks
// below the volume's own path. -1 when any part is missing.
int open_stream_folder(const std::string& fsu, const std::string& sid, const stream_info& info) {
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
bool recycle_volume(const std::string& fsu, const std::string& sid, const stream_info& info,
                    Recycling& r) {
    int fd = open_stream_folder(fsu, sid, info);
    if (fd < 0) return true;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return false;
    }
    r.device = st.st_dev;
    bool ok = true;
    std::vector<std::string> days = folder_entries(fd);
    for (const std::string& day : days) ok = recycle_day(fd, day.c_str(), r) && ok;
    Day unused;
    for (const std::string& day : days) {
        // Only empty day folders go; rmdir refuses the others.
        if (parse_day(day.c_str(), unused) && is_folder_at(fd, day.c_str()) &&
            on_device_at(fd, day.c_str(), r.device) &&
            unlinkat(fd, day.c_str(), AT_REMOVEDIR) != 0 && errno != ENOTEMPTY && errno != EEXIST)
            ok = false;
    }
    close(fd);
    return ok;
}

int engine_init(const char* op, const char* fault_op, const char* exists_sql, const ornsid& id,
                RecycleEngineBinding& binding) {
    std::string uuid = uuid_text(id);
    Call call;
    int result = 0;
    if (!fault(fault_op, uuid, false, &result)) result = row_exists(exists_sql, uuid) ? 0 : -1;
    // Without the recorder's zone no hour folder can be read: nothing binds.
    if (!local_time_known()) result = -1;
    log_call(op, {arg("uuid", uuid)}, result);
    if (!call.finish()) result = -1;
    binding.bound = result == 0;
    if (binding.bound) std::memcpy(binding.uuid, id.uuid, sizeof(id.uuid));
    return result;
}

int engine_recycle(const char* engine, const char* volumes_sql,
                   const RecycleEngineBinding& binding, const stream_info& info, long long from_ms,
                   long long to_ms) {
    std::string uuid = field_text(binding.uuid, sizeof(binding.uuid));
    std::string sid = field_text(info.sid, sizeof(info.sid));
    // The database stays read-locked while folders go, so no period can be
    // listed between the look-up and the removal.
    Call call;
    int result = -1;
    if (binding.bound) {
        std::vector<VolumeFolder> volumes = bound_volumes(volumes_sql, uuid);
        Recycling r{from_ms, to_ms, listed_spans(info, from_ms, to_ms), 0};
        // Nothing goes when the database could not be read, nor without the
        // recorder's zone.
        bool ok = !call.failed() && local_time_known() && !sid.empty() && id_chars(sid, "-_");
        if (ok) {
            for (const VolumeFolder& volume : volumes) {
                // A volume that could lead elsewhere is skipped; the others go on.
                std::string fsu = fsu_folder(volume);
                ok = (!fsu.empty() && recycle_volume(fsu, sid, info, r)) && ok;
            }
        }
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
    return call.finish() ? result : -1;
}

int engine_uninit(const char* op, RecycleEngineBinding& binding) {
    binding = RecycleEngineBinding();
    log_call(op, {}, 0);
    return 0;
}

}  // namespace
}  // namespace sim

CFSTier::CFSTier() : binding_(new RecycleEngineBinding()) { sim::log_call("CFSTier", {}); }

CFSTier::~CFSTier() { sim::log_call("~CFSTier", {}); }

int CFSTier::init(ornsid space_uuid) {
    return sim::engine_init("CFSTier::init", "tier_init", sim::kSpaceExists, space_uuid,
                            *binding_);
}

int CFSTier::recycle_channel_data(stream_info info, long long from_ms, long long to_ms) {
    return sim::engine_recycle("tier", sim::kTierVolumes, *binding_, info, from_ms, to_ms);
}

int CFSTier::uninit() { return sim::engine_uninit("CFSTier::uninit", *binding_); }

CFSUnit::CFSUnit() : binding_(new RecycleEngineBinding()) { sim::log_call("CFSUnit", {}); }

CFSUnit::~CFSUnit() { sim::log_call("~CFSUnit", {}); }

int CFSUnit::init(ornsid volume_uuid) {
    return sim::engine_init("CFSUnit::init", "unit_init", sim::kUnitVolumes, volume_uuid,
                            *binding_);
}

int CFSUnit::recycle_channel_data(stream_info info, long long from_ms, long long to_ms) {
    return sim::engine_recycle("unit", sim::kUnitVolumes, *binding_, info, from_ms, to_ms);
}

int CFSUnit::uninit() { return sim::engine_uninit("CFSUnit::uninit", *binding_); }
