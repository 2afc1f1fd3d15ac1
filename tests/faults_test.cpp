// Every failure the storage library can report, each on a server where it
// matters: the command prints its message for it, goes on with the rest, and
// loses nothing it was not asked to remove.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::RunResult;
using kt::SimServer;

// The clock of every run: 2024-03-15 12:00 UTC.
long long at(int month, int day, int hour, int minute = 0) {
    return kt::local_ms(2024, month, day, hour, minute);
}
long long now_s() { return at(3, 15, 12) / 1000; }

const std::string kSetupFailure = "Query storage settings faiure.\n";

kt::Volume volume(int n, int group, const std::string& path, long long volume_no) {
    kt::Volume v;
    v.uuid = kt::uuid(n);
    v.group_uuid = kt::uuid(group);
    v.path = path;
    v.volume_no = volume_no;
    v.total_size_mb = 1000;  // with nothing used nor reserved, every volume leaks
    return v;
}

kt::Period period(int channel, int record_type, int stream, long long start_ms, long long end_ms,
                  const std::string& key, const kt::Value& storage_id = kt::Value::null()) {
    kt::Period p;
    p.channel_id = channel;
    p.record_type = record_type;
    p.stream = stream;
    p.start_ms = start_ms;
    p.end_ms = end_ms;
    p.period_key = key;
    p.storage_id = storage_id;
    p.size_mb = 100;
    return p;
}

// Spaces Main (volume Vol1) and Spare (volume Vol2); channels 0 and 1 with
// profiles for Vol1. Channel 0 has a filed period (a0, NR S01) and null ones
// a1 (NR S01) and a2 (NR S02); channel 1 has the null b1 (AR S03). The null
// periods' first hours lie on Vol1. Each volume holds an hour folder of
// channel 0's NR S01 before its period (old) and the period's own (kept).
struct Server {
    SimServer sim;
    std::string fsu1, fsu2;

    Server() {
        sim.add_space({kt::uuid(1), "Main", kt::uuid(101), 2000, 0, 0, 0});
        sim.add_space({kt::uuid(2), "Spare", kt::uuid(102), 1000, 0, 0, 0});
        fsu1 = sim.add_volume(volume(11, 101, "share/Vol1", 1));
        fsu2 = sim.add_volume(volume(12, 102, "share/Vol2", 2));
        sim.add_channel(0, kt::sid(1));
        sim.add_channel(1, kt::sid(2));
        sim.add_profile({0, kt::sid(1), kt::uuid(1), kt::uuid(101), kt::uuid(11), kt::storage_id(1)});
        sim.add_profile({1, kt::sid(2), kt::uuid(1), kt::uuid(101), kt::uuid(11), kt::storage_id(2)});
        sim.add_volume_channel(1, 0, kt::sid(1));
        sim.add_period(period(0, 4, 1, at(3, 10, 7), at(3, 10, 8), "a0",
                              kt::Value::blob(kt::storage_id(1))));
        sim.add_period(period(0, 4, 1, at(3, 10, 8), at(3, 10, 9), "a1"));
        sim.add_period(period(0, 4, 2, at(3, 11, 10), at(3, 11, 10, 30), "a2"));
        sim.add_period(period(1, 1, 3, at(3, 12, 1), at(3, 12, 1, 30), "b1"));
        sim.make_dir(sim.hour_folder(fsu1, kt::sid(1), 4, 1, at(3, 10, 8)));
        sim.make_dir(sim.hour_folder(fsu1, kt::sid(1), 4, 2, at(3, 11, 10)));
        sim.make_dir(sim.hour_folder(fsu1, kt::sid(2), 1, 3, at(3, 12, 1)));
        for (const std::string& fsu : {fsu1, fsu2}) {
            sim.make_dir(old_folder(fsu));
            sim.make_dir(kept_folder(fsu));
        }
    }

