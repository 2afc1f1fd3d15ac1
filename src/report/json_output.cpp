// The JSON form of the report (format 1). Each element of the four arrays
// is built and written on its own line, so memory does not follow the size
// of the server.
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>

#include <nlohmann/json.hpp>

#include "report.h"
#include "walks.h"

namespace {

using json = nlohmann::ordered_json;

// Names come from the library as bytes; invalid UTF-8 is replaced.
void put(FILE* out, const json& value) {
    std::string text = value.dump(-1, ' ', false, json::error_handler_t::replace);
    fputs(text.c_str(), out);
}

std::string rfc3339(int64_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    struct tm utc = {};
    char text[32];
    if (gmtime_r(&t, &utc) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return "1970-01-01T00:00:00Z";
    return text;
}

std::string host_name() {
    struct utsname name = {};
    return uname(&name) == 0 ? name.nodename : "";
}

// The zone the local dates are in: TZ as the C library takes it, else the
// zone /etc/localtime links to, else its abbreviation.
std::string time_zone() {
    const char* tz = getenv("TZ");
    if (tz != nullptr && *tz != '\0') return tz[0] == ':' ? tz + 1 : tz;
    char target[PATH_MAX];
    ssize_t n = readlink("/etc/localtime", target, sizeof(target) - 1);
    if (n > 0) {
        std::string path(target, static_cast<size_t>(n));
        size_t at = path.find("zoneinfo/");
        if (at != std::string::npos) return path.substr(at + 9);
    }
    tzset();
    return tzname[0];
}

const SpaceFigures& space_of(const Report& report, int space) {
    return report.spaces[static_cast<size_t>(space)];
}

json space_json(const SpaceFigures& s) {
    return {{"name", s.name},
            {"uuid", s.uuid},
            {"status", s.status},
            {"total_mb", s.total_mb},
            {"used_mb", s.used_mb}};
}

json volume_json(const Report& report, const VolumeFigures& v) {
    json j = {{"name", v.name},
              {"uuid", v.uuid},
              {"space", nullptr},
              {"space_uuid", nullptr},
              {"type", v.spare ? "spare" : "normal"},
              {"state", v.state},
              {"total_mb", v.total_mb},
              {"used_mb", v.used_mb},
              {"preallocate_remain_mb", nullptr},
              {"preallocate_total_mb", nullptr},
              {"lost_mb", nullptr},
              {"leak", v.leak},
              {"channel_ids", v.channel_ids}};
    if (v.space >= 0) {
        j["space"] = space_of(report, v.space).name;
        j["space_uuid"] = space_of(report, v.space).uuid;
    }
    if (v.measured) {
        j["preallocate_remain_mb"] = v.preallocate_remain_mb;
        j["preallocate_total_mb"] = v.preallocate_total_mb;
        j["lost_mb"] = v.lost_mb;
    }
    return j;
}

json channel_json(const Report& report, const ChannelFigures& c) {
    json recycle = json::array();
    for (const RecycleFigures& r : c.recycle)
        recycle.push_back({{"record_type", record_type_label(r.record_type)},
                           {"stream", r.stream},
                           {"from_ms", r.from_ms},
                           {"bound_ms", r.bound_ms},
                           {"whole_window", r.whole_window},
                           {"query_failed", r.query_failed}});
    json recordings = json::array();
    for (const Recordings& r : c.recordings)
        recordings.push_back({{"space", space_of(report, r.space).name},
                              {"space_uuid", space_of(report, r.space).uuid},
                              {"size_mb", r.size_mb},
                              {"days", {{"NR", r.days[0]}, {"AR", r.days[1]}}}});
    json j = {{"channel_id", c.channel_id},
              {"sid", c.sid},
              {"volume", nullptr},
              {"volume_uuid", nullptr},
              {"null_storage_ids", c.null_storage_ids},
              {"query_failures", c.query_failures},
              {"recycle", recycle},
              {"recordings", recordings}};
    if (c.has_volume) {
        j["volume"] = c.volume;
        // voluse's answer: the last volume in list order that reports the channel.
        for (auto v = report.volumes.rbegin(); v != report.volumes.rend(); ++v)
            if (std::binary_search(v->channel_ids.begin(), v->channel_ids.end(), c.channel_id)) {
                j["volume_uuid"] = v->uuid;
                break;
            }
    }
    return j;
}

json problem_json(const Problem& p) {
    json j = {{"severity", p.critical ? "critical" : "warning"},
              {"kind", p.kind},
              {"subject", p.subject},
              {"text", p.text}};
    if (!p.uuid.empty()) j["uuid"] = p.uuid;
    return j;
}

template <typename Items, typename ToJson>
void put_array(FILE* out, const char* key, const Items& items, ToJson to_json, bool last) {
    fprintf(out, "  \"%s\": [", key);
    const char* separator = "\n    ";
    for (const auto& item : items) {
        fputs(separator, out);
        put(out, to_json(item));
        separator = ",\n    ";
    }
    fputs(items.empty() ? "]" : "\n  ]", out);
    fputs(last ? "\n" : ",\n", out);
}

}  // namespace

void write_json(FILE* out, const Report& report) {
    fprintf(out, "{\n  \"format\": 1,\n  \"generated\": \"%s\",\n",
            rfc3339(report.generated_s).c_str());
    const json about = {{"host", host_name()},
                        {"kelvo_version", KELVO_VERSION},
                        {"timezone", time_zone()}};
    for (const auto& item : about.items()) {
        fprintf(out, "  %s: ", json(item.key()).dump().c_str());
        put(out, item.value());
        fputs(",\n", out);
    }
    put_array(out, "spaces", report.spaces, space_json, false);
    put_array(
        out, "volumes", report.volumes,
        [&report](const VolumeFigures& v) { return volume_json(report, v); }, false);
    put_array(
        out, "channels", report.channels,
        [&report](const ChannelFigures& c) { return channel_json(report, c); }, false);
    put_array(out, "problems", report.problems, problem_json, true);
    fputs("}\n", out);
}

void write_json_error(FILE* out, const std::string& error, const std::string& failed_call) {
    json j = {{"error", error}};
    if (!failed_call.empty()) j["call"] = failed_call;
    put(out, j);
    fputs("\n", out);
}
