// The monitoring-plugin check line.
#include <cstring>

#include "report.h"
#include "walks.h"

namespace {

// One line of plain text: no line ends, no '|' (it starts the performance data).
std::string one_line(const std::string& text) {
    std::string out = valid_utf8(text);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '|') c = '?';
    return out;
}

// A performance-data label: quoted, without the two characters it cannot hold.
std::string perf_label(const std::string& text) {
    std::string out = one_line(text);
    for (char& c : out)
        if (c == '\'' || c == '=') c = '_';
    return "'" + out + "'";
}

void perf_use(std::string& perf, const Options& options, const std::string& label, int64_t used_mb,
              int64_t total_mb) {
    double percent = 0;
    if (!used_percent(used_mb, total_mb, percent)) return;
    char text[96];
    snprintf(text, sizeof(text), "=%.2f%%;%g;%g;0;100 ", percent, options.warn, options.crit);
    perf += perf_label(label) + text;
}

}  // namespace

int write_check(FILE* out, const Options& options, const Report& report) {
    int critical = 0, warning = 0, leaks = 0, nulls = 0, whole = 0;
    const Problem* first = nullptr;
    for (const Problem& p : report.problems) {
        (p.critical ? critical : warning) += 1;
        if (first == nullptr || (p.critical && !first->critical)) first = &p;
    }
    for (const VolumeFigures& v : report.volumes) leaks += v.leak ? 1 : 0;
    for (const ChannelFigures& c : report.channels) {
        nulls += c.null_storage_ids;
        for (const RecycleFigures& r : c.recycle) whole += r.whole_window && r.query_failed;
    }
    int status = critical > 0 ? 2 : warning > 0 ? 1 : 0;
    static const char* const names[] = {"OK", "WARNING", "CRITICAL"};

    std::string summary;
    char counts[160];
    snprintf(counts, sizeof(counts), "%zu spaces, %zu volumes, %zu channels", report.spaces.size(),
             report.volumes.size(), report.channels.size());
    if (first == nullptr) {
        summary = std::string(counts) + ", no problems";
    } else {
        snprintf(counts, sizeof(counts), "%d critical, %d warning; ", critical, warning);
        summary = counts + first->subject + ": " + first->text;
    }
    std::string perf;
    for (const SpaceFigures& s : report.spaces)
        perf_use(perf, options, "space " + s.name, s.used_mb, s.total_mb);
    for (const VolumeFigures& v : report.volumes)
        perf_use(perf, options, "volume " + v.name, v.used_mb, v.total_mb);
    char totals[160];
    snprintf(totals, sizeof(totals),
             "leaks=%d;;1;0 null_storage_ids=%d;1;;0 failed_windows=%d;1;;0", leaks, nulls, whole);
    perf += totals;
    fprintf(out, "KELVO %s - %s | %s\n", names[status], one_line(summary).c_str(), perf.c_str());
    return status;
}

void write_check_unknown(FILE* out, const std::string& why) {
    fprintf(out, "KELVO UNKNOWN - %s\n", one_line(why).c_str());
}
