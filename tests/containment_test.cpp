// The storage library when the database or the folders are not what they should be.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <thread>

#include "channel.h"
#include "sim_server.h"
#include "storage_setting.h"

namespace {

long long at(int day, int hour) { return kt::local_ms(2024, 3, day, hour); }
const long long kNow = 1710504000;  // 2024-03-15 12:00 UTC

// Space Main; volume Vol1, safe, and volumes whose uuid or path lead elsewhere; channel 0 with a
// period on NR S01 at 03-10 07:00, and channel 1 with a sid of other characters. The hour folder
// of the period (listed) and of 03-01 05:00 (unlisted).
struct Server : kt::SimServer {
    const std::string fsu = fsu_folder(path("share/Vol1"), kt::uuid(11));
    const std::string listed = hour_folder(fsu, kt::sid(1), 4, 1, at(10, 7));
    const std::string unlisted = hour_folder(fsu, kt::sid(1), 4, 1, at(1, 5));
    Server() {
        exec(R"(INSERT INTO spaces VALUES (uuid(1), 'Main', uuid(101), 0, 0, 0, 0);
            INSERT INTO volumes VALUES (uuid(11), uuid(101), '{root}/share/Vol1', -1, 0, 0, 1000, 10, '');
            INSERT INTO volumes (uuid, group_uuid, path) VALUES
                ('a0b1/../../vvvvvvvvvvvvvvvvvvvvvvvvv', uuid(101), '{root}/share/Vol1'),
                (uuid(12), uuid(101), '{root}/share/Z' || char(0) || '/x'), (uuid(13), uuid(101), 'rel'),
                (uuid(14), uuid(101), '{root}/share/x/../D');
            INSERT INTO channels VALUES (0, sid(1)), (1, '5d x');
            INSERT INTO periods VALUES (0, 4, 1, unixepoch('2024-03-10 07:00') * 1000,
                                        unixepoch('2024-03-10 08:00') * 1000, NULL, 'a', 0);)");
        make_dir(listed);
        make_dir(unlisted);
    }
};

// The library's connection against this test's own, which holds the lock.
TEST(Containment, LockIsWaitedForThenFailsTheQuery) {
    Server s;
    setenv("ORN_STORAGE_DB", s.db_path().c_str(), 1);
    COrnStorage storage;  // opens the database
    IStorageSetting* setting = nullptr;
    storage.create_storage_setting(&setting);
    COrnChannel channels;
    IFrameChannelSession* session = nullptr;
    ASSERT_EQ(channels.create_channel_session(channel_sid(), &session), 0);
    std::list<time_period> periods;
    s.exec("BEGIN EXCLUSIVE");  // released within the wait: answered
    std::thread release([&] { sleep(1), s.exec("COMMIT"); });
    EXPECT_EQ(session->query_time_periods(4, 1, 0, LLONG_MAX, periods, 0, 1, 1), 0);
    EXPECT_EQ(periods.size(), 1u);
    release.join();
    s.exec("BEGIN EXCLUSIVE");  // held past it: a failure, not an empty success
    EXPECT_EQ(session->query_time_periods(4, 1, 0, LLONG_MAX, periods, 0, 1, 1), -1);
    s.exec("COMMIT");
    channels.destroy_channel_session(&session);
    storage.destroy_storage_setting(&setting);
}

TEST(Containment, DamagedDatabaseFailsEachQueryLogsItAndRecyclesNothing) {
    Server s;  // the periods table and its index swap their root pages
    s.exec(
        R"(PRAGMA writable_schema = ON; UPDATE sqlite_master SET rootpage = (SELECT sum(rootpage)
        FROM sqlite_master WHERE name IN ('periods', 'periods_by_stream')) - rootpage
        WHERE name IN ('periods', 'periods_by_stream'))");
    std::string failures, malformed;
    for (const char* type : {"NR", "AR"})
        for (char n = '1'; n <= '4'; ++n)
            failures += std::string("ch01 [") + type + " S0" + n + "] retrieve time period fail\n",
                malformed += "database disk image is malformed\n";
    kt::expect_output(s.run_at(kNow, {"nullid", "0"}, {"ORN_LOG_FILE=debug.log"}),
                      failures + "\nTotal have [0] time period data has null storage id.\n");
    EXPECT_EQ(kt::read_file(s.path("debug.log")), malformed);
    s.run_at(kNow, {"volclean", "0"});
    EXPECT_TRUE(s.exists(s.unlisted));
}

