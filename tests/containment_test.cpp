// What the storage library does when the database or the folders are not
// what they should be: an SQLite error fails the call, recycling keeps the
// listed periods and stays inside its stream folder, a record's field is
// never written back cut, and a database of other columns is no server.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "channel.h"
#include "recycle.h"
#include "sim_server.h"
#include "storage_setting.h"

namespace {

using kt::expect_output;
using kt::SimServer;

long long at(int month, int day, int hour) { return kt::local_ms(2024, month, day, hour); }
long long now_s() { return at(3, 15, 12) / 1000; }

// The schema as an older release made it: no CHECK and no UNIQUE.
std::string old_schema() {
    std::string ddl = kt::read_file(KELVO_SCHEMA), out;
    for (size_t i = 0; i < ddl.size(); ++i) {
        if (ddl.compare(i, 7, "CHECK (") == 0) {
            int depth = 0;
            do depth += ddl[i] == '(' ? 1 : ddl[i] == ')' ? -1 : 0;
            while (++i < ddl.size() && (depth > 0 || ddl[i - 1] != ')'));
            --i;
        } else if (ddl.compare(i, 7, " UNIQUE") == 0) {
            i += 6;
        } else {
            out += ddl[i];
        }
    }
    return out;
}

// Space Main, a volume, channel 0 (|sid|) with a period at 2024-03-10 07:00
// on NR S01 and an hour folder of it and of 2024-03-01 05:00, unlisted.
struct Server {
    SimServer sim;
    std::string fsu;

