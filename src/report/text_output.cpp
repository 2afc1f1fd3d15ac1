// The Prometheus text form of the report.
#include <cinttypes>
#include <cstring>

#include "report.h"
#include "walks.h"

// Replaces every byte that does not start a valid UTF-8 sequence with U+FFFD.
std::string valid_utf8(const std::string& in) {
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        unsigned char c = static_cast<unsigned char>(in[i]);
        size_t n = c < 0x80           ? 1
                   : (c >> 5) == 0x6  ? 2
                   : (c >> 4) == 0xe  ? 3
                   : (c >> 3) == 0x1e ? 4
                                      : 0;
        bool ok = n > 0 && i + n <= in.size() && !(n == 2 && c < 0xc2);
        for (size_t k = 1; ok && k < n; ++k)
            ok = (static_cast<unsigned char>(in[i + k]) & 0xc0) == 0x80;
        if (ok && n == 3) {
            unsigned char d = static_cast<unsigned char>(in[i + 1]);
            ok = !(c == 0xe0 && d < 0xa0) && !(c == 0xed && d >= 0xa0);
        }
        if (ok && n == 4) {
            unsigned char d = static_cast<unsigned char>(in[i + 1]);
            ok = c <= 0xf4 && !(c == 0xf0 && d < 0x90) && !(c == 0xf4 && d >= 0x90);
        }
        if (ok) {
            out.append(in, i, n);
            i += n;
        } else {
            out += "\xef\xbf\xbd";
            ++i;
        }
    }
    return out;
}

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

std::string space_name(const Report& report, int index) {
    return index < 0 ? std::string() : report.spaces[static_cast<size_t>(index)].name;
}

}  // namespace

void write_prometheus(FILE* out, const Report& report, bool success) {
    family(out, "kelvo_report_success", "Whether the report is complete (1) or not (0).");
    sample(out, "kelvo_report_success", Labels(), success ? 1 : 0);
    family(out, "kelvo_report_duration_seconds", "Time taken to gather the report.");
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%.6f", report.duration_s);
    sample(out, "kelvo_report_duration_seconds", Labels(), seconds);
    if (!success) return;

    family(out, "kelvo_space_size_bytes", "Total size of a storage space.");
    for (const SpaceFigures& s : report.spaces)
        sample_bytes(out, "kelvo_space_size_bytes", Labels().add("space", s.name), s.total_mb);
    family(out, "kelvo_space_used_bytes", "Used size of a storage space.");
    for (const SpaceFigures& s : report.spaces)
        sample_bytes(out, "kelvo_space_used_bytes", Labels().add("space", s.name), s.used_mb);

    auto volume_labels = [&report](const VolumeFigures& v) {
        return Labels().add("volume", v.name).add("space", space_name(report, v.space));
    };
    family(out, "kelvo_volume_size_bytes", "Total size of a volume.");
    for (const VolumeFigures& v : report.volumes)
        sample_bytes(out, "kelvo_volume_size_bytes", volume_labels(v), v.total_mb);
    family(out, "kelvo_volume_used_bytes", "Used size of a volume.");
    for (const VolumeFigures& v : report.volumes)
        sample_bytes(out, "kelvo_volume_used_bytes", volume_labels(v), v.used_mb);
    family(out, "kelvo_volume_preallocate_remain_bytes",
           "Size of the volume's preallocate folder as du measures it.");
    for (const VolumeFigures& v : report.volumes)
        if (v.measured)
            sample_bytes(out, "kelvo_volume_preallocate_remain_bytes",
                         Labels().add("volume", v.name), v.preallocate_remain_mb);
    family(out, "kelvo_volume_preallocate_total_bytes",
           "Size of the whole preallocate folder: du's total, subfolders included.");
    for (const VolumeFigures& v : report.volumes)
        if (v.measured)
            sample_bytes(out, "kelvo_volume_preallocate_total_bytes",
                         Labels().add("volume", v.name), v.preallocate_total_mb);
    family(out, "kelvo_volume_lost_bytes",
           "Size of a volume that is neither used nor preallocated.");
    for (const VolumeFigures& v : report.volumes)
        if (v.measured)
            sample_bytes(out, "kelvo_volume_lost_bytes", Labels().add("volume", v.name),
                         v.lost_mb);
    family(out, "kelvo_volume_leak", "Whether the volume loses more than 5% of its size (1).");
    for (const VolumeFigures& v : report.volumes)
        sample(out, "kelvo_volume_leak", Labels().add("volume", v.name), v.leak ? 1 : 0);

    family(out, "kelvo_channel_null_storage_ids",
           "Time periods of the channel whose storage id is null.");
    for (const ChannelFigures& c : report.channels)
        sample(out, "kelvo_channel_null_storage_ids",
               Labels().add("channel", channel_label(c.channel_id)), c.null_storage_ids);
    family(out, "kelvo_channel_recording_days",
           "Days on which the channel recorded in the space, per record type.");
    for (const ChannelFigures& c : report.channels)
        for (const Recordings& r : c.recordings)
            for (int t = 0; t < 2; ++t)
                sample(out, "kelvo_channel_recording_days",
                       Labels()
                           .add("channel", channel_label(c.channel_id))
                           .add("space", space_name(report, r.space))
                           .add("record_type", t == 0 ? "NR" : "AR"),
                       static_cast<int64_t>(r.days[t].size()));
    family(out, "kelvo_channel_recorded_bytes", "Size of the channel's recordings in the space.");
    for (const ChannelFigures& c : report.channels)
        for (const Recordings& r : c.recordings)
            sample_bytes(out, "kelvo_channel_recorded_bytes",
                         Labels()
                             .add("channel", channel_label(c.channel_id))
                             .add("space", space_name(report, r.space)),
                         r.size_mb);
    family(out, "kelvo_channel_recycle_whole_window",
           "Whether volclean would recycle the stream's whole last 30 days (1).");
    for (const ChannelFigures& c : report.channels)
        for (const RecycleFigures& r : c.recycle)
            sample(out, "kelvo_channel_recycle_whole_window",
                   Labels()
                       .add("channel", channel_label(c.channel_id))
                       .add("record_type", record_type_label(r.record_type))
                       .add("stream", std::to_string(r.stream)),
                   r.whole_window ? 1 : 0);
}
