// The recycle plan as text for the console and as JSON (the "plan" object of
// doc/kelvo-report.schema.json).
#include <algorithm>
#include <ctime>
#include <functional>
#include <set>

#include <nlohmann/json.hpp>

#include "plan.h"
#include "report.h"

namespace {

using json = nlohmann::ordered_json;

// A time at the library boundary in the process's zone, with milliseconds
// when it has any (a bound is one before a period's start).
std::string local_text(int64_t ms) {
    // Without multiplying back: that overflows at the ends of 64 bits.
    const int64_t seconds = ms / 1000 - (ms % 1000 < 0 ? 1 : 0);
    const int millis = static_cast<int>((ms % 1000 + 1000) % 1000);
    time_t t = static_cast<time_t>(seconds);
    struct tm local = {};
    char text[64];
    if (localtime_r(&t, &local) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "[invalid time]";
    std::string s = text;
    if (millis != 0) {
        snprintf(text, sizeof(text), ".%03d", millis);
        s += text;
    }
    return s;
}

const char* bound_name(RecycleBound bound) {
    switch (bound) {
    case RecycleBound::kFound: return "found";
    case RecycleBound::kWholeWindow: return "whole_window";
    case RecycleBound::kNoSession: return "no_session";
    }
    return "no_session";
}

// What the walk does with a stream, in words.
std::string stream_text(const Plan& plan, const PlanStream& s) {
    std::string text;
    if (s.bound == RecycleBound::kNoSession) return "no channel session: skipped";
    if (s.bound == RecycleBound::kFound) text = "oldest listed period found";
    else
        text = s.query_failed ? "period query failed, taken as no period"
                              : "no period listed in the window";
    if (!s.recycles) return text + ": not recycled";
    text +=
        s.bound == RecycleBound::kWholeWindow ? ": the whole window goes, to " : ": recycled to ";
    text += local_text(s.to_ms);
    if (s.to_ms < plan.from_ms) text += " (before the window: nothing)";
    return text;
}

// What becomes of a folder: a word, then why when it stays.
std::string folder_note(const PlanFolder& f) {
    if (!f.inside_window) return "stays";
    if (f.listed_periods == 0) return "goes ";
    return "kept ";
}

std::string folder_why(const PlanFolder& f) {
    if (!f.inside_window) return " (it holds instants outside the window too)";
    if (f.listed_periods == 0) return "";
    return " (holds " + std::to_string(f.listed_periods) +
           " listed periods: this library spares it, one that does not would remove "
           "recordings the database still lists)";
}

std::string stream_label(const PlanStream& s) {
    char label[16];
    snprintf(label, sizeof(label), "[%s S%02d]", record_type_label(s.record_type), s.stream);
    return label;
}

std::string totals_text(const PlanTotals& t) {
    std::string text = std::to_string(t.folders) + " hour folders, " + std::to_string(t.bytes) +
                       " bytes would go";
    if (t.kept_listed > 0)
        text += "; " + std::to_string(t.kept_listed) +
                " inside a window hold listed periods (kept by this library only)";
    if (t.whole_window > 0)
        text += "; " + std::to_string(t.whole_window) + " streams lose their whole window";
    return text;
}

// The ten streams of one channel entry (for autoclean, on one volume) from
// |first| on: one line each that goes to the library, with its folders, and
// one line for each reason the others do not.
size_t write_channel_text(FILE* out, const Plan& plan, size_t first, const char* indent) {
    const PlanStream& head = plan.streams[first];
    fprintf(out, "%s%s (sid %s)\n", indent, channel_label(head.channel_id).c_str(),
            head.sid.c_str());
    std::vector<std::pair<std::string, std::string>> skipped;  // reason, streams
    const size_t end = std::min(plan.streams.size(), first + 10);
    for (size_t i = first; i < end; ++i) {
        const PlanStream& s = plan.streams[i];
        if (!s.recycles) {
            const std::string why = stream_text(plan, s);
            auto same = std::find_if(skipped.begin(), skipped.end(),
                                     [&why](const auto& r) { return r.first == why; });
            if (same == skipped.end()) skipped.push_back({why, stream_label(s)});
            else same->second += " " + stream_label(s);
            continue;
        }
        fprintf(out, "%s  %s %s\n", indent, stream_label(s).c_str(), stream_text(plan, s).c_str());
        // Folders come in the order of their streams.
        auto f = std::lower_bound(plan.folders.begin(), plan.folders.end(), i,
                                  [](const PlanFolder& a, size_t b) { return a.stream < b; });
        for (; f != plan.folders.end() && f->stream == i; ++f)
            fprintf(out, "%s      %s %10lld bytes  %s%s\n", indent, folder_note(*f).c_str(),
                    static_cast<long long>(f->bytes), f->path.c_str(), folder_why(*f).c_str());
    }
    for (const auto& r : skipped)
        fprintf(out, "%s  %s %s\n", indent, r.second.c_str(), r.first.c_str());
    return end;
}

}  // namespace

void write_plan_text(FILE* out, const Plan& plan) {
    const std::string command = plan_command_line(plan.request);
    fprintf(out, "Recycle plan of '%s' at %s: nothing has been removed.\n", command.c_str(),
            local_text(plan.now_ms).c_str());
    fprintf(out, "Window: from %s (30 days back) to each stream's bound.\n",
            local_text(plan.from_ms).c_str());
    if (!plan.named)
        fprintf(out, "The library names no hour folder here (its recorder zone?): none listed.\n");
    if (!plan.nothing.empty()) fprintf(out, "kelvo would print \"%s\"\n", plan.nothing.c_str());
    for (size_t i = 0; plan.request.volclean && i < plan.streams.size();) {
        const uint32_t channel_id = plan.streams[i].channel_id;
        i = write_channel_text(out, plan, i, "");
        fprintf(out, "  %s: %s\n", channel_label(channel_id).c_str(),
                totals_text(plan_totals(plan, false, channel_id)).c_str());
    }
    for (size_t v = 0; v < plan.volumes.size(); ++v) {
        const PlanVolume& volume = plan.volumes[v];
        const VolumeLeak& l = volume.leak;
        fprintf(out, "Volume %s (%s): ", volume.name.c_str(), volume.uuid.c_str());
        if (volume.measured == kUsageNoFolder)
            fprintf(out, "no preallocate folder: autoclean skips it\n");
        else if (volume.measured != 0) fprintf(out, "du cannot start: autoclean skips it\n");
        else
            fprintf(out,
                    "total %lld MB, used %lld MB, preallocate remain %lld MB, lost %lld MB: %s\n",
                    static_cast<long long>(l.total_mb), static_cast<long long>(l.used_mb),
                    static_cast<long long>(l.preallocate_remain_mb),
                    static_cast<long long>(l.lost_mb),
                    l.leaks ? "leaks (over 5%), recycled" : "no leak");
        if (volume.no_channels)
            fprintf(out, "  kelvo would print \"No channel settings found.\"\n");
        for (size_t i = 0; i < plan.streams.size();)
            if (plan.streams[i].volume == static_cast<int>(v))
                i = write_channel_text(out, plan, i, "  ");
            else ++i;
    }
    const PlanTotals t = plan_totals(plan, true, 0);
    std::set<uint32_t> losing;  // channels with a folder that goes
    for (const PlanFolder& f : plan.folders)
        if (f.goes()) losing.insert(plan.streams[f.stream].channel_id);
    fprintf(out, "Run: %s\n", command.c_str());
    fprintf(out,
            "Plan: %lld hour folders (%lld bytes) of %zu channels would go, %lld kept for listed "
            "periods, %lld streams recycled whole\n",
            static_cast<long long>(t.folders), static_cast<long long>(t.bytes), losing.size(),
            static_cast<long long>(t.kept_listed), static_cast<long long>(t.whole_window));
}

void write_plan_json(FILE* out, const Plan& plan) {
    auto put = [out](const json& value) {
        fputs(value.dump(-1, ' ', false, json::error_handler_t::replace).c_str(), out);
    };
    auto array = [&](const char* name, size_t size, const std::function<json(size_t)>& element) {
        fprintf(out, ",\n\"%s\": [", name);
        for (size_t i = 0; i < size; ++i) {
            fputs(i == 0 ? "\n" : ",\n", out);
            put(element(i));
        }
        fputs(size == 0 ? "]" : "\n]", out);
    };
    json head = {{"command", plan.request.volclean ? "volclean" : "autoclean"}};
    if (plan.request.volclean) head["channel"] = plan.request.channel_id;
    head["run"] = plan_command_line(plan.request);
    head["now_ms"] = plan.now_ms;
    head["from_ms"] = plan.from_ms;
    head["folders_named"] = plan.named;
    head["nothing"] = plan.nothing.empty() ? json(nullptr) : json(plan.nothing);
    std::string text = head.dump(-1, ' ', false, json::error_handler_t::replace);
    text.pop_back();  // the object goes on
    fprintf(out, "{\"plan\": %s", text.c_str());
    array("volumes", plan.volumes.size(), [&](size_t i) {
        const PlanVolume& v = plan.volumes[i];
        const bool measured = v.measured == 0;
        auto figure = [measured](int64_t mb) { return measured ? json(mb) : json(nullptr); };
        return json{{"name", v.name},
                    {"uuid", v.uuid},
                    {"measured", measured},
                    {"total_mb", v.leak.total_mb},
                    {"used_mb", figure(v.leak.used_mb)},
                    {"preallocate_remain_mb", figure(v.leak.preallocate_remain_mb)},
                    {"lost_mb", figure(v.leak.lost_mb)},
                    {"leak", v.leak.leaks}};
    });
    array("streams", plan.streams.size(), [&](size_t i) {
        const PlanStream& s = plan.streams[i];
        json j = {{"channel_id", s.channel_id},
                  {"channel", channel_label(s.channel_id)},
                  {"sid", s.sid},
                  {"record_type", s.record_type},
                  {"stream", s.stream},
                  {"bound", bound_name(s.bound)},
                  {"query_failed", s.query_failed},
                  {"recycled", s.recycles},
                  {"from_ms", s.from_ms},
                  {"to_ms", s.bound == RecycleBound::kNoSession ? json(nullptr) : json(s.to_ms)}};
        if (s.volume >= 0) j["volume_uuid"] = plan.volumes[static_cast<size_t>(s.volume)].uuid;
        return j;
    });
    array("folders", plan.folders.size(), [&](size_t i) {
        const PlanFolder& f = plan.folders[i];
        const PlanStream& s = plan.streams[f.stream];
        return json{{"path", f.path},
                    {"bytes", f.bytes},
                    {"inside_window", f.inside_window},
                    {"listed_periods", f.listed_periods},
                    {"goes", f.goes()},
                    {"stream", f.stream},
                    {"channel_id", s.channel_id},
                    {plan.request.volclean ? "space" : "volume", f.place},
                    {plan.request.volclean ? "space_uuid" : "volume_uuid", f.place_uuid}};
    });
    std::set<uint32_t> ids;
    std::vector<uint32_t> order;
    for (const PlanStream& s : plan.streams)
        if (ids.insert(s.channel_id).second) order.push_back(s.channel_id);
    auto totals = [](const PlanTotals& t) {
        return json{{"folders", t.folders},
                    {"bytes", t.bytes},
                    {"kept_listed", t.kept_listed},
                    {"whole_window_streams", t.whole_window}};
    };
    array("channels", order.size(), [&](size_t i) {
        json j = {{"channel_id", order[i]}, {"channel", channel_label(order[i])}};
        j.update(totals(plan_totals(plan, false, order[i])));
        return j;
    });
    fputs(",\n\"totals\": ", out);
    put(totals(plan_totals(plan, true, 0)));
    fputs("}}\n", out);
}
