// Every command on randomly built servers full of hostile but storable data:
// identifiers with zero bytes or no terminator, negative and huge numbers,
// channel ids of 32 and more, paths of 1,000 characters, without "share/" or
// with shell metacharacters, periods that end before they start, duplicates
// of every kind the schema allows and empty tables. Values are cut, padded
// or narrowed to what the schema stores. Each run must exit 0 with nothing on
// stderr (so no sanitizer report), run nothing through the shell, leave the
// database alone unless the command writes, and write only what it may.
//
// KELVO_FUZZ_SEED      first seed (servers use seed, seed + 1, ...)
// KELVO_FUZZ_ITERATIONS number of servers (default 24)
// KELVO_FUZZ_SECONDS   build servers for this long instead
// KELVO_FUZZ_VERBOSE   print every command line and its output, and the
//                      data of a server with a finding
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "sim_server.h"

namespace {

using kt::SimServer;
using kt::Value;

const char kMarker[] = "kelvo_marker";
const long long kDayMs = 24LL * 3600 * 1000;
const uint64_t kDefaultSeed = 20240611;

class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    // 0 .. n-1
    size_t below(size_t n) { return n == 0 ? 0 : static_cast<size_t>(engine_() % n); }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(engine_) < p; }
    long long between(long long lo, long long hi) {
        return std::uniform_int_distribution<long long>(lo, hi)(engine_);
    }
    template <typename T>
    const T& pick(const std::vector<T>& items) {
        return items[below(items.size())];
    }

private:
    std::mt19937_64 engine_;
};

const std::vector<long long> kHostileNumbers = {
    0,         1,        -1,        2,          4,          9,         31,
    32,        33,       255,       256,        1023,       1024,      -1024,
    -1535,     1000,     INT32_MAX, INT32_MIN,  UINT32_MAX, 1LL << 32, (1LL << 40) + 3,
    LLONG_MAX, LLONG_MIN, LLONG_MAX / 2, LLONG_MIN / 2};

long long hostile_number(Random& r) {
    return r.chance(0.7) ? r.pick(kHostileNumbers) : r.between(-100000, 100000);
}

// A character that any identifier may hold: never '/', so no identifier can
// lead a path out of the server's folder.
char id_char(Random& r) {
    static const std::string plain = "0123456789abcdef-ABCXYZ._ ";
    return plain[r.below(plain.size())];
}

std::string plain_id(Random& r, size_t width) {
    std::string s;
    for (size_t i = 0; i < width; ++i) s += id_char(r);
    return s;
}

// An identifier of nominal |width|: well formed, cut, too long, with zero
// bytes, high bytes, shell characters, all '9' or nearly, all '0', a dot
// folder name, or one used before.
std::string hostile_id(Random& r, size_t width, std::vector<std::string>& pool) {
    std::string id;
    switch (r.below(12)) {
    case 0:
    case 1:
        if (!pool.empty()) return r.pick(pool);
        [[fallthrough]];
    case 2: id = plain_id(r, width); break;
    case 3:
        id = plain_id(r, width);
        id[r.below(width)] = '\0';
        break;
    case 4: id = plain_id(r, r.below(width)); break;
    case 5: id = plain_id(r, width + 1 + r.below(40)); break;
    case 6:
        for (size_t i = 0; i < width; ++i)
            id += r.chance(0.5) ? static_cast<char>(0x80 + r.below(128)) : id_char(r);
        break;
    case 7: {
        static const std::string shell = "$`;|&<>(){}'\" \\*?!#~\n\t";
        for (size_t i = 0; i < width; ++i)
            id += r.chance(0.5) ? shell[r.below(shell.size())] : id_char(r);
        break;
    }
    case 8: id = std::string(width, '9'); break;
    case 9:
        id = std::string(width, '9');
        id.back() = r.chance(0.5) ? 'x' : '\0';
        break;
    case 10: id = std::string(width, '0'); break;
    default: id = r.chance(0.5) ? std::string(".") : std::string(".."); break;
    }
    pool.push_back(id);
    return id;
}

Value as_value(Random& r, const std::string& bytes) {
    return r.chance(0.2) ? Value::blob(bytes) : Value(bytes);
}

