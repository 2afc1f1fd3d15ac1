// Every failure the storage library can report, each on a server where it
// matters: the command prints its message for it, goes on with the rest, and
// loses nothing it was not asked to remove.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
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

// Spaces Main (volume Vol1) and Spare (volume Vol2); channels 0 and 1 with
// profiles for Vol1. Channel 0 has a filed period (a0, NR S01) and null ones
// a1 (NR S01) and a2 (NR S02); channel 1 has the null b1 (AR S03). The null
// periods' first hours lie on Vol1. Each volume holds an hour folder of
// channel 0's NR S01 before its period (old) and the period's own (kept).
struct Server {
    SimServer sim;
    std::string fsu1, fsu2;

    Server() {
        sim.add_space(kt::space_row(1, "Main", 101, 2000));
        sim.add_space(kt::space_row(2, "Spare", 102, 1000));
        // With nothing used nor reserved, every volume leaks.
        fsu1 = sim.add_volume(kt::volume_row(11, 101, "share/Vol1", 1, 1000));
        fsu2 = sim.add_volume(kt::volume_row(12, 102, "share/Vol2", 2, 1000));
        sim.add_channel(0, kt::sid(1));
        sim.add_channel(1, kt::sid(2));
        sim.add_profile(kt::profile_row(0, kt::sid(1), 1, 101, 11, kt::storage_id(1)));
        sim.add_profile(kt::profile_row(1, kt::sid(2), 1, 101, 11, kt::storage_id(2)));
        sim.add_volume_channel(1, 0, kt::sid(1));
        const kt::Value stored = kt::Value::blob(kt::storage_id(1)), none = kt::Value::null();
        sim.add_period(kt::period_row(0, 4, 1, at(3, 10, 7), at(3, 10, 8), stored, "a0", 100));
        sim.add_period(kt::period_row(0, 4, 1, at(3, 10, 8), at(3, 10, 9), none, "a1", 100));
        sim.add_period(kt::period_row(0, 4, 2, at(3, 11, 10), at(3, 11, 10, 30), none, "a2", 100));
        sim.add_period(kt::period_row(1, 1, 3, at(3, 12, 1), at(3, 12, 1, 30), none, "b1", 100));
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
    // The storage id of a period as stored ("NULL" for none).
    std::string storage_id_of(const std::string& key) {
        return sim.query("SELECT ifnull(CAST(storage_id AS TEXT), 'NULL') FROM periods "
                         "WHERE period_key = '" + key + "'");
    }
};

const std::string kNull = "NULL\n";
std::string filed(int n) { return kt::storage_id(n) + "\n"; }

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

// volclean 0: a line for each stream, "Success." for those in |listed|
// ("NR S01"...), each after |before|.
std::string volclean_out(const std::string& before, const std::vector<std::string>& listed) {
    std::string out = "Recycle --ch01-- data ...\n";
    for (const char* label : {"NR", "AR"}) {
        for (int stream = 0; stream < 5; ++stream) {
            std::string name = label + std::string(" S0") + std::to_string(stream);
            bool found = std::find(listed.begin(), listed.end(), name) != listed.end();
            out += before + "\t[" + name + "] " +
                   (found ? "Success.\n" : "Can not find time period.\n");
        }
    }
    return out + "Recycle process done.\n";
}

// autoclean: both volumes leak; |after_vol1| follows Vol1's lines.
std::string autoclean_out(const std::string& after_vol1) {
    std::string volumes[2];
    for (int i = 0; i < 2; ++i)
        volumes[i] = "Volume [Vol" + std::to_string(i + 1) + "] total size 0 GB(1000 MB), used 0 "
                     "MB(preallocate_remain 0 MB).\nSize lost 1000 MB over 50 MB(%5) is not "
                     "resonable. Start to recycle volume using space ...\n";
    return volumes[0] + after_vol1 + volumes[1] +
           "Volume space leak detected count: 2\nrecycle check process done.\n";
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
        expect_output(s.run(args), "Query storage settings faiure.\n");
        EXPECT_EQ(s.sim.dump_tables(), data);
        EXPECT_EQ(s.sim.tree(), tree);
    }
}