    std::string old_folder(const std::string& fsu) const {
        return sim.hour_folder(fsu, kt::sid(1), 4, 1, at(3, 1, 5));
    }
    std::string kept_folder(const std::string& fsu) const {
        return sim.hour_folder(fsu, kt::sid(1), 4, 1, at(3, 10, 7));
    }
    RunResult run(const std::vector<std::string>& args,
                  const std::vector<std::string>& env = {}) {
        return sim.run_at(now_s(), args, env);
    }
    // The storage id of a period as stored, in hex ("" for NULL).
    std::string storage_id_of(const std::string& key) {
        return sim.query("SELECT hex(storage_id) FROM periods WHERE period_key = '" + key + "'");
    }
};

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out + "\n";
}

const char kA1[] = "\t[NR S01] [2024-3-10 08:00:00]-[2024-3-10 09:00:00]";
const char kA2[] = "\t[NR S02] [2024-3-11 10:00:00]-[2024-3-11 10:30:00]";
const char kB1[] = "\t[AR S03] [2024-3-12 01:00:00]-[2024-3-12 01:30:00]";

std::string recovered(const char* line, int storage_id) {
    return std::string(line) + ", recover storage id: [" + kt::storage_id(storage_id) + "]\n";
}
std::string failed(const char* line, const char* text) {
    return std::string(line) + ", recover storage id: [" + text + "]\n";
}
std::string recover_total(int nulls, int recovered) {
    return "\nTotal have [" + std::to_string(nulls) + "] time period data has null storage id, [" +
           std::to_string(recovered) + "] recover success.\n";
}

TEST(Faults, WithoutStorageSettingNoCommandTouchesAnything) {
    const std::vector<std::vector<std::string>> commands = {
        {"spacelist"},      {"vollist", "Main"},    {"volset", "Vol1", "1", "0"},
        {"volchn", "Vol1"}, {"voluse", "-1"},       {"volclean", "-1"},
        {"autoclean"},      {"nullid", "-1"},       {"recoverid", "-1"},
        {"spaceinfo", "Main"}, {"nosuchcommand"}};
    Server s;
    s.sim.add_fault("create_storage_setting");
    const std::string data = s.sim.dump_tables();
    const std::vector<std::string> tree = s.sim.tree();
    for (const auto& args : commands) {
        SCOPED_TRACE(args[0]);
        expect_output(s.run(args), kSetupFailure);
        EXPECT_EQ(s.sim.dump_tables(), data);
        EXPECT_EQ(s.sim.tree(), tree);
    }
}

TEST(Faults, WithoutPlugAndPlayServiceTheVolumeChannelsAreNotAsked) {
    Server s;
    s.sim.enable_trace();
    s.sim.add_fault("create_plug_play_service");
    for (const auto& args : std::vector<std::vector<std::string>>{{"voluse", "-1"},
                                                                   {"volchn", "Vol1"}}) {
        expect_output(s.run(args), "Query plug and play service failure.\n");
    }
    EXPECT_EQ(s.sim.query("SELECT count(*) FROM call_log WHERE op = 'get_volume_channel_list'"),
              "0\n");
}

TEST(Faults, ChannelWithoutSessionIsSkippedEverywhere) {
    Server s;
    s.sim.add_fault("create_channel_session", "0");
    const std::string a1 = s.storage_id_of("a1"), a2 = s.storage_id_of("a2");

    expect_output(s.run({"nullid", "-1"}),
                  "ch02 list:\n" + std::string(kB1) + "\n" +
                      "\nTotal have [1] time period data has null storage id.\n");
    expect_output(s.run({"recoverid", "-1"}),
                  "ch02 list:\n" + recovered(kB1, 2) + recover_total(1, 1));
    EXPECT_EQ(s.storage_id_of("a1"), a1);
    EXPECT_EQ(s.storage_id_of("a2"), a2);
    EXPECT_EQ(s.storage_id_of("b1"), hex(kt::storage_id(2)));

    // Without a session there is no bound: no stream is recycled.
    expect_output(s.run({"volclean", "0"}), "Recycle --ch01-- data ...\nRecycle process done.\n");
    RunResult r = s.run({"autoclean"});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.find("Initial"), std::string::npos) << r.out;
    for (const std::string& fsu : {s.fsu1, s.fsu2}) {
        EXPECT_TRUE(s.sim.exists(s.old_folder(fsu)));
        EXPECT_TRUE(s.sim.exists(s.kept_folder(fsu)));
    }
}