// What the schema stores: texts up to their field's width, uuids of exactly
// 36 bytes (zero padded, as a record reads a short one), 32-bit numbers.
std::string fit(const std::string& bytes, size_t width) { return bytes.substr(0, width); }
std::string fit_uuid(std::string bytes) {
    bytes.resize(36, '\0');
    return bytes;
}
long long fit32(long long n) {
    return n >= INT32_MIN && n <= static_cast<long long>(UINT32_MAX) ? n : static_cast<uint32_t>(n);
}

// Folder paths below a volume's path. Made with mkdir -p; failures (names
// too long) are ignored, the volume then simply has no folder.
void make_dirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
    }
}

void write_file(const std::string& path, size_t size) {
    std::ofstream out(path, std::ios::binary);
    out << std::string(size, 'x');
}

// Names after "share/" that the shell would act on if a path reached it
// unquoted; each creates the marker file in the shell's folder.
const std::vector<std::string> kShellNames = {
    "v;touch kelvo_marker;#",      "v$(touch kelvo_marker)",
    "v`touch kelvo_marker`",       "v|touch kelvo_marker;#",
    "v&touch kelvo_marker;#",      "v\ntouch kelvo_marker;#",
    "v';touch kelvo_marker;#",     "v\";touch kelvo_marker;#",
    "v' \"$(touch kelvo_marker)\" '", "v&&touch kelvo_marker||#",
    " v w ",                       "--help",
    "v*",                          "v>kelvo_marker",
};

std::string long_rest() {
    std::string rest;
    for (int i = 0; i < 5; ++i) rest += std::string(199, static_cast<char>('a' + i)) + "/";
    return rest + "end";  // about 1,000 characters
}

// What a server holds, for choosing arguments and checking results.
struct Built {
    std::vector<std::string> uuids, groups, sids, storage_ids, names;
    std::vector<std::string> space_names, volume_rests;
    std::vector<long long> channel_ids;
    struct Channel {
        long long id;
        std::string sid;
    };
    std::vector<Channel> channels;
    struct Place {
        std::string uuid, group;
        std::string fsu;  // volumes: the FSU folder when it was made
    };
    std::vector<Place> spaces, volumes;
};

// The FSU folder the library and kelvo derive from a stored path and uuid.
std::string fsu_of(const std::string& path, const std::string& uuid) {
    std::string tail = uuid.size() > 4 ? uuid.substr(4, 32) : "";
    tail = tail.substr(0, tail.find('\0'));
    return path.substr(0, path.find('\0')) + "/FSU_" + tail;
}

// Hour folder of a stream at |time_ms|, empty when the time has no sane
// local date or the sid gives no folder name.
std::string hour_folder(const std::string& fsu, const std::string& sid, long long record_type,
                        long long stream, long long time_ms) {
    std::string name = sid.substr(0, std::min<size_t>(32, sid.find('\0')));
    if (name.empty() || time_ms < 0 || time_ms > 4102444800000LL) return "";
    time_t seconds = static_cast<time_t>(time_ms / 1000);
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) return "";
    char tail[96];
    snprintf(tail, sizeof(tail), "/%u/%u/%04d%02d%02d/%02d",
             static_cast<unsigned>(record_type), static_cast<unsigned>(stream),
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
    return fsu + "/" + name + tail;
}

// A fitted uuid that none of |places| has yet.
std::string unique_uuid(Random& r, std::vector<std::string>& pool,
                        const std::vector<Built::Place>& places) {
    std::string uuid = fit_uuid(hostile_id(r, 36, pool));
    for (size_t i = 0; i < places.size(); ++i) {
        if (places[i].uuid != uuid) continue;
        uuid = fit_uuid(plain_id(r, 36));
        i = static_cast<size_t>(-1);  // check again from the first
    }
    return uuid;
}

long long saturating_add(long long a, long long b) {
    long long sum;
    if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? LLONG_MAX : LLONG_MIN;
    return sum;
}

long long hostile_time(Random& r, long long now_ms) {
    static const std::vector<long long> extremes = {
        0, -1, -999, -1000, LLONG_MIN, LLONG_MAX, 1000000000000000LL, -62135596800001LL};
    if (r.chance(0.75)) return now_ms - r.between(0, 40 * kDayMs);
    if (r.chance(0.3)) return now_ms + r.between(0, 5 * kDayMs);
    return r.pick(extremes);
}

