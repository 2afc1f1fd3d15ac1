// The storage library when the database or the folders are not what they should be.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "sim_server.h"

namespace {

// uuid(n), sid(n) and sto(n) as literals (the texts of kt::uuid() and so on).
std::string sql(std::string text) {
    static const std::regex call(R"(\b(uuid|sid|sto)\((\d+)\))");
    for (std::smatch m; std::regex_search(text, m, call);)
        text.replace(m.position(), m.length(), "'" + (m[1] == "uuid" ? kt::uuid : m[1] == "sid" ? kt::sid
                                                      : kt::storage_id)(std::stoi(m[2])) + "'");
    return text;
}
long long at(int day, int hour) { return kt::local_ms(2024, 3, day, hour); }
const long long kNow = 1710504000;  // 2024-03-15 12:00 UTC

// Space Main, volume Vol1, channel 0 with a period on NR S01 at 03-10 07:00; the hour folder of it
// (listed) and of 03-01 05:00 (unlisted).
struct Server : kt::SimServer {
    const std::string fsu = fsu_folder(path("share/Vol1"), kt::uuid(11));
    const std::string listed = hour_folder(fsu, kt::sid(1), 4, 1, at(10, 7)), unlisted = hour_folder(fsu, kt::sid(1), 4, 1, at(1, 5));
    Server() {
        exec(sql("INSERT INTO spaces VALUES (uuid(1), 'Main', uuid(101), 0, 0, 0, 0); INSERT INTO channels VALUES (0, sid(1));"
                 "INSERT INTO periods VALUES (0, 4, 1, unixepoch('2024-03-10 07:00') * 1000, unixepoch('2024-03-10 08:00') * 1000, NULL, 'p', 0);"
                 "INSERT INTO volumes VALUES (uuid(11), uuid(101), '" + path("share/Vol1") + "', -1, 0, 0, 1000, 10, '')"));
        make_dir(listed);
        make_dir(unlisted);
    }
};

// This test's connection holds the lock: released within the wait, kelvo is answered; held past
// it, the library fails.
TEST(Containment, LockIsWaitedForThenFails) {
    Server s;
    const std::string answer = s.run_at(kNow, {"nullid", "0"}).out;
    s.exec("BEGIN EXCLUSIVE");
    std::thread release([&] { sleep(1), s.exec("COMMIT"); });
    kt::expect_output(s.run_at(kNow, {"nullid", "0"}), answer);
    release.join();
    s.exec("BEGIN EXCLUSIVE");
    kt::expect_output(s.run_at(kNow, {"nullid", "0"}), "Query storage settings faiure.\n");
    s.exec("COMMIT");
}

TEST(Containment, DamagedDatabaseFailsEveryQueryIsLoggedAndRecyclingRemovesNothing) {
    Server s;
    const long long page = std::stoll(s.query("PRAGMA page_size"));  // zero the periods' pages
    std::istringstream roots(s.query("SELECT rootpage FROM sqlite_master WHERE tbl_name = 'periods'"));
    std::fstream db(s.db_path(), std::ios::in | std::ios::out | std::ios::binary);
    for (long long root; roots >> root;) db.seekp((root - 1) * page).write("\0\0\0\0\0\0\0\0", 8);
    db.close();
    std::string failures, malformed;
    for (const char* stream : {"NR S01", "NR S02", "NR S03", "NR S04", "AR S01", "AR S02", "AR S03", "AR S04"})
        failures += "ch01 [" + std::string(stream) + "] retrieve time period fail\n",
            malformed += "database disk image is malformed\n";
    kt::expect_output(s.run_at(kNow, {"nullid", "0"}, {"ORN_LOG_FILE=debug.log"}),
                      failures + "\nTotal have [0] time period data has null storage id.\n");
    EXPECT_EQ(kt::read_file(s.path("debug.log")), malformed);
    s.run_at(kNow, {"volclean", "0"});
    EXPECT_TRUE(s.exists(s.unlisted));
}

// Volume uuids, paths (SQL text after the root) and sids that would lead recycling out of its
// stream folder or to another: skipped. |victim| is where they lead.
TEST(Containment, RecyclingSkipsVolumesAndSidsThatLeadElsewhere) {
    const std::string sid = kt::sid(1), tail = kt::uuid(11).substr(4), safe = "share/V/FSU_" + tail;
    const struct { std::string uuid_tail, path, sid, victim; } cases[] = {
        {"/../../" + std::string(25, 'v'), "share/V", sid, "share/" + std::string(25, 'v') + "/" + sid},
        {tail, "share/V' || char(0) || '/x", sid, "share/V/" + sid},
        {tail, "", sid, "rel/FSU_" + tail + "/" + sid},  // the relative path "rel"
        {tail, "share/x/../V", sid, safe + "/" + sid},
        {tail, "share/V", "5d x", safe + "/5d x"},
        {tail, "share/V", sid, ""},  // a safe volume: its unlisted hour goes
    };
    for (const auto& c : cases) {
        kt::SimServer s;
        s.exec(sql("INSERT INTO spaces VALUES (uuid(1), 'Main', uuid(101), 0, 0, 0, 0); INSERT INTO channels VALUES (0, '" +
                   c.sid + "'); INSERT INTO volumes (uuid, group_uuid, path) VALUES ('a0b1" + c.uuid_tail +
                   "', uuid(101), '" + (c.path.empty() ? "rel" : s.root() + "/" + c.path) + "')"));
        const std::string victim = (c.victim.empty() ? safe + "/" + sid : c.victim) + "/4/1/20240301/05";
        for (const std::string& dir : {std::string("share/V/FSU_"), std::string("share/x"), victim}) s.make_dir(dir);
        s.run_at(kNow, {"volclean", "0"});
        EXPECT_EQ(s.exists(victim), !c.victim.empty()) << victim;
    }
}

// Rows of an older schema (no CHECK, no UNIQUE) that no record carries whole, sizes the server
// changes between volset's read and its write, a failed period query and a mount below an hour.
TEST(Containment, OldRowsServerSizesFailedQueriesAndMountsAreKept) {
    Server s;
    for (const char* table : {"volumes", "periods"})
        s.exec(std::string("CREATE TABLE old AS SELECT * FROM ") + table + "; DROP TABLE " + table + "; ALTER TABLE old RENAME TO " + table);
    const std::string key(64, 'k'), vol = ", uuid(101), '" + s.path("share/"), end = "', -1, 0, 0, 0, 0, '')";
    s.exec(sql("INSERT INTO profiles VALUES (0, sid(1), uuid(1), uuid(101), uuid(11), sto(1)); INSERT INTO periods VALUES "
               "(0, 4, 2, unixepoch('2024-03-10 07:00') * 1000, unixepoch('2024-03-10 08:00') * 1000, NULL, '" + key +
               "', 0), (0, 1, 1, 0, 1, sto(7), '" + key.substr(1) + "', 0); INSERT INTO volumes VALUES (uuid(12)" + vol +
               std::string(1100, 'p') + end + ", (uuid(13)" + vol + "TwinA" + end + ", (uuid(13)" + vol + "TwinB" + end +
               "; INSERT INTO faults VALUES ('query_time_periods', '0:4:1', -1); INSERT INTO settings VALUES ('trace', '1');"
               "CREATE TRIGGER measure AFTER INSERT ON call_log WHEN NEW.op = 'get_volume_setting' BEGIN "
               "UPDATE volumes SET total_size_mb = 2000, used_size_mb = 20 WHERE rowid = 1; END"));
    s.make_dir(s.hour_folder(s.fsu, kt::sid(1), 4, 2, at(10, 7)));
    const std::string periods = "SELECT * FROM periods WHERE period_key LIKE 'kk%'", before = s.query(periods);
    kt::RunResult r = s.run_at(kNow, {"recoverid", "0"});  // repairs the 64-character key, or nothing
    EXPECT_NE(r.out.find(", recover storage id: [update time period fail.]"), std::string::npos) << r.out;
    EXPECT_EQ(s.query(periods), before);
    for (const std::string& name : {std::string(127, 'p'), std::string("TwinB"), std::string("Vol1")})
        kt::expect_output(s.run_at(kNow, {"volset", name, "1", "1"}), "");
    // The long path is set whole, of two rows of one uuid neither, Vol1 with the server's sizes.
    EXPECT_EQ(s.query("SELECT substr(path, length('" + s.root() + "') + 2), volume_type, state, total_size_mb, "
                      "used_size_mb FROM volumes"), "share/Vol1|2|0|2000|20\nshare/" + std::string(1100, 'p') +
                                                       "|2|0|0|0\nshare/TwinA|0|0|0|0\nshare/TwinB|0|0|0|0\n");
    const std::string mounted = s.unlisted + "/mnt", own = s.unlisted + "/own";
    s.make_dir(mounted);
    s.make_dir(own);
    const bool mounts = mount("kelvo-test", mounted.c_str(), "tmpfs", 0, "size=1m") == 0;
    std::ofstream(mounted + "/rec.dat") << "recording";
    s.run_at(kNow, {"volclean", "0"});  // the query fails: the whole 30 days, but the listed hour stays
    EXPECT_TRUE(s.exists(s.listed));
    EXPECT_FALSE(s.exists(own));
    if (!mounts) GTEST_SKIP() << "no mount below an hour folder: tmpfs cannot be mounted here (root only)";
    EXPECT_EQ(kt::read_file(mounted + "/rec.dat"), "recording");
    EXPECT_EQ(umount2(mounted.c_str(), MNT_DETACH), 0);
}

TEST(Containment, DatabaseWithOtherColumnsIsNoServer) {
    for (const char* column : {"spaces RENAME spare_status", "volumes RENAME label", "channels RENAME sid",
                               "periods RENAME size_mb", "profiles RENAME storage_id", "faults RENAME result",
                               "volume_channels RENAME sid", "settings RENAME value", "call_log RENAME result"}) {
        kt::SimServer s;
        s.exec("ALTER TABLE " + std::string(column) + " TO other");
        kt::expect_output(s.run({"spacelist"}), "Query storage settings faiure.\n");
    }
}

}  // namespace
