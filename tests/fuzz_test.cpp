// Every command on random servers of hostile data: numbers at 32- and 64-bit edges, long
// paths or with shell metacharacters, periods ending before they start, duplicates, empty
// tables, injected failures, hour and preallocate folders, texts with zero bytes, cut, all
// '9', as blobs; rows the schema refuses are left out. Seeds from KELVO_FUZZ_SEED on.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <regex>

#include "sim_server.h"

namespace {

std::mt19937_64 rng;
size_t below(size_t n) { return n ? rng() % n : 0; }
bool chance(size_t percent) { return below(100) < percent; }
std::string pick(const std::vector<std::string>& v) { return v[below(v.size())]; }
std::vector<std::string> words(const std::string& text) {
    static const std::regex word("\\S+");
    return {std::sregex_token_iterator(text.begin(), text.end(), word), {}};
}
std::string word(const std::string& text) { return pick(words(text)); }
std::string N(long long n) { return std::to_string(n); }
std::string num(bool wide = false) {  // at the edges of a 32-bit column, or of 64 bits
    std::string edges = "0 -1 4 32 1024 -1535 2147483647 -2147483648 4294967295 ";
    if (wide) edges += "1099511627776 9223372036854775807 -9223372036854775808";
    return chance(30) ? N(long(below(200001)) - 100000) : word(edges);
}
// Bytes as SQL text, sometimes hostile: with a zero byte, cut, all '9' or '0', a dot
// folder, with a shell character or a high byte, or as a blob.
std::string lit(std::string s) {
    switch (s.empty() ? 9 : below(40)) {
    case 0: s[below(s.size())] = '\0'; break;
    case 1: s.resize(below(s.size())); break;
    case 2: s = std::string(s.size(), chance(50) ? '9' : '0'); break;
    case 3: s = chance(50) ? "." : ".."; break;
    case 4: s[below(s.size())] = "$`;|&<>'\" \\*?\n\x80\xff"[below(16)]; break;
    }
    std::string hex;
    for (unsigned char c : s) hex += "0123456789ABCDEF"[c >> 4], hex += "0123456789ABCDEF"[c & 15];
    return chance(90) ? "CAST(X'" + hex + "' AS TEXT)" : "X'" + hex + "'";
}
std::string row(const char* table, const std::vector<std::string>& values) {
    std::string sql = std::string("INSERT OR IGNORE INTO ") + table + " VALUES (";
    for (const std::string& v : values) sql += v + (&v == &values.back() ? ");" : ", ");
    return sql;
}
std::string rest() {  // of a volume path, after the server's folder
    std::string longest = "share";
    for (char c = 'a'; c < 'f'; ++c) longest += "/" + std::string(199, c);
    return pick({"share/V0", "share/V1", "noshare", "share/", "m/share/a/share/b", longest,
                 "share/" + std::string(128, 'n'), "share/v;touch marker;#",
                 "share/v$(touch marker)`touch marker`|touch marker&& \n*'\""});
}

// Space i has the group uuid(100 + i), volume i the group of space i % 3; the profiles of
// a channel name volume k, its group and its space.
void build(kt::SimServer& s) {
    const long long now = time(nullptr) * 1000LL, day = 86400000;
    size_t volumes = below(6), channels = below(7);
    std::vector<std::string> fsus;
    std::string sql = chance(30) ? "INSERT INTO settings VALUES ('trace', '1');" : "";
    for (int i = 0, n = int(below(4)); i < n; ++i)
        sql += row("spaces", {lit(kt::uuid(i)), lit(std::string(1 + 511 * below(2), 'S')),
                              lit(kt::uuid(100 + i)), num(true), num(true), num(), num()});
    for (size_t i = 0; i < volumes; ++i) {
        std::string path = (s.root() + "/" + rest()).substr(0, 1024),
                    uuid = kt::uuid(int(200 + i));
        sql += row("volumes", {lit(uuid), lit(kt::uuid(int(100 + i % 3))), lit(path),
                               chance(50) ? N(i) : num(), num(), num(), num(true), num(true),
                               lit(std::string(below(513), 'L'))});
        if (chance(25)) continue;  // a volume without folders
        fsus.push_back(s.fsu_folder(path, uuid));
        s.make_dir(fsus.back() + "/preallocate" + (chance(20) ? "/sub" : ""));
        if (chance(30)) std::ofstream(fsus.back() + "/preallocate/r") << std::string(1 << 17, 'x');
    }
    for (size_t c = 0; c < channels; ++c) {
        std::string id = chance(70) ? N(c) : num(), sid = kt::sid(int(c));
        sql += row("channels", {id, lit(sid)});
        for (size_t k = below(2); k <= volumes; k += 1 + below(2))
            sql += row("profiles",
                       {id, lit(sid), lit(kt::uuid(int(k % 3))), lit(kt::uuid(int(100 + k % 3))),
                        lit(kt::uuid(int(200 + k))), lit(kt::storage_id(int(below(3))))});
        if (chance(50))
            sql += row("volume_channels", {chance(80) ? N(below(6)) : num(), id, lit(sid)});
        for (size_t i = 0, n = below(12); i < n; ++i) {  // with hour folders in the last 40 days
            long long type = std::stoll(word("4 4 4 1 1 2 4294967295")), stream = below(6);
            long long from = now - long(below(40 * day)),
                      to = from + long(below(day / 8)) - day / 24;
            if (!fsus.empty() && chance(70)) {
                std::string hour = s.hour_folder(pick(fsus), sid, int(type), int(stream), from);
                s.make_dir(hour);
                if (chance(50)) std::ofstream(hour + "/data") << "x";
            }
            if (chance(10)) from = std::stoll(word("-1 -9223372036854775808 9223372036854775807"));
            std::string key = "k" + N(c) + "-" + N(i) + (chance(20) ? "$(touch marker)" : "");
            std::string sto = chance(60) ? word("NULL NULL X''") : lit(kt::storage_id(1));
            sql += row("periods", {chance(90) ? id : num(), N(type), N(stream), N(from), N(to),
                                   sto, lit(key + std::string(55 * below(2), 'K')), num(true)});
        }
    }
    for (int i = chance(70) ? 0 : 1 + below(3); i > 0; --i) {
        std::string target = chance(30) ? kt::uuid(int(200 * below(2) + below(3)))
                                        : word("* * 0 1 2 0:4:1 1:1:2 k0-1 k1-0");
        sql +=
            row("faults", {word("'create_plug_play_service' 'create_channel_session' 'tier_init' "
                                "'query_time_periods' 'retrieve_storage_id_profile_list' "
                                "'update_time_period' 'get_volume_setting' 'unit_init' "
                                "'create_channel_configuration' 'create_storage_setting'"),
                           lit(target), word("-1 0 1 7 -2147483648 4294967301")});
    }
    s.exec("BEGIN;" + sql + "COMMIT;");
}

// Runs one command. volset may change volumes' type and state, recoverid periods' storage
// ids (both restored from a copy to compare), volclean and autoclean remove day folders.
void check(kt::SimServer& s, const std::vector<std::string>& args) {
    SCOPED_TRACE(testing::PrintToString(args));
    bool report = args[0][0] == '-', cleans = args[0].find("clean") != std::string::npos;
    bool sets = args[0] == "volset", writes = sets || args[0] == "recoverid";
    std::string t = sets ? "volumes" : "periods",
                cols = sets ? "volume_type, state" : "storage_id";
    std::string before = s.dump_tables();
    std::vector<std::string> tree = s.tree();
    s.exec("DROP TABLE IF EXISTS old; CREATE TEMP TABLE old AS SELECT rowid AS r, * FROM " + t);
    kt::RunResult r = s.run(args, {}, report ? KELVO_REPORT_BINARY : KELVO_BINARY);
    std::vector<std::string> now = s.tree();
    EXPECT_TRUE(report ? r.status >= 0 && r.status <= 3 : r.status == 0) << r.status;
    EXPECT_TRUE(regex_match(r.err, std::regex(report ? "(kelvo-report: .*\n)?" : ""))) << r.err;
    EXPECT_TRUE(std::includes(tree.begin(), tree.end(), now.begin(), now.end()));
    std::regex day("([\\s\\S]*/)?\\d+/\\d+/\\d{8}/[\\s\\S]*");
    for (const std::string& p : tree)
        EXPECT_TRUE(std::count(now.begin(), now.end(), p) || (cleans && regex_match(p, day))) << p;
    if (writes)
        s.exec("UPDATE " + t + " SET (" + cols + ") = (SELECT " + cols +
               " FROM old WHERE r = " + t + ".rowid)");
    EXPECT_EQ(before, s.dump_tables());
}

TEST(HostileData, EveryCommandSurvivesAndWritesOnlyWhatItMay) {
    auto env = [](const char* n, const char* d) { return std::stoull(getenv(n) ? getenv(n) : d); };
    const auto first = env("KELVO_FUZZ_SEED", "20240611"),
               seconds = env("KELVO_FUZZ_SECONDS", "0");
    const time_t end = time(nullptr) + time_t(seconds);
    unsigned long long seed = first, servers = env("KELVO_FUZZ_ITERATIONS", "16");
    while (!HasFailure() && (seconds ? time(nullptr) < end : seed - first < servers)) {
        SCOPED_TRACE("replay: KELVO_FUZZ_SEED=" + N(seed) + " KELVO_FUZZ_ITERATIONS=1");
        rng.seed(seed++);
        kt::SimServer s(word("UTC America/New_York Asia/Kolkata Australia/Lord_Howe"));
        build(s);
        std::map<std::string, std::string> arg = {
            {"V", std::regex_replace(rest(), std::regex("^(m/)?share/"), "")},
            {"T", N(below(2))},
            {"C", word("-1 -1 -1 0 1 5 32 -2 3x 4294967295 99999999999999999999")},
            {"S", std::string(chance(50) ? 1 : 512 + 88 * below(2), 'S')}};
        for (const char* line :
             {"spacelist", "vollist S", "voluse C", "volchn V", "nullid C", "spaceinfo S",
              "--format=json", "--format=prometheus", "--format=check", "volclean C", "autoclean",
              "volset V T T", "recoverid C"}) {
            std::vector<std::string> args = words(line);
            for (std::string& a : args) a = arg.count(a) ? arg[a] : a;
            check(s, args);
        }
    }
    printf("hostile servers checked: seeds %llu to %llu\n", first, seed - 1);
}

}  // namespace