void add_spaces(SimServer& server, Random& r, Built& b) {
    size_t count = r.chance(0.15) ? 0 : 1 + r.below(4);
    for (size_t i = 0; i < count; ++i) {
        std::string name;
        switch (r.below(6)) {
        case 0: name = b.space_names.empty() ? "Main" : r.pick(b.space_names); break;
        case 1: name = ""; break;
        case 2: name = std::string(512, 'S'); break;
        case 3: name = hostile_id(r, 12, b.names); break;
        default: name = "Space" + std::to_string(i); break;
        }
        name = fit(name, 512);
        b.space_names.push_back(name);
        std::string uuid = unique_uuid(r, b.uuids, b.spaces);
        std::string group = fit_uuid(hostile_id(r, 36, b.groups));
        b.spaces.push_back({uuid, group, ""});
        server.insert("spaces", {{"uuid", as_value(r, uuid)},
                                 {"name", as_value(r, name)},
                                 {"group_uuid", as_value(r, group)},
                                 {"total_size_mb", hostile_number(r)},
                                 {"used_size_mb", hostile_number(r)},
                                 {"status", fit32(hostile_number(r))},
                                 {"spare_status", fit32(hostile_number(r))}});
    }
}

std::string volume_rest(Random& r, Built& b, size_t index) {
    switch (r.below(9)) {
    case 0: return "share/Vol" + std::to_string(index);
    case 1: return "noshare" + std::to_string(index);
    case 2: return "share/";
    case 3: return "mnt" + std::to_string(index) + "/share/a/share/b";
    case 4: return "share/" + long_rest();
    case 5: return "share/" + std::string(127 + r.below(3), 'n');
    case 6: return "share/" + r.pick(kShellNames);
    case 7:
        if (!b.volume_rests.empty()) return r.pick(b.volume_rests);
        return "share/Dup";
    default: return "share/x" + std::to_string(index) + std::string("\0hidden", 7);
    }
}

void add_volumes(SimServer& server, Random& r, Built& b) {
    size_t count = r.chance(0.15) ? 0 : 1 + r.below(5);
    for (size_t i = 0; i < count; ++i) {
        // Every volume path lies below the server's root.
        std::string path = fit(server.root() + "/" + volume_rest(r, b, i), 1024);
        std::string rest = path.substr(server.root().size() + 1);
        b.volume_rests.push_back(rest);
        std::string uuid = unique_uuid(r, b.uuids, b.volumes);
        std::string group = r.chance(0.7) && !b.spaces.empty()
                                ? r.pick(b.spaces).group
                                : fit_uuid(hostile_id(r, 36, b.groups));
        server.insert("volumes", {{"uuid", as_value(r, uuid)},
                                  {"group_uuid", as_value(r, group)},
                                  {"path", Value(path)},
                                  {"volume_no", r.chance(0.5) ? static_cast<long long>(i + 1)
                                                              : fit32(hostile_number(r))},
                                  {"volume_type", fit32(hostile_number(r))},
                                  {"state", fit32(hostile_number(r))},
                                  {"total_size_mb", hostile_number(r)},
                                  {"used_size_mb", hostile_number(r)},
                                  {"label", as_value(r, std::string(std::min<size_t>(r.below(700), 512), 'L'))}});
        b.volumes.push_back({uuid, group, ""});
        if (r.chance(0.25)) continue;  // no folders at all
        std::string fsu = fsu_of(path, uuid);
        b.volumes.back().fsu = fsu;
        make_dirs(fsu + "/preallocate");
        if (r.chance(0.3)) write_file(fsu + "/preallocate/reserve", r.below(300000));
        if (r.chance(0.2)) make_dirs(fsu + "/preallocate/sub");
    }
}

void add_channels(SimServer& server, Random& r, Built& b) {
    size_t count = r.chance(0.15) ? 0 : 1 + r.below(6);
    for (size_t i = 0; i < count; ++i) {
        long long id = r.chance(0.6) ? static_cast<long long>(r.below(8)) : fit32(hostile_number(r));
        std::string sid = fit(hostile_id(r, 32, b.sids), 32);
        b.channels.push_back({id, sid});
        b.channel_ids.push_back(id);
        server.insert("channels", {{"channel_id", id}, {"sid", as_value(r, sid)}});
    }
}

