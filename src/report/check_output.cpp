// The monitoring-plugin check: a status line naming the worst problem with
// the performance data, then every problem on its own line, worst first.
#include <algorithm>
#include <cstring>
#include <map>

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

// A performance-data label's text, without the two characters it cannot hold.
std::string perf_text(const std::string& text) {
    std::string out = one_line(text);
    for (char& c : out)
        if (c == '\'' || c == '=') c = '_';
    return out;
}

// Percent used of one space or volume, under the label its name gives.
struct UseFigure {
    std::string label;
    std::string uuid;
    double percent;
};

// Names that give one label apart: those labels get the uuid's first 8
// characters, then the whole uuid, then their place, until all differ.
void make_unique(std::vector<UseFigure>& figures) {
    std::vector<std::string> base;
    for (const UseFigure& f : figures) base.push_back(f.label);
    for (int round = 0; round < 3; ++round) {
        std::map<std::string, int> uses;
        for (const UseFigure& f : figures) ++uses[f.label];
        for (size_t i = 0; i < figures.size(); ++i) {
            if (uses[figures[i].label] < 2) continue;
            const std::string uuid = perf_text(figures[i].uuid);
            figures[i].label = base[i] + " " + (round == 0 ? uuid.substr(0, 8) : uuid);
            if (round == 2) figures[i].label += " " + std::to_string(i + 1);
        }
    }
}

void add_use(std::vector<UseFigure>& figures, const std::string& label, const std::string& uuid,
             int64_t used_mb, int64_t total_mb) {
    double percent = 0;
    if (used_percent(used_mb, total_mb, percent))
        figures.push_back(UseFigure{perf_text(label), uuid, percent});
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

    std::vector<UseFigure> uses;
    for (const SpaceFigures& s : report.spaces)
        add_use(uses, "space " + s.name, s.uuid, s.used_mb, s.total_mb);
    for (const VolumeFigures& v : report.volumes)
        add_use(uses, "volume " + v.name, v.uuid, v.used_mb, v.total_mb);
    make_unique(uses);
    std::string perf;
    for (const UseFigure& u : uses) {
        char value[32];
        snprintf(value, sizeof(value), "=%.2f%%;", u.percent);
        perf += "'" + u.label + "'" + value + options.warning.text() + ";" +
                options.critical.text() + ";0;100 ";
    }
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