struct QueryFaultCase {
    const char* name;
    std::vector<std::pair<std::string, long long>> faults;  // target, result
    std::string nullid_out;
    std::string recoverid_out;
    bool a1_recovered;
};

TEST(Faults, FailedPeriodQueryCostsOnlyItsStream) {
    std::string nr_s01_fail = "ch01 [NR S01] retrieve time period fail\n";
    std::string all_fail_but_first;
    for (int channel : {1, 2}) {
        for (const char* label : {"NR", "AR"}) {
            for (int stream = 1; stream <= 4; ++stream) {
                if (channel == 1 && label == std::string("NR") && stream == 1) continue;
                all_fail_but_first += "ch0" + std::to_string(channel) + " [" + label + " S0" +
                                      std::to_string(stream) + "] retrieve time period fail\n";
            }
        }
    }
    const QueryFaultCase cases[] = {
        {"one stream fails",
         {{"0:4:1", -1}},
         nr_s01_fail + "ch01 list:\n" + kA2 + "\nch02 list:\n" + kB1 +
             "\n\nTotal have [2] time period data has null storage id.\n",
         nr_s01_fail + "ch01 list:\n" + recovered(kA2, 1) + "ch02 list:\n" + recovered(kB1, 2) +
             recover_total(2, 2),
         false},
        {"an empty answer that succeeds",
         {{"0:4:1", 0}},
         "ch01 list:\n" + std::string(kA2) + "\nch02 list:\n" + kB1 +
             "\n\nTotal have [2] time period data has null storage id.\n",
         "ch01 list:\n" + recovered(kA2, 1) + "ch02 list:\n" + recovered(kB1, 2) +
             recover_total(2, 2),
         false},
        // The row naming the stream wins over the one for every call.
        {"every query fails but one answers empty",
         {{"*", -1}, {"0:4:1", 0}},
         all_fail_but_first + "\nTotal have [0] time period data has null storage id.\n",
         all_fail_but_first + recover_total(0, 0),
         false},
        {"a fault on another stream",
         {{"0:4:3", 5}},
         "ch01 list:\n" + std::string(kA1) + "\n" + kA2 +
             "\nch01 [NR S03] retrieve time period fail\nch02 list:\n" + kB1 +
             "\n\nTotal have [3] time period data has null storage id.\n",
         "ch01 list:\n" + recovered(kA1, 1) + recovered(kA2, 1) +
             "ch01 [NR S03] retrieve time period fail\nch02 list:\n" + recovered(kB1, 2) +
             recover_total(3, 3),
         true},
    };
    for (const QueryFaultCase& c : cases) {
        SCOPED_TRACE(c.name);
        Server s;
        for (const auto& f : c.faults) s.sim.add_fault("query_time_periods", f.first, f.second);
        const std::string a1 = s.storage_id_of("a1");
        expect_output(s.run({"nullid", "-1"}), c.nullid_out);
        expect_output(s.run({"recoverid", "-1"}), c.recoverid_out);
        EXPECT_EQ(s.storage_id_of("a1"), c.a1_recovered ? hex(kt::storage_id(1)) : a1);
    }
}

TEST(Faults, FailedPeriodQueryMakesUnitRecyclingSkipTheStream) {
    Server s;
    s.sim.add_fault("query_time_periods", "0:4:1");
    const std::string leak =
        "Size lost 1000 MB over 50 MB(%5) is not resonable. Start to recycle volume using space "
        "...\n";
    expect_output(s.run({"autoclean"}),
                  "Volume [Vol1] total size 0 GB(1000 MB), used 0 MB(preallocate_remain 0 MB).\n" +
                      leak +
                      "Volume [Vol2] total size 0 GB(1000 MB), used 0 MB(preallocate_remain 0 "
                      "MB).\n" +
                      leak + "Volume space leak detected count: 2\nrecycle check process done.\n");
    for (const std::string& fsu : {s.fsu1, s.fsu2}) {
        EXPECT_TRUE(s.sim.exists(s.old_folder(fsu)));
        EXPECT_TRUE(s.sim.exists(s.kept_folder(fsu)));
    }
}