// The handler is never called and the storage setting is still released.
TEST(Faults, WithoutPlugAndPlayServiceTheVolumeChannelsAreNotAsked) {
    Server s;
    s.sim.enable_trace();
    s.sim.add_fault("create_plug_play_service", "*", -3);
    for (const auto& args : std::vector<std::vector<std::string>>{{"voluse", "-1"},
                                                                   {"volchn", "Vol1"}}) {
        s.sim.exec("DELETE FROM call_log;");
        expect_output(s.run(args), "Query plug and play service failure.\n");
        EXPECT_EQ(s.sim.call_log(),
                  "create_storage_setting {} NULL\ncreate_plug_play_service {} -3\n"
                  "destroy_storage_setting {} NULL\n~COrnStorageDaemon {} NULL\n"
                  "~COrnStorage {} NULL\n");
    }
}

TEST(Faults, ChannelWithoutSessionIsSkippedEverywhere) {
    Server s;
    s.sim.add_fault("create_channel_session", "0");

    expect_output(s.run({"nullid", "-1"}),
                  "ch02 list:\n" + std::string(kB1) + "\n" +
                      "\nTotal have [1] time period data has null storage id.\n");
    expect_output(s.run({"recoverid", "-1"}),
                  "ch02 list:\n" + recovered(kB1, 2) + recover_total(1, 1));
    EXPECT_EQ(s.storage_id_of("a1"), kNull);
    EXPECT_EQ(s.storage_id_of("a2"), kNull);
    EXPECT_EQ(s.storage_id_of("b1"), filed(2));

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
        expect_output(s.run({"nullid", "-1"}), c.nullid_out);
        expect_output(s.run({"recoverid", "-1"}), c.recoverid_out);
        EXPECT_EQ(s.storage_id_of("a1"), c.a1_recovered ? filed(1) : kNull);
    }
}

TEST(Faults, FailedPeriodQueryMakesUnitRecyclingSkipTheStream) {
    Server s;
    s.sim.add_fault("query_time_periods", "0:4:1");
    expect_output(s.run({"autoclean"}), autoclean_out(""));
    for (const std::string& fsu : {s.fsu1, s.fsu2}) {
        EXPECT_TRUE(s.sim.exists(s.old_folder(fsu)));
        EXPECT_TRUE(s.sim.exists(s.kept_folder(fsu)));
    }
}

// A failed query reads as "no period": volclean hands the tier the stream's
// last 30 days, and the library still keeps the hours of the listed periods.
TEST(Faults, FailedPeriodQueryLeavesVolcleanOnlyTheUnlistedHours) {
    Server s;
    s.sim.add_fault("query_time_periods", "0:4:1");
    expect_output(s.run({"volclean", "0"}), volclean_out("", {"NR S02"}));
    for (const std::string& fsu : {s.fsu1, s.fsu2}) {
        EXPECT_FALSE(s.sim.exists(s.old_folder(fsu)));
        EXPECT_TRUE(s.sim.exists(s.kept_folder(fsu)));
    }
    EXPECT_TRUE(s.sim.exists(s.sim.hour_folder(s.fsu1, kt::sid(1), 4, 1, at(3, 10, 8))));
}

TEST(Faults, ProfilesThatCannotBeReadLeaveThePeriodsNull) {
    for (long long result : {-1LL, 0LL}) {
        SCOPED_TRACE(result);
        Server s;
        s.sim.add_fault("retrieve_storage_id_profile_list", "0", result);
        expect_output(s.run({"recoverid", "-1"}),
                      "ch01 list:\n" + failed(kA1, "data base access fail.  ") +
                          failed(kA2, "data base access fail.  ") + "ch02 list:\n" +
                          recovered(kB1, 2) + recover_total(3, 1));
        EXPECT_EQ(s.storage_id_of("a1"), kNull);
        EXPECT_EQ(s.storage_id_of("a2"), kNull);
        EXPECT_EQ(s.storage_id_of("b1"), filed(2));
    }
}