Value storage_id_value(Random& r, Built& b) {
    switch (r.below(10)) {
    case 0:
    case 1:
    case 2: return Value::null();
    case 3: {
        std::string bytes(32, '\0');
        for (size_t i = 1; i < bytes.size(); ++i) bytes[i] = static_cast<char>(r.below(256));
        return Value::blob(bytes);
    }
    case 4: return Value::blob("");
    case 5: return Value(hostile_number(r));
    default: return as_value(r, fit(hostile_id(r, 32, b.storage_ids), 32));
    }
}

std::string period_key(Random& r, size_t index) {
    std::string key = "k" + std::to_string(index) + "-";
    switch (r.below(8)) {
    case 0: return fit(key + std::string(100, 'K'), 63);
    case 1: return key + std::string("\0tail", 5);
    case 2: return key + "$(touch kelvo_marker)";
    case 3: return index == 0 ? "" : key;
    default: return key;
    }
}

// The space, group and volume of a volume, as a profile names them.
void add_profile_of(SimServer& server, Random& r, Built& b, const Built::Channel& channel,
                    const Built::Place& volume) {
    std::string space = fit_uuid(hostile_id(r, 36, b.uuids));
    for (const Built::Place& s : b.spaces)
        if (s.group == volume.group) space = s.uuid;
    server.insert("profiles", {{"channel_id", channel.id},
                               {"sid", as_value(r, channel.sid)},
                               {"space_uuid", as_value(r, space)},
                               {"group_uuid", as_value(r, volume.group)},
                               {"volume_uuid", as_value(r, volume.uuid)},
                               {"storage_id",
                                as_value(r, fit(hostile_id(r, 32, b.storage_ids), 32))}});
}

// An hour folder of a channel's stream on a random volume that has folders;
// often with a profile of the channel for that volume, so that the folder
// leads somewhere.
void add_hour_folder(SimServer& server, Random& r, Built& b, const Built::Channel& channel,
                     long long record_type, long long stream, long long time_ms) {
    if (b.volumes.empty()) return;
    const Built::Place& volume = r.pick(b.volumes);
    if (volume.fsu.empty()) return;
    std::string folder = hour_folder(volume.fsu, channel.sid, record_type, stream, time_ms);
    if (folder.empty()) return;
    make_dirs(folder);
    if (r.chance(0.5)) write_file(folder + "/data", 100);
    if (r.chance(0.5)) add_profile_of(server, r, b, channel, volume);
}

void add_periods(SimServer& server, Random& r, Built& b, long long now_ms) {
    size_t count = r.chance(0.15) ? 0 : r.below(40);
    for (size_t i = 0; i < count; ++i) {
        bool known = !b.channels.empty() && r.chance(0.8);
        Built::Channel channel =
            known ? r.pick(b.channels)
                  : Built::Channel{fit32(hostile_number(r)), std::string(32, '1')};
        long long record_type = r.chance(0.45) ? 4 : r.chance(0.8) ? 1 : fit32(hostile_number(r));
        long long stream = r.chance(0.85) ? r.between(0, 5) : fit32(hostile_number(r));
        long long start = hostile_time(r, now_ms);
        long long end;
        if (r.chance(0.6)) end = saturating_add(start, r.between(0, 2 * 3600 * 1000));
        else if (r.chance(0.5)) end = saturating_add(start, -r.between(1, 3600 * 1000));
        else end = hostile_time(r, now_ms);
        server.insert("periods", {{"channel_id", channel.id},
                                  {"record_type", record_type},
                                  {"stream", stream},
                                  {"start_ms", start},
                                  {"end_ms", end},
                                  {"storage_id", storage_id_value(r, b)},
                                  {"period_key", Value(period_key(r, i))},
                                  {"size_mb", hostile_number(r)}});
        if (known && r.chance(0.7))
            add_hour_folder(server, r, b, channel, record_type, stream, start);
    }
    for (const Built::Channel& channel : b.channels) {
        if (!r.chance(0.5)) continue;
        for (int n = 0; n < 3; ++n) {
            add_hour_folder(server, r, b, channel, r.chance(0.5) ? 4 : 1, r.between(0, 4),
                            now_ms - r.between(0, 29 * kDayMs));
        }
    }
}