// A failed query reads as "no period": volclean then recycles the stream's
// last 30 days, the folder of the period that the query missed included.
TEST(Faults, FailedPeriodQueryMakesVolcleanRecycleTheWholeWindow) {
    Server s;
    s.sim.add_fault("query_time_periods", "0:4:1");
    std::string out = "Recycle --ch01-- data ...\n";
    for (const char* label : {"NR", "AR"}) {
        for (int stream = 0; stream < 5; ++stream) {
            bool listed = label == std::string("NR") && stream == 2;
            out += std::string("\t[") + label + " S0" + std::to_string(stream) + "] " +
                   (listed ? "Success.\n" : "Can not find time period.\n");
        }
    }
    expect_output(s.run({"volclean", "0"}), out + "Recycle process done.\n");
    for (const std::string& fsu : {s.fsu1, s.fsu2}) {
        EXPECT_FALSE(s.sim.exists(s.old_folder(fsu)));
        EXPECT_FALSE(s.sim.exists(s.kept_folder(fsu)));
    }
}

TEST(Faults, ProfilesThatCannotBeReadLeaveThePeriodsNull) {
    for (long long result : {-1LL, 0LL}) {
        SCOPED_TRACE(result);
        Server s;
        s.sim.add_fault("retrieve_storage_id_profile_list", "0", result);
        const std::string a1 = s.storage_id_of("a1"), a2 = s.storage_id_of("a2");
        expect_output(s.run({"recoverid", "-1"}),
                      "ch01 list:\n" + failed(kA1, "data base access fail.  ") +
                          failed(kA2, "data base access fail.  ") + "ch02 list:\n" +
                          recovered(kB1, 2) + recover_total(3, 1));
        EXPECT_EQ(s.storage_id_of("a1"), a1);
        EXPECT_EQ(s.storage_id_of("a2"), a2);
        EXPECT_EQ(s.storage_id_of("b1"), hex(kt::storage_id(2)));
    }
}

TEST(Faults, FailedPeriodUpdateIsReportedAndTheOthersGoOn) {
    Server s;
    s.sim.add_fault("update_time_period", "a1");
    const std::string a1 = s.storage_id_of("a1");
    expect_output(s.run({"recoverid", "-1"}),
                  "ch01 list:\n" + failed(kA1, "update time period fail.") + recovered(kA2, 1) +
                      "ch02 list:\n" + recovered(kB1, 2) + recover_total(3, 2));
    EXPECT_EQ(s.storage_id_of("a1"), a1);
    EXPECT_EQ(s.storage_id_of("a2"), hex(kt::storage_id(1)));
}

TEST(Faults, PeriodUpdateThatReportsSuccessWithoutWritingIsCounted) {
    Server s;
    s.sim.add_fault("update_time_period", "a1", 0);
    const std::string a1 = s.storage_id_of("a1");
    expect_output(s.run({"recoverid", "0"}),
                  "ch01 list:\n" + recovered(kA1, 1) + recovered(kA2, 1) + recover_total(2, 2));
    EXPECT_EQ(s.storage_id_of("a1"), a1);
    // The period is still null, so the next run finds it again.
    expect_output(s.run({"nullid", "0"}),
                  "ch01 list:\n" + std::string(kA1) +
                      "\n\nTotal have [1] time period data has null storage id.\n");
}

TEST(Faults, UnreadableVolumeSettingIsNotWrittenBack) {
    Server s;
    s.sim.enable_trace();
    s.sim.add_fault("get_volume_setting", kt::uuid(11));
    const std::string volumes = s.sim.query("SELECT * FROM volumes");
    expect_output(s.run({"volset", "Vol1", "1", "0"}), "Cannot read setting of volume [Vol1]\n");
    EXPECT_EQ(s.sim.query("SELECT * FROM volumes"), volumes);
    EXPECT_EQ(s.sim.query("SELECT count(*) FROM call_log WHERE op IN "
                          "('set_volume_setting', 'refresh_space')"),
              "0\n");
    // The other volume can still be set.
    expect_output(s.run({"volset", "Vol2", "1", "0"}), "");
    EXPECT_EQ(s.sim.query("SELECT volume_type, state FROM volumes ORDER BY rowid"),
              "0|0\n2|1\n");
}