// A result of 0 claims success without writing: counted, yet still null.
TEST(Faults, FailedPeriodUpdateIsReportedAndTheOthersGoOn) {
    const std::pair<long long, std::string> cases[] = {
        {-1, failed(kA1, "update time period fail.") + recovered(kA2, 1) + "ch02 list:\n" +
                 recovered(kB1, 2) + recover_total(3, 2)},
        {0, recovered(kA1, 1) + recovered(kA2, 1) + "ch02 list:\n" + recovered(kB1, 2) +
                recover_total(3, 3)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        Server s;
        s.sim.add_fault("update_time_period", "a1", c.first);
        expect_output(s.run({"recoverid", "-1"}), "ch01 list:\n" + c.second);
        EXPECT_EQ(s.storage_id_of("a1"), kNull);
        EXPECT_EQ(s.storage_id_of("a2"), filed(1));
        expect_output(s.run({"nullid", "0"}),
                      "ch01 list:\n" + std::string(kA1) +
                          "\n\nTotal have [1] time period data has null storage id.\n");
    }
}

TEST(Faults, UnreadableVolumeSettingIsNotWrittenBack) {
    Server s;
    s.sim.enable_trace();
    s.sim.add_fault("get_volume_setting", kt::uuid(11), -5);
    const std::string volumes = s.sim.query("SELECT * FROM volumes");
    expect_output(s.run({"volset", "Vol1", "1", "0"}), "Cannot read setting of volume [Vol1]\n");
    EXPECT_EQ(s.sim.query("SELECT * FROM volumes"), volumes);
    EXPECT_EQ(s.sim.call_count("set_volume_setting") + s.sim.call_count("refresh_space"), 0);
    // The other volume can still be set.
    expect_output(s.run({"volset", "Vol2", "1", "0"}), "");
    EXPECT_EQ(s.sim.query("SELECT volume_type, state FROM volumes ORDER BY rowid"),
              "0|0\n2|1\n");
}

TEST(Faults, TierThatCannotBeBoundKeepsItsSpaceData) {
    Server s;
    s.sim.add_fault("tier_init", kt::uuid(1));
    expect_output(s.run({"volclean", "0"}),
                  volclean_out("Initial Tier to process failure.\n", {"NR S01", "NR S02"}));
    EXPECT_TRUE(s.sim.exists(s.old_folder(s.fsu1)));   // Main's tier was not bound
    EXPECT_FALSE(s.sim.exists(s.old_folder(s.fsu2)));  // Spare's was
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu1)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu2)));
}

TEST(Faults, UnitThatCannotBeBoundKeepsItsVolumeData) {
    Server s;
    s.sim.add_fault("unit_init", kt::uuid(11));
    // Channel 0's NR S01 and S02 and channel 1's AR S03.
    const std::string failure = "Initial Unit to process failure.\n";
    expect_output(s.run({"autoclean"}), autoclean_out(failure + failure + failure));
    EXPECT_TRUE(s.sim.exists(s.old_folder(s.fsu1)));
    EXPECT_FALSE(s.sim.exists(s.old_folder(s.fsu2)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu1)));
    EXPECT_TRUE(s.sim.exists(s.kept_folder(s.fsu2)));
}

// The report ends at the failed channel; the error goes to the log file too,
// appended to it (a relative name is taken from where kelvo started), and the
// failed configuration is never handed back.
TEST(Faults, ChannelConfigurationFailureEndsSpaceinfoAfterTheChannelsBefore) {
    const std::string first_channel =
        "Space: Main uuid: [" + kt::uuid(1) + "]\n\n" + "channel: " + kt::sid(1) + "\n" +
        "    storage_id: " + kt::storage_id(1) + "\n" +
        "    Normal total days: 1\n        day[0] = 2024-03-10\n    Alarm total days: 0\n" +
        "    Normal recording size: 100(MB)\n    Alarm recording size: 0(MB)\n" +
        "    All recording size: 100(MB)\n\n" + "channel: " + kt::sid(2) + "\n" +
        "    storage_id: " + kt::storage_id(2) + "\n";
    const std::string error = "Error TTimeLineInfo call create_channel_configuration ret=";
    const std::pair<long long, std::string> cases[] = {  // result, last line and log entry
        {-7, error + "-7\n"}, {7, error + "7\n"}, {0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        Server s;
        s.sim.add_profile(kt::profile_row(2, kt::sid(3), 1, 101, 11, kt::storage_id(3)));
        s.sim.add_fault("create_channel_configuration", "1", c.first);
        s.sim.enable_trace();
        std::ofstream(s.sim.path("debug.log")) << "earlier\n";
        expect_output(s.run({"spaceinfo", "Main"}, {"ORN_LOG_FILE=debug.log"}),
                      first_channel +
                          (c.first ? c.second : "storage_channel.create_channel_session fail!!\n"));
        EXPECT_EQ(kt::read_file(s.sim.path("debug.log")), "earlier\n" + c.second);
        EXPECT_EQ(s.sim.call_count("log_Debug"), c.first ? 1 : 0);
        EXPECT_EQ(s.sim.query("SELECT group_concat(args) FROM call_log "
                              "WHERE op = 'destroy_channel_configuration'"),
                  "{\"channel_id\":0}\n");
    }
}

}  // namespace
