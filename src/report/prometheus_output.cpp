// The Prometheus text form of the report.
#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "report.h"
#include "walks.h"

namespace {

const int64_t kBytesPerMb = 1048576;

std::string label_value(const std::string& text) {
    std::string out;
    for (char c : valid_utf8(text)) {
        if (c == '\\') out += "\\\\";
        else if (c == '"') out += "\\\"";
        else if (c == '\n') out += "\\n";
        else out += c;
    }
    return out;
}

// name{key="value",...} with the values escaped.
struct Labels {
    std::string text;
    Labels& add(const char* key, const std::string& value) {
        text += text.empty() ? "{" : ",";
        text += key;
        text += "=\"" + label_value(value) + "\"";
        return *this;
    }
    std::string str() const { return text.empty() ? text : text + "}"; }
};

void family(FILE* out, const char* name, const char* help) {
    fprintf(out, "# HELP %s %s\n# TYPE %s gauge\n", name, help, name);
}

void sample(FILE* out, const char* name, const Labels& labels, const char* value) {
    fprintf(out, "%s%s %s\n", name, labels.str().c_str(), value);
}

void sample(FILE* out, const char* name, const Labels& labels, int64_t value) {
    char text[32];
    snprintf(text, sizeof(text), "%" PRId64, value);
    sample(out, name, labels, text);
}

// MB to bytes, exact while it fits 64 bits.
void sample_bytes(FILE* out, const char* name, const Labels& labels, int64_t mb) {
    if (mb > INT64_MAX / kBytesPerMb || mb < INT64_MIN / kBytesPerMb) {
        char text[40];
        snprintf(text, sizeof(text), "%.17g", static_cast<double>(mb) * kBytesPerMb);
        sample(out, name, labels, text);
        return;
    }
    sample(out, name, labels, mb * kBytesPerMb);
}

// A uuid as a label value: printable ASCII as it is, every other byte and '%'
// as %XX, so that distinct fields never give equal labels.
std::string uuid_label(const std::string& uuid) {
    std::string out;
    for (unsigned char c : uuid) {
        char hex[4];
        snprintf(hex, sizeof(hex), "%%%02X", c);
        if (c > 0x20 && c < 0x7f && c != '%') out += static_cast<char>(c);
        else out += hex;
    }
    return out;
}

Labels& space_labels(Labels& labels, const Report& report, int index) {
    if (index < 0) return labels.add("space_uuid", "").add("space", "");
    const SpaceFigures& s = report.spaces[static_cast<size_t>(index)];
    return labels.add("space_uuid", uuid_label(s.uuid)).add("space", s.name);
}

Labels volume_labels(const VolumeFigures& v) {
    return Labels().add("volume_uuid", uuid_label(v.uuid)).add("volume", v.name);
}

// Settings entries that give the same channel label make one series: the
// largest count and size, the earliest day.
struct ChannelSeries {
    std::string channel;
    int null_storage_ids = 0;
    int failed_queries = 0;
    struct InSpace {
        int space = 0;
        int64_t size_mb = 0;
        bool has_day = false;
        int64_t oldest_s = 0;
    };
    std::vector<InSpace> spaces;
};

std::vector<ChannelSeries> channel_series(const Report& report) {
    std::vector<ChannelSeries> series;
    for (const ChannelFigures& c : report.channels) {
        const std::string label = channel_label(c.channel_id);
        auto same = [&label](const ChannelSeries& s) { return s.channel == label; };
        auto found = std::find_if(series.begin(), series.end(), same);
        if (found == series.end()) {
            found = series.insert(series.end(), ChannelSeries());
            found->channel = label;
        }
        ChannelSeries& s = *found;
        int failed = 0;
        for (const RecycleFigures& r : c.recycle) failed += r.whole_window && r.query_failed;
        s.null_storage_ids = std::max(s.null_storage_ids, c.null_storage_ids);
        s.failed_queries = std::max(s.failed_queries, failed);
        for (const Recordings& r : c.recordings) {
            auto here = std::find_if(s.spaces.begin(), s.spaces.end(),
                                     [&r](const ChannelSeries::InSpace& in) {
                return in.space == r.space;
            });
            if (here == s.spaces.end()) {
                here = s.spaces.insert(s.spaces.end(), ChannelSeries::InSpace());
                here->space = r.space;
            }
            here->size_mb = std::max(here->size_mb, r.size_mb);
            int64_t start = 0;
            if (!oldest_day_start(r, start)) continue;
            if (!here->has_day || start < here->oldest_s) here->oldest_s = start;
            here->has_day = true;
        }
    }
    return series;
}

}  // namespace

namespace {

// The volume families in MB x 1048576; du's figures only where it measured.
struct VolumeBytes {
    const char* name;
    const char* help;
    int64_t VolumeFigures::*mb;
    bool measured_only;
};
const VolumeBytes kVolumeBytes[] = {
    {"kelvo_volume_size_bytes", "Total size of a volume.", &VolumeFigures::total_mb, false},
    {"kelvo_volume_used_bytes", "Used size of a volume.", &VolumeFigures::used_mb, false},
    {"kelvo_volume_preallocate_remain_bytes",
     "Size of the volume's preallocate folder as du measures it.",
     &VolumeFigures::preallocate_remain_mb, true},
    {"kelvo_volume_preallocate_total_bytes",
     "Size of the whole preallocate folder: du's total, subfolders included.",
     &VolumeFigures::preallocate_total_mb, true},
    {"kelvo_volume_lost_bytes", "Size of a volume that is neither used nor preallocated.",
     &VolumeFigures::lost_mb, true},
};

}  // namespace