void add_profiles(SimServer& server, Random& r, Built& b) {
    size_t count = r.chance(0.15) ? 0 : r.below(10);
    for (size_t i = 0; i < count; ++i) {
        bool known = !b.channels.empty() && r.chance(0.8);
        Built::Channel channel =
            known ? r.pick(b.channels)
                  : Built::Channel{fit32(hostile_number(r)), std::string(32, '0')};
        // Most profiles name a real place: a volume, its group and its space.
        if (!b.volumes.empty() && r.chance(0.6)) {
            add_profile_of(server, r, b, channel, r.pick(b.volumes));
            continue;
        }
        std::string sid = r.chance(0.75) ? channel.sid : fit(hostile_id(r, 32, b.sids), 32);
        server.insert("profiles",
                      {{"channel_id", channel.id},
                       {"sid", as_value(r, sid)},
                       {"space_uuid", as_value(r, fit_uuid(hostile_id(r, 36, b.uuids)))},
                       {"group_uuid", as_value(r, fit_uuid(hostile_id(r, 36, b.groups)))},
                       {"volume_uuid", as_value(r, fit_uuid(hostile_id(r, 36, b.uuids)))},
                       {"storage_id", as_value(r, fit(hostile_id(r, 32, b.storage_ids), 32))}});
    }
}

void add_volume_channels(SimServer& server, Random& r, Built& b) {
    size_t count = r.chance(0.2) ? 0 : r.below(10);
    for (size_t i = 0; i < count; ++i) {
        long long channel = !b.channel_ids.empty() && r.chance(0.5) ? r.pick(b.channel_ids)
                                                                    : fit32(hostile_number(r));
        server.insert("volume_channels",
                      {{"volume_no", r.chance(0.6) ? static_cast<long long>(r.below(6))
                                                   : fit32(hostile_number(r))},
                       {"channel_id", channel},
                       {"sid", as_value(r, fit(hostile_id(r, 32, b.sids), 32))}});
    }
}

void add_faults(SimServer& server, Random& r, Built& b) {
    if (!r.chance(0.3)) return;
    static const std::vector<std::string> ops = {
        "create_plug_play_service", "create_channel_session",  "query_time_periods",
        "retrieve_storage_id_profile_list", "update_time_period", "get_volume_setting",
        "tier_init",                "unit_init",                "create_channel_configuration",
        "no_such_operation",        "create_storage_setting"};
    static const std::vector<long long> results = {-1, 0, 1, 7, INT32_MIN, (1LL << 32) + 5};
    size_t count = 1 + r.below(3);
    for (size_t i = 0; i < count; ++i) {
        // Refusing the setting silences every command; keep it rare.
        std::string op = r.pick(ops);
        if (op == "create_storage_setting" && !r.chance(0.2)) op = "unit_init";
        std::string target = "*";
        if (r.chance(0.6)) {
            if (op == "update_time_period") {
                target = "k" + std::to_string(r.below(10)) + "-";
            } else if (!b.channel_ids.empty() && r.chance(0.5)) {
                target = std::to_string(static_cast<uint32_t>(r.pick(b.channel_ids)));
                if (op == "query_time_periods")
                    target += ":" + std::to_string(r.chance(0.5) ? 4 : 1) + ":" +
                              std::to_string(r.between(0, 4));
            } else if (!b.uuids.empty()) {
                target = r.pick(b.uuids);
            }
        }
        server.insert("faults", {{"op", op}, {"target", target}, {"result", r.pick(results)}});
    }
}

void build_server(SimServer& server, Random& r, Built& b, long long now_ms) {
    server.exec("BEGIN");
    add_spaces(server, r, b);
    add_volumes(server, r, b);
    add_channels(server, r, b);
    add_periods(server, r, b, now_ms);
    add_profiles(server, r, b);
    add_volume_channels(server, r, b);
    add_faults(server, r, b);
    if (r.chance(0.3)) server.enable_trace();
    server.exec("COMMIT");
}