TEST(Faults, TierThatCannotBeBoundKeepsItsSpaceData) {
    Server s;
    s.sim.add_fault("tier_init", kt::uuid(1));
    std::string out = "Recycle --ch01-- data ...\n";
    for (const char* label : {"NR", "AR"}) {
        for (int stream = 0; stream < 5; ++stream) {
            bool listed = label == std::string("NR") && (stream == 1 || stream == 2);
            out += std::string("Initial Tier to process failure.\n\t[") + label + " S0" +
                   std::to_string(stream) + "] " +
                   (listed ? "Success.\n" : "Can not find time period.\n");
        }
    }
    expect_output(s.run({"volclean", "0"}), out + "Recycle process done.\n");
    EXPECT_TRUE(s.sim.exists(s.old_folder(s.fsu1)));   // Main's tier was not bound
    EXPECT_FALSE(s.sim.exists(s.old_folder(s.fsu2)));  // Spare's was
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu1)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu2)));
}

TEST(Faults, UnitThatCannotBeBoundKeepsItsVolumeData) {
    Server s;
    s.sim.add_fault("unit_init", kt::uuid(11));
    const std::string leak =
        "Size lost 1000 MB over 50 MB(%5) is not resonable. Start to recycle volume using space "
        "...\n";
    expect_output(s.run({"autoclean"}),
                  "Volume [Vol1] total size 0 GB(1000 MB), used 0 MB(preallocate_remain 0 MB).\n" +
                      // Channel 0's NR S01 and S02 and channel 1's AR S03.
                      leak + "Initial Unit to process failure.\n" +
                      "Initial Unit to process failure.\n" + "Initial Unit to process failure.\n" +
                      "Volume [Vol2] total size 0 GB(1000 MB), used 0 MB(preallocate_remain 0 "
                      "MB).\n" +
                      leak + "Volume space leak detected count: 2\nrecycle check process done.\n");
    EXPECT_TRUE(s.sim.exists(s.old_folder(s.fsu1)));
    EXPECT_FALSE(s.sim.exists(s.old_folder(s.fsu2)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu1)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu2)));
}

TEST(Faults, ChannelConfigurationFailureEndsSpaceinfoAfterTheChannelsBefore) {
    const std::string first_channel =
        "Space: Main uuid: [" + kt::uuid(1) + "]\n\n" + "channel: " + kt::sid(1) + "\n" +
        "    storage_id: " + kt::storage_id(1) + "\n" +
        "    Normal total days: 1\n        day[0] = 2024-03-10\n    Alarm total days: 0\n" +
        "    Normal recording size: 100(MB)\n    Alarm recording size: 0(MB)\n" +
        "    All recording size: 100(MB)\n\n" + "channel: " + kt::sid(2) + "\n" +
        "    storage_id: " + kt::storage_id(2) + "\n";
    const struct {
        long long result;
        std::string message;
        std::string logged;
    } cases[] = {
        {-1, "Error TTimeLineInfo call create_channel_configuration ret=-1\n",
         "Error TTimeLineInfo call create_channel_configuration ret=-1\n"},
        {7, "Error TTimeLineInfo call create_channel_configuration ret=7\n",
         "Error TTimeLineInfo call create_channel_configuration ret=7\n"},
        {0, "storage_channel.create_channel_session fail!!\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.result);
        Server s;
        s.sim.add_fault("create_channel_configuration", "1", c.result);
        const std::string log = s.sim.path("debug.log");
        expect_output(s.run({"spaceinfo", "Main"}, {"ORN_LOG_FILE=" + log}),
                      first_channel + c.message);
        std::ifstream in(log);
        std::stringstream logged;
        logged << in.rdbuf();
        EXPECT_EQ(logged.str(), c.logged);
    }
}

}  // namespace