// Volumes and sids that lead out of the stream folder, or into another, are skipped; a failed
// query leaves the listed hour; a file system mounted below an hour is not entered.
TEST(Containment, RecyclingKeepsListedHoursAndStaysInItsStreamFolder) {
    Server s;
    s.exec("INSERT INTO faults VALUES ('query_time_periods', '0:4:1', -1)");  // the whole 30 days
    const std::string sid = "/" + kt::sid(1), hour = "/4/1/20240301/05", mnt = s.unlisted + "/mnt";
    const std::string kept[] = {"share/vvvvvvvvvvvvvvvvvvvvvvvvv" + sid, "share/Z" + sid,
                                s.fsu + "/5d x", s.fsu_folder("rel", kt::uuid(13)) + sid,
                                s.fsu_folder("share/D", kt::uuid(14)) + sid};
    for (const std::string& dir : kept) s.make_dir(dir + hour);
    for (const char* dir : {"share/Vol1/FSU_", "share/x"}) s.make_dir(dir);
    s.make_dir(mnt);
    s.make_dir(s.unlisted + "/own");
    const bool mounts = mount("kelvo-test", mnt.c_str(), "tmpfs", 0, "size=1m") == 0;
    std::ofstream(mnt + "/rec.dat") << "recording";
    s.run_at(kNow, {"volclean", "-1"});
    for (const std::string& dir : kept) EXPECT_TRUE(s.exists(dir + hour)) << dir;
    EXPECT_TRUE(s.exists(s.listed));
    EXPECT_FALSE(s.exists(s.unlisted + "/own"));
    if (!mounts) GTEST_SKIP() << "no file system below an hour: mounting a tmpfs needs root";
    EXPECT_EQ(kt::read_file(mnt + "/rec.dat"), "recording");
    EXPECT_EQ(umount2(mnt.c_str(), MNT_DETACH), 0);
}

// Rows of an older schema (no CHECK, no UNIQUE) that no record carries whole, and sizes that the
// server changes between volset's read and its write, are never written back.
TEST(Containment, OldRowsAndServerSizesAreNeverWrittenBack) {
    Server s;
    s.exec(R"(
        CREATE TABLE v AS SELECT * FROM volumes; DROP TABLE volumes; ALTER TABLE v RENAME TO volumes;
        CREATE TABLE p AS SELECT * FROM periods; DROP TABLE periods; ALTER TABLE p RENAME TO periods;
        INSERT INTO volumes VALUES (uuid(15), uuid(101), '{root}/share/' || printf('%.1100c', 'p'),
            -1, 0, 0, 0, 0, ''), (uuid(16), uuid(101), '{root}/share/TwinA', -1, 0, 0, 0, 0, ''),
            (uuid(16), uuid(101), '{root}/share/TwinB', -1, 0, 0, 0, 0, '');
        INSERT INTO profiles VALUES (0, sid(1), uuid(1), uuid(101), uuid(11), sto(1));
        INSERT INTO periods VALUES (0, 4, 2, unixepoch('2024-03-10 07:00') * 1000,
            unixepoch('2024-03-10 08:00') * 1000, NULL, printf('%.64c', 'k'), 0),
            (0, 1, 1, 0, 1, sto(7), printf('%.63c', 'k'), 0);
        INSERT INTO settings VALUES ('trace', '1');
        CREATE TRIGGER measure AFTER INSERT ON call_log
            WHEN NEW.op = 'get_volume_setting' AND NEW.args LIKE '%000000000011%'
            BEGIN UPDATE volumes SET total_size_mb = 2000, used_size_mb = 20 WHERE rowid = 1; END;)");
    s.make_dir(s.hour_folder(s.fsu, kt::sid(1), 4, 2, at(10, 7)));
    const std::string rows = s.query("SELECT * FROM periods WHERE period_key > 'k'") +
                             s.query("SELECT path FROM volumes");
    kt::RunResult r = s.run_at(kNow, {"recoverid", "0"});  // repairs the 64-character key or none
    EXPECT_NE(r.out.find("recover storage id: [update time period fail.]"), std::string::npos);
    for (const std::string& name :
         {std::string("Vol1"), std::string(127, 'p'), std::string("TwinB")})
        kt::expect_output(s.run_at(kNow, {"volset", name, "1", "1"}), "");
    // Vol1 keeps the server's sizes, the long path is set whole, of two rows of one uuid neither.
    EXPECT_EQ(s.query("SELECT volume_type, state, total_size_mb, used_size_mb FROM volumes"),
              "2|0|2000|20\n0|0|0|0\n0|0|0|0\n0|0|0|0\n0|0|0|0\n2|0|0|0\n0|0|0|0\n0|0|0|0\n");
    EXPECT_EQ(s.query("SELECT * FROM periods WHERE period_key > 'k'") +
                  s.query("SELECT path FROM volumes"),
              rows);
}

TEST(Containment, DatabaseWithOtherColumnsIsNoServer) {
    for (const char* column :
         {"spaces RENAME spare_status", "volumes RENAME label", "channels RENAME sid",
          "periods RENAME size_mb", "faults RENAME result", "profiles RENAME storage_id",
          "volume_channels RENAME sid", "settings RENAME value", "call_log RENAME result"}) {
        kt::SimServer s;
        s.exec("ALTER TABLE " + std::string(column) + " TO other");
        kt::expect_output(s.run({"spacelist"}), "Query storage settings faiure.\n");
    }
}

}  // namespace
