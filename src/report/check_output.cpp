// The monitoring-plugin check: a status line naming the worst problem with
// the performance data, then every problem on its own line, worst first.
#include <algorithm>
#include <cstring>

#include "report.h"
#include "walks.h"

namespace {

// The longest reason an UNKNOWN line gives; options may echo user input.
const size_t kMaxReason = 160;

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
    char value[32];
    snprintf(value, sizeof(value), "=%.2f%%;", percent);
    perf += perf_label(label) + value + options.warning.text() + ";" + options.critical.text() +
            ";0;100 ";
}

// A count of problems of one kind and severity; the range "0" alerts on
// any, in the field of that severity.
struct CountedKind {
    const char* label;
    const char* kind;
    bool critical;
};
const CountedKind kCounted[] = {{"leaks", "leak", true},
                                {"failed_queries", "failed_queries", false},
                                {"states_warning", "state", false},
                                {"states_critical", "state", true},
                                {"retention", "retention", false}};

void perf_count(std::string& perf, const char* label, long long count, bool critical) {
    char text[96];
    snprintf(text, sizeof(text), " %s=%lld;%s;%s;0", label, count, critical ? "" : "0",
             critical ? "0" : "");
    perf += text;
}

}  // namespace

int write_check(FILE* out, const Options& options, const Report& report) {
    std::vector<const Problem*> problems;
    for (const Problem& p : report.problems) problems.push_back(&p);
    std::stable_sort(problems.begin(), problems.end(),
                     [](const Problem* a, const Problem* b) { return a->critical > b->critical; });
    const long long critical = std::count_if(problems.begin(), problems.end(),
                                             [](const Problem* p) { return p->critical; });
    const long long warning = static_cast<long long>(problems.size()) - critical;
    int status = critical > 0 ? 2 : warning > 0 ? 1 : 0;
    static const char* const names[] = {"OK", "WARNING", "CRITICAL"};

    char summary[160];
    if (problems.empty())
        snprintf(summary, sizeof(summary), "%zu spaces, %zu volumes, %zu channels, no problems",
                 report.spaces.size(), report.volumes.size(), report.channels.size());
    else snprintf(summary, sizeof(summary), "%lld critical, %lld warning; ", critical, warning);
    std::string line = summary;
    if (!problems.empty()) line += problems[0]->subject + ": " + problems[0]->text;

    std::string perf;
    for (const SpaceFigures& s : report.spaces)
        perf_use(perf, options, "space " + s.name, s.used_mb, s.total_mb);
    for (const VolumeFigures& v : report.volumes)
        perf_use(perf, options, "volume " + v.name, v.used_mb, v.total_mb);
    long long nulls = 0;
    for (const ChannelFigures& c : report.channels) nulls += c.null_storage_ids;
    perf += "null_storage_ids=" + std::to_string(nulls) + ";0;;0";
    for (const CountedKind& k : kCounted) {
        if (strcmp(k.kind, "retention") == 0 && !options.min_days.set) continue;
        perf_count(perf, k.label,
                   std::count_if(
                       problems.begin(), problems.end(),
                       [&k](const Problem* p) {
            return p->kind == k.kind && p->critical == k.critical;
                       }),
                   k.critical);
    }
    std::string text =
        "KELVO " + std::string(names[status]) + " - " + one_line(line) + " | " + perf;
    for (const Problem* p : problems)
        text += "\n" + std::string(p->critical ? "critical: " : "warning: ") +
                one_line(p->subject + ": " + p->text);
    fprintf(out, "%s\n", text.c_str());
    return status;
}

void write_check_unknown(FILE* out, const std::string& why) {
    fprintf(out, "KELVO UNKNOWN - %s\n", one_line(why.substr(0, kMaxReason)).c_str());
}