    explicit Server(const std::string& schema = "", const std::string& sid = kt::sid(1))
        : sim("UTC", schema) {
        sim.add_space(kt::space_row(1, "Main", 101));
        fsu = sim.add_volume(kt::volume_row(11, 101, "share/Vol1", 1, 1000, 10));
        sim.add_channel(0, sid);
        sim.add_period(kt::period_row(0, 4, 1, at(3, 10, 7), at(3, 10, 7) + 1800000));
        for (const std::string& h : {listed(sid), unlisted(sid)}) sim.make_dir(h);
    }
    std::string listed(const std::string& sid = kt::sid(1)) const {
        return sim.hour_folder(fsu, sid, 4, 1, at(3, 10, 7));
    }
    std::string unlisted(const std::string& sid = kt::sid(1)) const {
        return sim.hour_folder(fsu, sid, 4, 1, at(3, 1, 5));
    }
};

// The library's one connection against a second one, this test's own.
TEST(Containment, AnotherConnectionChangesSizesAndHoldsTheLock) {
    Server s;
    setenv("ORN_STORAGE_DB", s.sim.db_path().c_str(), 1);
    COrnStorage storage;
    IStorageSetting* setting = nullptr;
    storage.create_storage_setting(&setting);
    ASSERT_NE(setting, nullptr);

    // The sizes are the server's: changed between read and write, they stay.
    const ornsid volume(kt::uuid(11).c_str());
    TVolumeSetting record;
    ASSERT_EQ(setting->get_volume_setting(volume, &record), 0);
    s.sim.exec("UPDATE volumes SET total_size_mb = 2000, used_size_mb = 20");
    record.state = 1;
    EXPECT_EQ(setting->set_volume_setting(volume, &record), 0);
    EXPECT_EQ(s.sim.query("SELECT total_size_mb, used_size_mb, state FROM volumes"), "2000|20|1\n");

    channel_sid channel;
    std::memcpy(channel.sid, kt::sid(1).data(), 32);
    stream_info info;
    std::memcpy(info.sid, kt::sid(1).data(), 32);
    info.stream = 1;
    info.record_type = 4;
    COrnChannel channels;
    IFrameChannelSession* session = nullptr;
    ASSERT_EQ(channels.create_channel_session(channel, &session), 0);
    CFSTier tier;
    ASSERT_EQ(tier.init(ornsid(kt::uuid(1).c_str())), 0);
    std::list<time_period> periods(3);
    auto query = [&] { return session->query_time_periods(4, 1, 0, LLONG_MAX, periods, 0, 1, 1); };

    // A lock held past the wait fails each call; nothing is answered or removed.
    s.sim.exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(query(), -1);
    EXPECT_TRUE(periods.empty());
    EXPECT_EQ(tier.recycle_channel_data(info, 0, LLONG_MAX), -1);
    EXPECT_TRUE(s.sim.exists(s.unlisted()));
    s.sim.exec("COMMIT");
    // Released, the same calls succeed; the listed period's hour stays.
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(periods.size(), 1u);
    EXPECT_EQ(tier.recycle_channel_data(info, 0, LLONG_MAX), 0);
    EXPECT_FALSE(s.sim.exists(s.unlisted()));
    EXPECT_TRUE(s.sim.exists(s.listed()));
    tier.uninit();
    channels.destroy_channel_session(&session);
    storage.destroy_storage_setting(&setting);
}

TEST(Containment, DamagedPeriodsFailEveryQueryAndRecyclingRemovesNothing) {
    Server s;
    // Zero page headers of the periods table and its indexes.
    const long long page = std::stoll(s.sim.query("PRAGMA page_size"));
    const std::string roots =
        s.sim.query("SELECT rootpage FROM sqlite_master WHERE tbl_name = 'periods'");
    std::fstream db(s.sim.db_path(), std::ios::in | std::ios::out | std::ios::binary);
    for (size_t pos = 0; pos < roots.size(); pos = roots.find('\n', pos) + 1) {
        db.seekp((std::stoll(roots.substr(pos)) - 1) * page);
        db.write("\0\0\0\0\0\0\0\0", 8);
    }
    db.close();
    std::string failures;
    for (const char* type : {"NR", "AR"})
        for (char stream = '1'; stream <= '4'; ++stream)
            failures += "ch01 [" + std::string(type) + " S0" + stream + "] retrieve time period fail\n";
    const std::vector<std::string> log = {"ORN_LOG_FILE=debug.log"};
    expect_output(s.sim.run_at(now_s(), {"nullid", "0"}, log),
                  failures + "\nTotal have [0] time period data has null storage id.\n");
    std::string malformed;
    for (int i = 0; i < 8; ++i) malformed += "database disk image is malformed\n";
    EXPECT_EQ(kt::read_file(s.sim.path("debug.log")), malformed);
    s.sim.run_at(now_s(), {"volclean", "0"});
    EXPECT_TRUE(s.sim.exists(s.unlisted()));
}

// Volumes and sids that would lead recycling out of the stream folder, or to
// a folder not meant, are skipped; |victim| is the stream folder reached.
TEST(Containment, RecyclingSkipsVolumesAndSidsThatLeadElsewhere) {
    struct Case {
        const char* name;
        std::string uuid_tail, path, sid, victim;  // paths below the root
    };
    const std::string sid = kt::sid(1), stream = "/4/1";
    const Case cases[] = {
        {"uuid climbs out", "/../../" + std::string(25, 'v'), "share/V", sid,
         "share/" + std::string(25, 'v') + "/" + sid + stream},
        {"zero byte in path", kt::uuid(11).substr(4), std::string("share/V\0/x", 10), sid,
         "share/V/" + sid + stream},
        {"relative path", kt::uuid(11).substr(4), "", sid,
         "rel/FSU_" + kt::uuid(11).substr(4) + "/" + sid + stream},
        {"dot-dot in path", kt::uuid(11).substr(4), "share/x/../V", sid,
         "share/V/FSU_" + kt::uuid(11).substr(4) + "/" + sid + stream},
        {"sid of other characters", kt::uuid(11).substr(4), "share/V", "5d x",
         "share/V/FSU_" + kt::uuid(11).substr(4) + "/5d x" + stream},
        {"safe volume", kt::uuid(11).substr(4), "share/V", sid, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SimServer s;
        s.add_space(kt::space_row(1, "Main", 101));
        const std::string path = c.path.empty() ? "rel" : s.path(c.path);
        s.insert("volumes", {{"uuid", "a0b1" + c.uuid_tail}, {"group_uuid", kt::uuid(101)},
                             {"path", path}});
        s.add_channel(0, c.sid);
        s.make_dir("share/V/FSU_");
        s.make_dir("share/x");
        const std::string victim =
            (c.victim.empty() ? "share/V/FSU_" + c.uuid_tail + "/" + sid + stream : c.victim) +
            "/20240301/05";
        s.make_dir(victim);
        s.run_at(now_s(), {"volclean", "0"});
        EXPECT_EQ(s.exists(victim), !c.victim.empty()) << victim;
    }
}

// A file system mounted below an hour folder keeps its files and the
// folders above it; only the rest of the hour goes.
TEST(Containment, RecyclingEntersNoOtherFileSystem) {
    Server s;
    const std::string mounted = s.unlisted() + "/mnt";
    s.sim.make_dir(mounted);
    s.sim.make_dir(s.unlisted() + "/own");
    if (mount("kelvo-test", mounted.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here (" << std::strerror(errno) << ")";
    std::ofstream(mounted + "/rec.dat") << "recording";
    kt::RunResult r = s.sim.run_at(now_s(), {"volclean", "0"});
    EXPECT_EQ(kt::read_file(mounted + "/rec.dat"), "recording");
    EXPECT_FALSE(s.sim.exists(s.unlisted() + "/own"));
    EXPECT_EQ(umount2(mounted.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(r.err, "");
}

// Rows a database of an older schema may hold, which no record carries whole.
TEST(Containment, OldSchemaValuesAreNeverWrittenBackCut) {
    Server s(old_schema());
    const std::string key63(63, 'k'), long_path = s.sim.path("share/" + std::string(1100, 'p'));
    s.sim.add_profile(kt::profile_row(0, kt::sid(1), 1, 101, 11, kt::storage_id(1)));
    s.sim.add_period(kt::period_row(0, 4, 2, at(3, 10, 7), at(3, 10, 8), kt::Value::null(),
                                    key63 + "k"));
    s.sim.add_period(kt::period_row(0, 1, 1, at(3, 9, 7), at(3, 9, 8),
                                    kt::Value(kt::storage_id(7)), key63));
    s.sim.make_dir(s.sim.hour_folder(s.fsu, kt::sid(1), 4, 2, at(3, 10, 7)));
    for (const char* name : {"share/Long", "share/TwinA", "share/TwinB"})
        s.sim.insert("volumes", {{"uuid", kt::uuid(std::string(name) == "share/Long" ? 12 : 13)},
                                 {"group_uuid", kt::uuid(101)},
                                 {"path", std::string(name) == "share/Long"
                                              ? long_path : s.sim.path(name)}});
    const std::string periods =
        "SELECT period_key, hex(storage_id) FROM periods WHERE period_key LIKE 'kk%'";
    const std::string before = s.sim.query(periods);

    kt::RunResult r = s.sim.run_at(now_s(), {"recoverid", "0"});
    EXPECT_NE(r.out.find(", recover storage id: [update time period fail.]"), std::string::npos)
        << r.out;
    EXPECT_EQ(s.sim.query(periods), before);
    // The long path is set but kept whole; of two rows of one uuid neither is set.
    const std::string paths = s.sim.query("SELECT path FROM volumes ORDER BY rowid");
    for (const std::string& name : {std::string(127, 'p'), std::string("TwinB")})
        expect_output(s.sim.run_at(now_s(), {"volset", name, "1", "1"}), "");
    EXPECT_EQ(s.sim.query("SELECT path FROM volumes ORDER BY rowid"), paths);
    EXPECT_EQ(s.sim.query("SELECT volume_type, state FROM volumes ORDER BY rowid"),
              "0|0\n2|0\n0|0\n0|0\n");
}

TEST(Containment, DatabaseWithOtherColumnsIsNoServer) {
    const std::pair<const char*, const char*> renamed[] = {
        {"spaces", "spare_status"}, {"volumes", "label"},     {"channels", "sid"},
        {"periods", "size_mb"},     {"profiles", "storage_id"}, {"volume_channels", "sid"},
        {"faults", "result"},       {"settings", "value"},    {"call_log", "result"}};
    for (const auto& column : renamed) {
        SCOPED_TRACE(column.first);
        SimServer s;
        s.exec(std::string("ALTER TABLE ") + column.first + " RENAME COLUMN " + column.second +
               " TO other");
        expect_output(s.run({"spacelist"}), "Query storage settings faiure.\n");
    }
}

}  // namespace