// Command-line arguments, as a shell user might type them.
std::string channel_arg(Random& r, const Built& b) {
    static const std::vector<std::string> odd = {"-1", "-2", "32", "abc", "3x", "2147483647",
                                                 "4294967295", "99999999999999999999"};
    if (r.chance(0.3)) return "-1";
    if (!b.channel_ids.empty() && r.chance(0.6)) return std::to_string(r.pick(b.channel_ids));
    return r.pick(odd);
}

std::string c_text(const std::string& s) { return s.substr(0, s.find('\0')); }

std::string space_name_arg(Random& r, const Built& b) {
    if (!b.space_names.empty() && r.chance(0.7)) return c_text(r.pick(b.space_names));
    return r.chance(0.5) ? "NoSuchSpace" : std::string(600, 'S');
}

std::string volume_name_arg(Random& r, const Built& b) {
    if (!b.volume_rests.empty() && r.chance(0.7)) {
        std::string rest = c_text(r.pick(b.volume_rests));
        size_t share = rest.find("share/");
        return share == std::string::npos ? rest : rest.substr(share + 6);
    }
    return r.chance(0.5) ? "VolName_1" : "";
}

std::string describe(const std::vector<std::string>& args) {
    std::string text = "kelvo";
    for (const std::string& a : args) {
        text += " '";
        for (char c : a) text += c == '\n' ? std::string("\\n") : std::string(1, c);
        text += "'";
    }
    return text;
}

bool has_marker(const std::vector<std::string>& tree) {
    for (std::string path : tree) {
        if (path.back() == '/') path.pop_back();
        if (path.substr(path.rfind('/') + 1) == kMarker) return true;  // npos + 1 is 0
    }
    return false;
}

// Parts of |text| between |sep| characters. A final newline ends the last
// line; any other final separator starts an empty last part.
std::vector<std::string> split(const std::string& text, char sep = '\n') {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, sep);) out.push_back(part);
    if (sep != '\n' && !text.empty() && text.back() == sep) out.push_back("");
    return out;
}

bool all_digits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Whether |path| is a day folder of a stream folder (.../<type>/<stream>/
// YYYYMMDD) or lies inside one: the only folders recycling may remove.
bool inside_day_folder(const std::string& path) {
    std::vector<std::string> parts = split(path, '/');
    for (size_t i = 2; i < parts.size(); ++i) {
        if (parts[i].size() == 8 && all_digits(parts[i]) && all_digits(parts[i - 1]) &&
            all_digits(parts[i - 2]))
            return true;
    }
    return false;
}

std::vector<std::string> missing_from(const std::vector<std::string>& before,
                                      const std::vector<std::string>& after) {
    std::set<std::string> now(after.begin(), after.end());
    std::vector<std::string> gone;
    for (const std::string& p : before)
        if (!now.count(p)) gone.push_back(p);
    return gone;
}

// Paths that disappeared or appeared, one a line; empty when none did.
std::string tree_changes(const std::vector<std::string>& before,
                         const std::vector<std::string>& after) {
    std::string text;
    for (const std::string& p : missing_from(before, after)) text += "gone: " + p + "\n";
    for (const std::string& p : missing_from(after, before)) text += "new:  " + p + "\n";
    return text;
}

// Rows of one table in a dump.
std::string table_of(const std::string& dump, const std::string& table) {
    size_t start = dump.find("== " + table + "\n");
    if (start == std::string::npos) return "";
    size_t end = dump.find("\n== ", start + 1);
    return dump.substr(start, end == std::string::npos ? std::string::npos : end + 1 - start);
}

std::string without_table(const std::string& dump, const std::string& table) {
    std::string rows = table_of(dump, table);
    std::string rest = dump;
    size_t at = rest.find(rows);
    if (!rows.empty() && at != std::string::npos) rest.erase(at, rows.size());
    return rest;
}

// The first line where two dumps differ, or empty when they are equal.
std::string first_difference(const std::string& before, const std::string& after) {
    if (before == after) return "";
    std::vector<std::string> a = split(before), b = split(after);
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) ++i;
    return "before: " + (i < a.size() ? a[i] : std::string("(end)")) +
           "\nafter:  " + (i < b.size() ? b[i] : std::string("(end)"));
}

// The 32-byte form (hex) of a storage id stored as |hex| (as SQLite's hex()).
std::string padded_hex(std::string hex) {
    if (hex.size() > 64) hex.resize(64);
    return hex + std::string(64 - hex.size(), '0');
}

