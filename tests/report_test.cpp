// kelvo-report against a server built here: every figure it gives must be
// what kelvo's own commands print for the same server, read-only and with
// one period query per channel entry, record type and stream.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sim_server.h"

namespace {

using nlohmann::json;

const long long kNow = 1710930600;  // 2024-03-20 10:30:00 UTC
const long long kHour = 3600 * 1000LL;
const long long kDay = 24 * kHour;
const long long kNowMs = kNow * 1000;

// Spaces, volumes (a leak, one without "share/", one that du cannot
// measure, one outside every space), channels (an empty slot, one without a
// session, failed queries), null periods in and out of the window and in
// stream 0, and profiles that spaceinfo shows as A, B, A blocks.
void build(kt::SimServer& s) {
    s.add_space(kt::space_row(1, "Main", 10, 100000, 50000, 0, 1));
    s.add_space(kt::space_row(2, "Cold", 11, 20000, 17000, 6));
    s.add_space(kt::space_row(3, "Empty", 12));
    std::string rec1 = s.add_volume(kt::volume_row(20, 10, "v/share/Rec1", 1, 100, 60));
    std::string rec2 = s.add_volume(kt::volume_row(21, 10, "v/share/Rec2", 2, 100, 93));
    s.add_volume(kt::volume_row(22, 11, "v/disk3", 3, 40, 1));
    kt::Volume spare = kt::volume_row(23, 11, "v/share/Spare1", 4, 50, 10, 1, 8);
    spare.make_fsu_folder = false;
    s.add_volume(spare);
    s.add_volume(kt::volume_row(24, 99, "v/share/Lone", 5, 10, 1, 0, 2));
    for (const std::string& fsu : {rec1, rec2})
        std::ofstream(fsu + "/preallocate/fill") << std::string(3 << 20, 'x');
    for (auto vc : {std::pair<int, int>{1, 0}, {1, 2}, {2, 2}, {2, 1}, {2, 1}, {3, 3}, {5, 40}})
        s.add_volume_channel(vc.first, vc.second);

    for (int ch : {0, 2, 3, 5}) s.add_channel(ch, kt::sid(ch + 1));
    s.add_channel(1, std::string(32, '9'));
    s.add_fault("create_channel_session", "5");
    s.add_fault("query_time_periods", "2:4:1");
    s.add_fault("query_time_periods", "2:4:0");
    struct P { int ch, type, stream; long long start, length; int id, size; };
    const P periods[] = {
        {0, 4, 1, -2 * kDay, kHour, 1, 100}, {0, 4, 1, -40 * kDay, kHour, 0, 0},
        {0, 4, 0, -5 * kDay, kHour, 0, 0},   {0, 1, 2, -3 * kDay, kHour, 0, 0},
        {0, 1, 1, -4 * kDay, kHour, 5, 30},  {0, 4, 2, -6 * kDay, kHour, 2, 20},
        {3, 1, 4, -10 * kDay, kHour, 4, 7},  {3, 4, 1, -31 * kDay, 2 * kDay, 4, 5},
        {2, 1, 3, -kDay, kHour, 3, 11},
    };
    for (const P& p : periods) {
        kt::Value id = p.id ? kt::Value(kt::storage_id(p.id)) : kt::Value::null();
        s.add_period(kt::period_row(p.ch, p.type, p.stream, kNowMs + p.start,
                                    kNowMs + p.start + p.length, id, "", p.size));
    }
    struct R { int ch, space, group, volume, id; };
    for (const R& r : {R{0, 1, 10, 20, 1}, R{2, 1, 10, 20, 3}, R{0, 1, 10, 21, 2},
                       R{3, 2, 11, 22, 4}, R{0, 2, 11, 22, 5}, R{7, 1, 10, 20, 6}})
        s.add_profile(kt::profile_row(r.ch, kt::sid(r.ch + 1), r.space, r.group, r.volume,
                                      kt::storage_id(r.id)));
}

struct Kelvo {
    kt::SimServer& s;
    std::vector<std::string> lines;
    // Runs a kelvo command at the fixed time and keeps its lines.
    const std::vector<std::string>& run(const std::vector<std::string>& args) {
        kt::RunResult r = s.run_at(kNow, args);
        EXPECT_EQ(r.status, 0);
        std::istringstream in(r.out);
        lines.clear();
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
};

bool match(const std::string& line, const char* pattern, std::smatch& m) {
    return std::regex_match(line, m, std::regex(pattern));
}

long long num(const std::ssub_match& m) { return std::stoll(m.str()); }

std::string trim(std::string s) { return s.erase(s.find_last_not_of(' ') + 1); }

json report(kt::SimServer& s, std::vector<std::string> args = {}) {
    kt::RunResult r = s.run_at(kNow, args, {}, KELVO_REPORT_BINARY);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    return json::parse(r.out);
}

const json* channel(const json& rep, long long id) {
    for (const json& c : rep["channels"])
        if (c["channel_id"] == id) return &c;
    return nullptr;
}

TEST(Report, AgreesWithKelvoAndChangesNothing) {
    kt::SimServer s;
    build(s);
    s.enable_trace();
    const std::string tables = s.dump_tables();
    const std::vector<std::string> tree = s.tree();
    json rep = report(s);

    // Read-only, and one period query per entry with a session, type and stream.
    for (const char* op : {"set_volume_setting", "refresh_space", "update_time_period",
                           "CFSTier", "CFSUnit", "recycle_channel_data"})
        EXPECT_EQ(s.call_count(op), 0) << op;
    EXPECT_EQ(s.call_count("query_time_periods"), 3 * 2 * 5);

    Kelvo k{s, {}};
    std::smatch m;
    size_t i = 0;
    for (const std::string& line : k.run({"spacelist"})) {
        if (!match(line, R"(\[\d+\] \[(.*)\], total size: (-?\d+) GB, used: (-?\d+) MB, use .*% \[(.*)\])", m))
            continue;
        const json& sp = rep["spaces"].at(i++);
        EXPECT_EQ(sp["name"], m[1].str());
        EXPECT_EQ(sp["total_mb"].get<long long>() / 1024, num(m[2]));
        EXPECT_EQ(sp["used_mb"], num(m[3]));
        EXPECT_EQ(sp["status"], trim(m[4]));
    }
    EXPECT_EQ(i, rep["spaces"].size());

    for (const json& sp : rep["spaces"]) {
        std::vector<const json*> in_space;
        for (const json& v : rep["volumes"])
            if (v["space"] == sp["name"]) in_space.push_back(&v);
        i = 0;
        for (const std::string& line : k.run({"vollist", sp["name"]})) {
            if (!match(line, R"(\[\d+\] \[(.*)\], \[(NORMAL|SPARE )\] \[(.*)\], total size (-?\d+) GB, used (-?\d+) MB, use .*%)", m))
                continue;
            const json& v = *in_space.at(i++);
            EXPECT_EQ(v["name"], m[1].str());
            EXPECT_EQ(v["type"], m[2].str() == "NORMAL" ? "normal" : "spare");
            EXPECT_EQ(v["state"], trim(m[3]));
            EXPECT_EQ(v["total_mb"].get<long long>() / 1024, num(m[4]));
            EXPECT_EQ(v["used_mb"], num(m[5]));
        }
        EXPECT_EQ(i, in_space.size()) << sp["name"];
    }

    for (const std::string& line : k.run({"voluse", "-1"})) {
        ASSERT_TRUE(match(line, R"(ch(\d+) volume=\[(.*)\])", m));
        const json* c = channel(rep, num(m[1]) - 1);
        if (c == nullptr) continue;
        EXPECT_EQ((*c)["volume"], m[2].str().empty() ? json() : json(m[2].str())) << line;
    }

    for (const json& v : rep["volumes"]) {
        if (v["name"].get<std::string>().rfind("VolName_", 0) == 0) continue;
        std::vector<long long> ids;
        for (const std::string& line : k.run({"volchn", v["name"]}))
            if (match(line, R"(\[\d+\] uses channel\[(\d+)\])", m)) ids.push_back(num(m[1]) - 1);
        EXPECT_EQ(v["channel_ids"], json(ids)) << v["name"];
    }

    std::map<long long, int> nulls, failures;
    long long current = -1;
    for (const std::string& line : k.run({"nullid", "-1"})) {
        if (match(line, R"(ch(\d+) list:)", m)) current = num(m[1]) - 1;
        if (match(line, R"(\t\[(NR|AR) S\d+\] .*)", m)) ++nulls[current];
        if (match(line, R"(ch(\d+) \[(NR|AR) S\d+\] retrieve time period fail)", m))
            ++failures[num(m[1]) - 1];
    }
    for (const json& c : rep["channels"]) {
        EXPECT_EQ(c["null_storage_ids"], nulls[c["channel_id"]]) << c["channel_id"];
        EXPECT_EQ(c["query_failures"], failures[c["channel_id"]]) << c["channel_id"];
    }

    size_t recordings = 0, matched = 0;
    for (const json& c : rep["channels"]) recordings += c["recordings"].size();
    for (const json& sp : rep["spaces"]) {
        struct Block { std::string sid; json days = {{"NR", json::array()}, {"AR", json::array()}}; long long size = 0; };
        std::vector<Block> blocks;
        const char* type = "NR";
        for (const std::string& line : k.run({"spaceinfo", sp["name"]})) {
            if (match(line, R"(channel: (.*))", m)) blocks.push_back({m[1].str()});
            if (match(line, R"(    (Normal|Alarm) total days: \d+)", m)) type = m[1] == "Normal" ? "NR" : "AR";
            if (match(line, R"(        day\[\d+\] = (.*))", m)) blocks.back().days[type].push_back(m[1].str());
            if (match(line, R"(    All recording size: (-?\d+)\(MB\))", m)) blocks.back().size = num(m[1]);
        }
        std::set<std::string> seen;
        for (const Block& b : blocks) {
            for (const json& c : rep["channels"]) {
                if (c["sid"] != b.sid) continue;
                for (const json& r : c["recordings"]) {
                    if (r["space"] != sp["name"]) continue;
                    EXPECT_EQ(r["days"], b.days) << b.sid;
                    EXPECT_EQ(r["size_mb"], b.size) << b.sid;
                    if (seen.insert(b.sid).second) ++matched;
                }
            }
        }
    }
    EXPECT_EQ(matched, recordings);

    EXPECT_EQ(s.dump_tables(), tables);
    EXPECT_EQ(s.tree(), tree);

    // The recycling commands change the tree: last, on this copy of the server.
    std::map<std::string, std::pair<long long, long long>> leaks;
    std::string volume;
    for (const std::string& line : k.run({"autoclean"})) {
        if (match(line, R"(Volume \[(.*)\] total size .*, used -?\d+ MB\(preallocate_remain (-?\d+) MB\)\.)", m)) {
            volume = m[1];
            leaks[volume].first = num(m[2]);
        }
        if (match(line, R"(Size lost (-?\d+) MB .*)", m)) leaks[volume].second = num(m[1]);
    }
    for (const json& v : rep["volumes"]) {
        auto found = leaks.find(v["name"]);
        EXPECT_EQ(v["leak"], found != leaks.end()) << v["name"];
        if (found == leaks.end()) continue;
        EXPECT_EQ(v["preallocate_remain_mb"], found->second.first);
        EXPECT_EQ(v["lost_mb"], found->second.second);
    }

    s.exec("DELETE FROM call_log");
    std::map<long long, std::vector<json>> whole;
    for (const std::string& line : k.run({"volclean", "-1"})) {
        if (match(line, R"(Recycle --ch(\d+)-- data \.\.\.)", m)) current = num(m[1]) - 1;
        if (match(line, R"(\t\[(NR|AR) S(\d+)\] (Success\.|Can not find time period\.))", m))
            whole[current].push_back({m[1].str(), num(m[2]), m[3] != "Success."});
    }
    std::map<std::string, long long> bounds;
    std::istringstream log(s.query(
        "SELECT json_extract(args, '$.channel_id') || ' ' || json_extract(args, '$.record_type') "
        "|| ' ' || json_extract(args, '$.stream'), json_extract(args, '$.to_ms') FROM call_log "
        "WHERE op = 'recycle_channel_data'"));
    for (std::string row; std::getline(log, row);)
        bounds[row.substr(0, row.find('|'))] = std::stoll(row.substr(row.find('|') + 1));
    for (const json& c : rep["channels"]) {
        std::vector<json> got;
        for (const json& r : c["recycle"]) {
            got.push_back({r["record_type"], r["stream"], r["whole_window"]});
            std::string key = std::to_string(c["channel_id"].get<long long>()) + " " +
                              (r["record_type"] == "NR" ? "4 " : "1 ") +
                              std::to_string(r["stream"].get<int>());
            EXPECT_EQ(r["bound_ms"], bounds[key]) << key;
            EXPECT_EQ(r["from_ms"], kNowMs - 30 * kDay);
        }
        EXPECT_EQ(json(got), json(whole[c["channel_id"]])) << c["channel_id"];
    }

    // The fixture reaches every kind of figure the comparisons above rely on.
    std::string text = rep.dump();
    for (const char* seen : {"\"leak\":true", "\"leak\":false", "\"lost_mb\":null",
                             "\"space\":null", "\"query_failed\":true",
                             "\"whole_window\":false", "\"null_storage_ids\":2", "\"critical\"",
                             "\"warning\""})
        EXPECT_NE(text.find(seen), std::string::npos) << seen;
}

// The other formats and options on the same server: schema, Prometheus
// parser, --no-du, --output.
TEST(Report, FormatsParseAndOutputIsAtomic) {
    kt::SimServer s;
    build(s);
    kt::RunResult json_run = s.run_at(kNow, {}, {}, KELVO_REPORT_BINARY);
    kt::RunResult prom = s.run_at(kNow, {"--format=prometheus"}, {}, KELVO_REPORT_BINARY);
    EXPECT_EQ(prom.status, 0);
    std::ofstream(s.path("report.json")) << json_run.out;
    std::ofstream(s.path("report.prom")) << prom.out;
    kt::RunResult check = kt::run_program(
        {"/usr/bin/python3", KELVO_REPORT_CHECK, KELVO_REPORT_SCHEMA, s.path("report.json"),
         s.path("report.prom")},
        {}, s.root());
    EXPECT_EQ(check.status, 0) << check.out << check.err;

    json no_du = report(s, {"--no-du"});
    for (const json& v : no_du["volumes"]) {
        EXPECT_EQ(v["preallocate_remain_mb"], json()) << v["name"];
        EXPECT_EQ(v["leak"], false);
    }

    s.make_dir("out");
    kt::RunResult to_file = s.run_at(kNow, {"--output=out/r.json"}, {}, KELVO_REPORT_BINARY);
    kt::expect_output(to_file, "");
    EXPECT_EQ(kt::read_file(s.path("out/r.json")), json_run.out);
    std::vector<std::string> files;
    DIR* dir = opendir(s.path("out").c_str());
    while (dirent* e = readdir(dir)) files.push_back(e->d_name);
    closedir(dir);
    EXPECT_EQ(files.size(), 3u) << "only . .. r.json";
}

// Exit statuses of the check and of the other formats.
TEST(Report, ExitStatuses) {
    struct Case {
        const char* name;
        long long used_mb;  // of a 1000 MB space
        std::vector<std::string> args;
        bool reachable;
        int status;
        const char* out_starts;
        bool err;
    };
    const Case cases[] = {
        {"ok", 100, {"--format=check"}, true, 0, "KELVO OK - ", false},
        {"warning at the threshold", 500, {"--format=check", "--warn=50"}, true, 1,
         "KELVO WARNING - ", false},
        {"critical", 950, {"--format", "check"}, true, 2, "KELVO CRITICAL - ", false},
        {"unknown: no library", 0, {"--format=check"}, false, 3, "KELVO UNKNOWN - ", false},
        {"unknown: bad option", 0, {"--format=check", "--bogus"}, true, 3, "KELVO UNKNOWN - ",
         false},
        {"json: no library", 0, {}, false, 1, "", true},
        {"prometheus: no library", 0, {"--format=prometheus"}, false, 1, "# HELP", true},
        {"bad format", 0, {"--format=xml"}, true, 2, "", true},
    };
    for (const Case& c : cases) {
        kt::SimServer s;
        s.add_space(kt::space_row(1, "S", 2, 1000, c.used_mb));
        std::vector<std::string> env;
        if (!c.reachable) env.push_back("ORN_STORAGE_DB=" + s.path("missing.db"));
        kt::RunResult r = s.run(c.args, env, KELVO_REPORT_BINARY);
        EXPECT_EQ(r.status, c.status) << c.name;
        EXPECT_EQ(r.out.rfind(c.out_starts, 0), 0u) << c.name << ": " << r.out;
        EXPECT_EQ(r.err.empty(), !c.err) << c.name << ": " << r.err;
        if (c.err && c.status == 1) {
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.name;
        }
        if (c.out_starts[0] == 'K') {
            EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << c.name;
        }
        if (c.err && c.status == 1 && !r.out.empty()) {
            EXPECT_NE(r.out.find("\nkelvo_report_success 0\n"), std::string::npos);
        }
    }
}

}  // namespace
