// The JSON form of the report (format 1). Each element of the four arrays
// is built and written on its own line, so memory does not follow the size
// of the server.
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
              {"type", v.spare ? "spare" : "normal"},
              {"state", v.state},
              {"total_mb", v.total_mb},
              {"used_mb", v.used_mb},
              {"preallocate_remain_mb", nullptr},
              {"preallocate_total_mb", nullptr},
              {"lost_mb", nullptr},
              {"leak", v.leak},
              {"channel_ids", v.channel_ids}};
    if (v.space >= 0) j["space"] = report.spaces[static_cast<size_t>(v.space)].name;
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
        recordings.push_back({{"space", report.spaces[static_cast<size_t>(r.space)].name},
                              {"size_mb", r.size_mb},
                              {"days", {{"NR", r.days[0]}, {"AR", r.days[1]}}}});
    json j = {{"channel_id", c.channel_id},
              {"sid", c.sid},
              {"volume", nullptr},
              {"null_storage_ids", c.null_storage_ids},
              {"query_failures", c.query_failures},
              {"recycle", recycle},
              {"recordings", recordings}};
    if (c.has_volume) j["volume"] = c.volume;
    return j;
}

json problem_json(const Problem& p) {
    return {{"severity", p.critical ? "critical" : "warning"},
            {"subject", p.subject},
            {"text", p.text}};
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