const char kPeriodRows[] =
    "SELECT rowid, channel_id, record_type, stream, start_ms, end_ms, typeof(storage_id), "
    "hex(storage_id), hex(period_key), size_mb FROM periods ORDER BY rowid";
const size_t kStorageIdType = 6, kStorageIdHex = 7;

// recoverid may only write, into a period whose storage id was null, a
// storage id of a profile of the same channel, as a 32-byte blob.
void expect_only_recovered(SimServer& server, const std::string& before_dump,
                           const std::string& before_periods) {
    EXPECT_EQ(first_difference(without_table(before_dump, "periods"),
                               without_table(server.dump_tables(), "periods")),
              "");
    std::vector<std::string> old_rows = split(before_periods);
    std::vector<std::string> new_rows = split(server.query(kPeriodRows));
    ASSERT_EQ(old_rows.size(), new_rows.size());
    for (size_t i = 0; i < old_rows.size(); ++i) {
        if (old_rows[i] == new_rows[i]) continue;
        SCOPED_TRACE("period before: " + old_rows[i] + "\nperiod after:  " + new_rows[i]);
        std::vector<std::string> o = split(old_rows[i], '|'), n = split(new_rows[i], '|');
        ASSERT_EQ(o.size(), n.size());
        for (size_t k = 0; k < o.size(); ++k) {
            if (k == kStorageIdType || k == kStorageIdHex) continue;
            EXPECT_EQ(o[k], n[k]) << "column " << k;
        }
        EXPECT_TRUE(o[kStorageIdHex].empty() || o[kStorageIdHex].compare(0, 2, "00") == 0)
            << "storage id was not null";
        EXPECT_EQ(n[kStorageIdType], "blob");
        std::string profiles =
            server.query("SELECT hex(storage_id) FROM profiles WHERE channel_id = " + n[1]);
        bool known = false;
        for (const std::string& p : split(profiles))
            known = known || padded_hex(p) == n[kStorageIdHex];
        EXPECT_TRUE(known) << "written storage id is no profile's of the channel";
    }
}

const char kVolumeRows[] = "SELECT rowid, volume_type, state FROM volumes ORDER BY rowid";

// volset may change one volume row, and only to the type and state asked.
void expect_only_volume_set(SimServer& server, const std::string& before_dump,
                            const std::string& type, const std::string& state) {
    std::string after_dump = server.dump_tables();
    EXPECT_EQ(first_difference(without_table(before_dump, "volumes"),
                               without_table(after_dump, "volumes")),
              "");
    std::vector<std::string> old_rows = split(table_of(before_dump, "volumes"));
    std::vector<std::string> new_rows = split(table_of(after_dump, "volumes"));
    std::vector<std::string> codes = split(server.query(kVolumeRows));
    ASSERT_EQ(old_rows.size(), new_rows.size());
    ASSERT_EQ(codes.size() + 1, new_rows.size());
    std::string expected = std::string(type == "0" ? "0" : "2") + "|" + (state == "0" ? "1" : "0");
    int changed = 0;
    for (size_t i = 1; i < old_rows.size(); ++i) {
        if (old_rows[i] == new_rows[i]) continue;
        ++changed;
        const std::string& row = codes[i - 1];
        EXPECT_EQ(row.substr(row.find('|') + 1), expected) << "volume row " << row;
    }
    EXPECT_LE(changed, 1);
}

struct Command {
    std::vector<std::string> args;
    enum Kind { ReadOnly, Recycles, SetsVolume, Recovers } kind;
};

std::vector<Command> commands_for(Random& r, const Built& b) {
    std::string type = r.chance(0.5) ? "0" : "1", state = r.chance(0.5) ? "0" : "1";
    std::vector<std::string> spacelist = {"spacelist"};
    if (r.chance(0.3)) spacelist = {"spacelist", "x", "y", "z"};
    return {
        {spacelist, Command::ReadOnly},
        {{"vollist", space_name_arg(r, b)}, Command::ReadOnly},
        {{"voluse", channel_arg(r, b)}, Command::ReadOnly},
        {{"volchn", volume_name_arg(r, b)}, Command::ReadOnly},
        {{"nullid", channel_arg(r, b)}, Command::ReadOnly},
        {{"spaceinfo", space_name_arg(r, b)}, Command::ReadOnly},
        {{"volclean", channel_arg(r, b)}, Command::Recycles},
        {{"autoclean"}, Command::Recycles},
        {{"volset", volume_name_arg(r, b), type, state}, Command::SetsVolume},
        {{"recoverid", channel_arg(r, b)}, Command::Recovers},
    };
}