void write_prometheus(FILE* out, const Report& report, bool success) {
    family(out, "kelvo_build_info", "The version of kelvo-report that wrote the file.");
    sample(out, "kelvo_build_info", Labels().add("version", KELVO_VERSION), 1);
    family(out, "kelvo_report_success", "Whether the report is complete (1) or not (0).");
    sample(out, "kelvo_report_success", Labels(), success ? 1 : 0);
    family(out, "kelvo_report_duration_seconds", "Time taken to gather the report.");
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%.6f", report.duration_s);
    sample(out, "kelvo_report_duration_seconds", Labels(), seconds);
    if (!success && !report.failed_call.empty()) {
        family(out, "kelvo_report_failed_call_info",
               "The storage library call whose failure left the report incomplete.");
        sample(out, "kelvo_report_failed_call_info", Labels().add("call", report.failed_call), 1);
    }
    if (!success) return;

    auto space = [&report](int index) {
        Labels labels;
        return space_labels(labels, report, index);
    };
    const int spaces = static_cast<int>(report.spaces.size());
    family(out, "kelvo_space_info", "A storage space with its status as spacelist shows it.");
    for (int i = 0; i < spaces; ++i)
        sample(out, "kelvo_space_info", space(i).add("status", report.spaces[i].status), 1);
    family(out, "kelvo_space_size_bytes", "Total size of a storage space.");
    for (int i = 0; i < spaces; ++i)
        sample_bytes(out, "kelvo_space_size_bytes", space(i), report.spaces[i].total_mb);
    family(out, "kelvo_space_used_bytes", "Used size of a storage space.");
    for (int i = 0; i < spaces; ++i)
        sample_bytes(out, "kelvo_space_used_bytes", space(i), report.spaces[i].used_mb);

    family(out, "kelvo_volume_info",
           "A volume with its space, type and state as vollist shows them.");
    for (const VolumeFigures& v : report.volumes) {
        Labels labels = volume_labels(v);
        sample(out, "kelvo_volume_info",
               space_labels(labels, report, v.space)
                   .add("type", v.spare ? "spare" : "normal")
                   .add("state", v.state),
               1);
    }
    for (const VolumeBytes& f : kVolumeBytes) {
        family(out, f.name, f.help);
        for (const VolumeFigures& v : report.volumes)
            if (v.measured || !f.measured_only)
                sample_bytes(out, f.name, volume_labels(v), v.*f.mb);
    }
    family(out, "kelvo_volume_leak", "Whether the volume loses more than 5% of its size (1).");
    for (const VolumeFigures& v : report.volumes)
        sample(out, "kelvo_volume_leak", volume_labels(v), v.leak ? 1 : 0);
    // Only where du was asked: without it (--no-du) no volume has the series.
    family(out, "kelvo_volume_measured",
           "Whether du measured the preallocate folder (1); at 0 the leak is not known.");
    for (const VolumeFigures& v : report.volumes)
        if (v.measured || !v.not_measured.empty())
            sample(out, "kelvo_volume_measured", volume_labels(v), v.measured ? 1 : 0);

    const std::vector<ChannelSeries> channels = channel_series(report);
    family(out, "kelvo_channel_null_storage_ids",
           "Time periods of the channel whose storage id is null.");
    for (const ChannelSeries& c : channels)
        sample(out, "kelvo_channel_null_storage_ids", Labels().add("channel", c.channel),
               c.null_storage_ids);
    family(out, "kelvo_channel_failed_period_queries",
           "Streams whose period query failed: volclean would recycle their whole window.");
    for (const ChannelSeries& c : channels)
        sample(out, "kelvo_channel_failed_period_queries", Labels().add("channel", c.channel),
               c.failed_queries);
    auto in_space = [&report](const ChannelSeries& c, const ChannelSeries::InSpace& r) {
        Labels labels = Labels().add("channel", c.channel);
        return space_labels(labels, report, r.space);
    };
    family(out, "kelvo_channel_recorded_bytes", "Size of the channel's recordings in the space.");
    for (const ChannelSeries& c : channels)
        for (const ChannelSeries::InSpace& r : c.spaces)
            sample_bytes(out, "kelvo_channel_recorded_bytes", in_space(c, r), r.size_mb);
    family(out, "kelvo_channel_oldest_recording_timestamp_seconds",
           "Start of the channel's earliest recording day in the space, local time.");
    for (const ChannelSeries& c : channels)
        for (const ChannelSeries::InSpace& r : c.spaces)
            if (r.has_day)
                sample(out, "kelvo_channel_oldest_recording_timestamp_seconds", in_space(c, r),
                       r.oldest_s);
}
