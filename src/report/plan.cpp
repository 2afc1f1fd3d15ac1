// Gathers the recycle plan. The streams, their bounds and windows come from
// walk_recycle_streams, the walk volclean and unit recycling run; the leak
// decision from check_volume_leak, autoclean's. Hour folders are those that
// exist below each stream folder, matched by name against the folders the
// library's make_hour_folder_full_path gives over the windows' instants, so
// the plan holds in any recorder zone and for any naming the library uses.
// Nothing here changes the server: no engine is created.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <map>
#include <set>
#include <utility>

// The commands' own helpers: stream records, FSU folders, the clock.
#include "commands.h"
#include "helpers.h"
#include "plan.h"

namespace {

// Instants between two probes of the hour names: every piece of an hour
// folder (between an hour's start and a change of offset) is at least this
// long and starts on this grid while offsets are whole quarter hours.
const int64_t kProbeStepS = 900;
// How far past a window an hour folder's instants may reach: more than any
// change of offset (a repeated or skipped stretch) lasts.
const int64_t kMarginS = 2 * 86400;
// Two instants this far apart lie in different years, so every part of
// their hour folders' paths that follows the stream folder differs.
const int64_t kApartS = 400 * 86400;
const size_t kPathSize = 512;

struct Span {
    int64_t first_ms, last_ms;
};

// The library's hour folder of |info| below |fsu| at |time_ms|; empty when
// it names none (a path too long, a recorder zone it cannot read).
std::string hour_folder(const std::string& fsu, const stream_info& info, int64_t time_ms) {
    char out[kPathSize + 1];
    std::memset(out, 0, sizeof(out));
    if (make_hour_folder_full_path(out, fsu.c_str(), info, time_ms) != 0) return "";
    return out;
}

// The stream folder, with its '/': what the hour folders of two instants
// far apart share up to their last common '/'.
std::string stream_folder(const std::string& fsu, const stream_info& info, int64_t time_ms) {
    std::string a = hour_folder(fsu, info, time_ms);
    std::string b = hour_folder(fsu, info, time_ms + kApartS * 1000);
    size_t n = 0;
    while (n < a.size() && n < b.size() && a[n] == b[n]) ++n;
    size_t slash = a.rfind('/', n == 0 ? 0 : n - 1);
    if (a.empty() || b.empty() || slash == std::string::npos || n == a.size()) return "";
    return a.substr(0, slash + 1);
}

// The names of the hour folders (below their stream folder) over a range of
// instants, each with the spans of instants it holds: one walk of the
// library's naming, shared by every stream and volume.
class HourNames {
public:
    bool build(int64_t lo_s, int64_t hi_s);
    const std::vector<Span>* spans(const std::string& name) const {
        auto found = spans_.find(name);
        return found == spans_.end() ? nullptr : &found->second;
    }
    int depth() const { return depth_; }

private:
    // The name at second |t|; false when the library names none.
    bool name_at(int64_t t, std::string& name) {
        std::string path = hour_folder(probe_fsu_, probe_, t * 1000);
        if (path.size() <= prefix_.size() || path.compare(0, prefix_.size(), prefix_) != 0)
            return false;
        name = path.substr(prefix_.size());
        return true;
    }
    const std::string probe_fsu_ = "/p";
    const char probe_sid_[32] = "p";
    const stream_info probe_ = make_stream_info(0, probe_sid_, 0, kRecordTypeNormal);
    std::string prefix_;
    std::map<std::string, std::vector<Span>> spans_;
    int depth_ = 0;
};

bool HourNames::build(int64_t lo_s, int64_t hi_s) {
    prefix_ = stream_folder(probe_fsu_, probe_, lo_s * 1000);
    lo_s -= ((lo_s % kProbeStepS) + kProbeStepS) % kProbeStepS;  // on the grid
    std::string current, next, middle;
    if (prefix_.empty() || !name_at(lo_s, current)) return false;
    depth_ = static_cast<int>(std::count(current.begin(), current.end(), '/')) + 1;
    int64_t start = lo_s, known = lo_s;  // |current| holds from |start| to |known|
    for (int64_t t = lo_s + kProbeStepS; t - kProbeStepS < hi_s; t += kProbeStepS) {
        if (!name_at(t, next)) return false;
        while (next != current) {
            // The first second after |known| with another name.
            int64_t a = known, b = t;
            std::string name_b = next;
            while (b - a > 1) {
                int64_t m = a + (b - a) / 2;
                if (!name_at(m, middle)) return false;
                if (middle == current) a = m;
                else {
                    b = m;
                    name_b = middle;
                }
            }
            spans_[current].push_back({start * 1000, b * 1000 - 1});
            current = name_b;
            start = known = b;
        }
        known = t;
    }
    spans_[current].push_back({start * 1000, known * 1000 + 999});
    return true;
}

// A uuid field whole but for trailing zero bytes.
std::string id_text(const char* field, size_t width) {
    while (width > 0 && field[width - 1] == '\0') --width;
    return std::string(field, width);
}

int open_folder_at(int parent, const char* name) {
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::vector<std::string> folder_entries(int fd) {
    std::vector<std::string> names;
    int copy = dup(fd);
    DIR* dir = copy < 0 ? nullptr : fdopendir(copy);
    if (dir == nullptr) {
        if (copy >= 0) close(copy);
        return names;
    }
    while (const dirent* entry = readdir(dir))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.push_back(entry->d_name);
    closedir(dir);
    return names;
}

// Bytes on disk below and with |name|, as du counts them: blocks of every
// entry, symbolic links not followed, a file with several links once.
int64_t disk_bytes(int parent, const char* name, std::set<std::pair<dev_t, ino_t>>& seen) {
    struct stat st;
    if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
    if (st.st_nlink > 1 && !S_ISDIR(st.st_mode) && !seen.insert({st.st_dev, st.st_ino}).second)
        return 0;
    int64_t bytes = static_cast<int64_t>(st.st_blocks) * 512;
    if (!S_ISDIR(st.st_mode)) return bytes;
    int fd = open_folder_at(parent, name);
    if (fd < 0) return bytes;
    for (const std::string& entry : folder_entries(fd))
        bytes += disk_bytes(fd, entry.c_str(), seen);
    close(fd);
    return bytes;
}

// Opens |stream| below the volume's |fsu| folder without following a
// symbolic link from the FSU folder down, as recycling enters it.
int open_stream_folder(const std::string& fsu, const std::string& stream) {
    if (stream.compare(0, fsu.size() + 1, fsu + "/") != 0) return -1;
    int fd = open(fsu.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    size_t at = fsu.size() + 1;
    while (fd >= 0 && at < stream.size()) {
        size_t end = stream.find('/', at);
        int next = open_folder_at(fd, stream.substr(at, end - at).c_str());
        close(fd);
        fd = next;
        at = end == std::string::npos ? stream.size() : end + 1;
    }
    return fd;
}

// The folders |depth| levels below |fd| on its device, as "a/b" names.
void folder_names(int fd, dev_t device, int depth, const std::string& above,
                  std::vector<std::string>& names) {
    for (const std::string& entry : folder_entries(fd)) {
        struct stat st;
        if (fstatat(fd, entry.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
            st.st_dev != device)
            continue;
        const std::string name = above + entry;
        if (depth == 1) {
            names.push_back(name);
            continue;
        }
        int below = open_folder_at(fd, entry.c_str());
        if (below < 0) continue;
        folder_names(below, device, depth - 1, name + "/", names);
        close(below);
    }
}

// A period reaches a span from the smaller to the larger of its two ends.
bool reaches(const time_period& period, const Span& span) {
    int64_t first = std::min<int64_t>(period.start_ms, period.end_ms);
    int64_t last = std::max<int64_t>(period.start_ms, period.end_ms);
    return first <= span.last_ms && last >= span.first_ms;
}

struct Gatherer {
    Plan& plan;
    HourNames names;
    std::list<TVolumeInfo> volumes;

    // The existing hour folders of stream |s| on |volume| that hold an
    // instant of its window.
    void list_folders(const RecycleStream& s, const TVolumeInfo& volume, const std::string& place,
                      const std::string& place_uuid) {
        if (!plan.named) return;
        char fsu[kPathSize];
        int n = format_fsu_folder(fsu, sizeof(fsu), volume, "");
        if (n < 0 || static_cast<size_t>(n) >= sizeof(fsu) || fsu[0] != '/') return;
        const stream_info info =
            make_stream_info(s.entry.channel_id, s.entry.sid, s.stream, s.record_type);
        const std::string stream = stream_folder(fsu, info, s.from_ms);
        int fd =
            stream.empty() ? -1 : open_stream_folder(fsu, stream.substr(0, stream.size() - 1));
        struct stat st;
        if (fd < 0) return;
        std::vector<std::string> found;
        if (fstat(fd, &st) == 0) folder_names(fd, st.st_dev, names.depth(), "", found);
        std::sort(found.begin(), found.end());
        for (const std::string& name : found) {
            const std::vector<Span>* spans = names.spans(name);
            if (spans == nullptr) continue;
            bool touches = false, inside = true;
            for (const Span& span : *spans) {
                touches = touches || (span.first_ms <= s.bound_ms && span.last_ms >= s.from_ms);
                inside = inside && span.first_ms >= s.from_ms && span.last_ms <= s.bound_ms;
            }
            // Only a folder the library itself names for this stream.
            if (!touches || hour_folder(fsu, info, spans->front().first_ms) != stream + name)
                continue;
            PlanFolder f;
            f.path = stream + name;
            f.inside_window = inside;
            for (const time_period& period : s.periods)
                if (std::any_of(spans->begin(), spans->end(),
                                [&](const Span& span) { return reaches(period, span); }))
                    ++f.listed_periods;
            std::set<std::pair<dev_t, ino_t>> seen;
            f.bytes = disk_bytes(fd, name.c_str(), seen);
            f.stream = plan.streams.size() - 1;
            f.place = place;
            f.place_uuid = place_uuid;
            plan.folders.push_back(f);
        }
        close(fd);
    }

    void add_stream(const RecycleStream& s, int volume) {
        PlanStream p;
        p.channel_id = s.entry.channel_id;
        p.sid = field_text(s.entry.sid, sizeof(s.entry.sid));
        p.record_type = s.record_type;
        p.stream = s.stream;
        p.bound = s.bound;
        p.query_failed = s.bound != RecycleBound::kNoSession && s.query_result != 0;
        p.recycles = s.recycles;
        p.from_ms = s.from_ms;
        p.to_ms = s.bound_ms;
        p.volume = volume;
        plan.streams.push_back(p);
    }
};

}  // namespace

bool parse_plan_request(const std::string& text, PlanRequest& request) {
    request = PlanRequest();
    if (text == "autoclean") {
        request.volclean = false;
        return true;
    }
    const std::string prefix = "volclean:";
    if (text.compare(0, prefix.size(), prefix) != 0 || text.size() == prefix.size()) return false;
    request.channel_id = command_number(text.c_str() + prefix.size());
    return true;
}

std::string plan_command_line(const PlanRequest& request) {
    return request.volclean ? "kelvo volclean " + std::to_string(request.channel_id)
                            : "kelvo autoclean";
}

bool collect_plan(const PlanRequest& request, Plan& plan, std::string& error) {
    plan = Plan();
    plan.request = request;
    COrnStorage storage;
    IStorageSetting* setting = nullptr;
    storage.create_storage_setting(&setting);
    if (setting == nullptr) {
        error = "cannot reach the storage library";
        return false;
    }
    Gatherer g{plan, HourNames(), {}};
    std::list<TSpaceInfo> spaces;
    std::list<TChannelStorageSetting> channels;
    // The lists in the order each command fetches them.
    if (request.volclean) setting->get_space_list(spaces);
    else setting->get_volume_list(g.volumes);
    if (request.volclean) setting->get_channel_setting_list(channels, 1);
    plan.now_ms = now_ms();
    plan.from_ms = recycle_window_start_ms(plan.now_ms);
    plan.named = g.names.build(plan.from_ms / 1000 - kMarginS, plan.now_ms / 1000 + kMarginS);

    if (request.volclean) {
        if (spaces.empty() || channels.empty()) plan.nothing = "No space or channel found.";
        else setting->get_volume_list(g.volumes);
        if (plan.nothing.empty())
            walk_recycle_streams(channels, request.channel_id, plan.from_ms,
                                 RecycleCommand::kVolclean, nullptr,
                                 [&](const RecycleStream& s) {
                g.add_stream(s, -1);
                if (!s.recycles) return;
                // A tier works on the volumes of its space's group.
                for (const TSpaceInfo& space : spaces)
                    for (const TVolumeInfo& volume : g.volumes)
                        if (same_uuid(volume.setting.group_uuid, space.group_uuid))
                            g.list_folders(s, volume, field_text(space.name, sizeof(space.name)),
                                           id_text(space.uuid.uuid, sizeof(space.uuid.uuid)));
            });
    } else if (g.volumes.empty()) {
        plan.nothing = "no volume found";
    }
    for (const TVolumeInfo& volume : request.volclean ? std::list<TVolumeInfo>() : g.volumes) {
        PlanVolume v;
        char name[128];
        volume_display_name(volume, name);
        v.name = name;
        v.uuid = id_text(volume.uuid.uuid, sizeof(volume.uuid.uuid));
        v.measured = check_volume_leak(volume, v.leak);
        plan.volumes.push_back(v);
        if (v.measured != 0 || !v.leak.leaks) continue;
        std::list<TChannelStorageSetting> entries;
        setting->get_channel_setting_list(entries, 1);
        plan.volumes.back().no_channels = entries.empty();
        const int index = static_cast<int>(plan.volumes.size()) - 1;
        walk_recycle_streams(entries, -1, plan.from_ms, RecycleCommand::kUnit, nullptr,
                             [&](const RecycleStream& s) {
            g.add_stream(s, index);
            if (s.recycles) g.list_folders(s, volume, v.name, v.uuid);
        });
    }
    storage.destroy_storage_setting(&setting);
    return true;
}

PlanTotals plan_totals(const Plan& plan, bool all, uint32_t channel_id) {
    PlanTotals t;
    std::set<std::string> going;
    for (const PlanFolder& f : plan.folders) {
        if (!all && plan.streams[f.stream].channel_id != channel_id) continue;
        if (f.inside_window && f.listed_periods > 0) ++t.kept_listed;
        // A folder two windows take (spaces of one group) goes once.
        if (f.goes() && going.insert(f.path).second) {
            ++t.folders;
            t.bytes += f.bytes;
        }
    }
    for (const PlanStream& s : plan.streams)
        if ((all || s.channel_id == channel_id) && s.recycles &&
            s.bound == RecycleBound::kWholeWindow)
            ++t.whole_window;
    return t;
}