void run_and_check(SimServer& server, const Command& command) {
    SCOPED_TRACE(describe(command.args));
    std::string before = server.dump_tables();
    std::vector<std::string> tree_before = server.tree();
    std::string periods_before = server.query(kPeriodRows);

    kt::RunResult result = server.run(command.args);
    if (getenv("KELVO_FUZZ_VERBOSE"))
        printf("%s\n%s\n", describe(command.args).c_str(), result.out.substr(0, 3000).c_str());

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    std::vector<std::string> tree_after = server.tree();
    if (getenv("KELVO_FUZZ_VERBOSE")) printf("%s", tree_changes(tree_before, tree_after).c_str());
    EXPECT_FALSE(has_marker(tree_after)) << "a path reached the shell";
    switch (command.kind) {
    case Command::ReadOnly:
        EXPECT_EQ(first_difference(before, server.dump_tables()), "");
        EXPECT_EQ(tree_changes(tree_before, tree_after), "");
        break;
    case Command::Recycles: {
        EXPECT_EQ(first_difference(before, server.dump_tables()), "");
        for (const std::string& made : missing_from(tree_after, tree_before))
            ADD_FAILURE() << "made: " << made;
        for (const std::string& gone : missing_from(tree_before, tree_after))
            EXPECT_TRUE(inside_day_folder(gone)) << "removed: " << gone;
        break;
    }
    case Command::SetsVolume:
        expect_only_volume_set(server, before, command.args[2], command.args[3]);
        EXPECT_EQ(tree_changes(tree_before, tree_after), "");
        break;
    case Command::Recovers:
        expect_only_recovered(server, before, periods_before);
        EXPECT_EQ(tree_changes(tree_before, tree_after), "");
        break;
    }
}

struct FuzzSettings {
    uint64_t seed = kDefaultSeed;
    long long iterations = 24;
    double seconds = 0;
};

FuzzSettings settings_from_env() {
    FuzzSettings s;
    auto value = [](const char* name) {
        const char* v = getenv(name);
        return v && *v ? v : nullptr;
    };
    if (const char* v = value("KELVO_FUZZ_SEED")) s.seed = strtoull(v, nullptr, 10);
    if (const char* v = value("KELVO_FUZZ_ITERATIONS")) s.iterations = strtoll(v, nullptr, 10);
    if (const char* v = value("KELVO_FUZZ_SECONDS")) s.seconds = strtod(v, nullptr);
    return s;
}

TEST(HostileData, EveryCommandSurvivesAndWritesOnlyWhatItMay) {
    FuzzSettings settings = settings_from_env();
    auto start = std::chrono::steady_clock::now();
    long long done = 0;
    for (uint64_t seed = settings.seed;; ++seed) {
        double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (settings.seconds > 0 ? elapsed >= settings.seconds : done >= settings.iterations)
            break;
        SCOPED_TRACE("seed " + std::to_string(seed) + " (replay: KELVO_FUZZ_SEED=" +
                     std::to_string(seed) + " KELVO_FUZZ_ITERATIONS=1)");
        Random r(seed);
        static const std::vector<std::string> zones = {"UTC", "America/New_York",
                                                       "Asia/Kolkata", "Australia/Lord_Howe"};
        SimServer server(r.pick(zones));
        Built built;
        build_server(server, r, built, static_cast<long long>(time(nullptr)) * 1000);
        for (const Command& command : commands_for(r, built)) run_and_check(server, command);
        ++done;
        if (HasFailure()) {
            printf("finding with seed %llu\n", static_cast<unsigned long long>(seed));
            if (getenv("KELVO_FUZZ_VERBOSE")) printf("%s\n", server.dump_tables().c_str());
            break;
        }
    }
    printf("hostile servers checked: %lld, seeds from %llu\n", done,
           static_cast<unsigned long long>(settings.seed));
    EXPECT_GT(done, 0);
}

}  // namespace
