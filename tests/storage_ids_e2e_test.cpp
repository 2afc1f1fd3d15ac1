// nullid and recoverid run against simulated servers: order of the walk,
// failure lines, result texts and the repair left in the database.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::SimServer;

const long long kMinute = 60 * 1000;
const long long kHour = 60 * kMinute;

TEST(StorageIds, NoChannelSlotsAtAll) {
    SimServer server;
    expect_output(server.run({"nullid", "-1"}), "No channel found.\n");
    expect_output(server.run({"recoverid", "-1"}), "No channel found.\n");
}

// ch01 null periods in several queries, ch10 behind a failed query, a slot
// without a channel and a channel without a session.
struct WalkServer {
    SimServer server;
    long long t = kt::local_ms(2024, 3, 5, 7, 8, 9);

    WalkServer() {
        server.enable_trace();
        server.add_channel(0, kt::sid(1));
        server.add_channel(1, std::string(32, '9'));
        server.add_channel(9, kt::sid(10));
        server.add_channel(2, kt::sid(3));
        null_period(0, 4, 2, t + 2 * kHour, "A");
        null_period(0, 4, 1, t + 5 * kHour, "B");
        null_period(0, 4, 1, t + kHour, "C");
        null_period(0, 4, 1, t + kHour, "D", kHour);  // equal start, later row
        server.add_period(kt::period_row(0, 4, 1, t, t + 1, kt::Value(kt::storage_id(1)), "kept"));
        // Null by its first byte alone.
        server.add_period(kt::period_row(0, 4, 1, t + 3 * kHour, t + 3 * kHour,
                                         kt::Value::blob(std::string("\0ab", 3)), "F"));
        null_period(0, 1, 4, t, "G");
        null_period(0, 1, 1, t + 10 * kHour, "H");
        null_period(0, 2, 1, t, "other type");
        null_period(0, 4, 5, t, "other stream");
        null_period(0, 4, 1, kt::local_ms(2999, 1, 1, 0), "future");
        null_period(1, 4, 1, t, "empty slot");
        null_period(9, 1, 3, t, "ch10");
        null_period(2, 4, 1, t, "no session");
        server.add_fault("query_time_periods", "9:4:1");
        server.add_fault("create_channel_session", "2");
    }
    void null_period(long long ch, long long type, long long stream, long long start,
                     const std::string& key, long long length = 59999) {
        server.add_period(
            kt::period_row(ch, type, stream, start, start + length, kt::Value::null(), key));
    }
};

const char* const kWalkOutput =
    "ch01 list:\n"
    "\t[NR S01] [2024-3-05 08:08:09]-[2024-3-05 08:09:08]\n"
    "\t[NR S01] [2024-3-05 08:08:09]-[2024-3-05 09:08:09]\n"
    "\t[NR S01] [2024-3-05 10:08:09]-[2024-3-05 10:08:09]\n"
    "\t[NR S01] [2024-3-05 12:08:09]-[2024-3-05 12:09:08]\n"
    "\t[NR S02] [2024-3-05 09:08:09]-[2024-3-05 09:09:08]\n"
    "\t[AR S01] [2024-3-05 17:08:09]-[2024-3-05 17:09:08]\n"
    "\t[AR S04] [2024-3-05 07:08:09]-[2024-3-05 07:09:08]\n"
    "ch10 [NR S01] retrieve time period fail\n"
    "ch10 list:\n"
    "\t[AR S03] [2024-3-05 07:08:09]-[2024-3-05 07:09:08]\n";

TEST(Nullid, WalksTypesThenStreamsSortedByStart) {
    WalkServer w;
    expect_output(w.server.run({"nullid", "-1"}),
                  std::string(kWalkOutput) +
                      "\nTotal have [8] time period data has null storage id.\n");
    // The channel without a session is never queried.
    EXPECT_EQ(w.server.query("SELECT count(*) FROM call_log WHERE op = 'query_time_periods' "
                             "AND json_extract(args, '$.channel_id') = 2"),
              "0\n");
    EXPECT_EQ(w.server.call_count("destroy_channel_session"), 3);
}

TEST(Nullid, ChannelArgumentSelectsOneSlot) {
    WalkServer w;
    const std::pair<const char*, const char*> cases[] = {
        {"9", "ch10 [NR S01] retrieve time period fail\nch10 list:\n"
              "\t[AR S03] [2024-3-05 07:08:09]-[2024-3-05 07:09:08]\n"
              "\nTotal have [1] time period data has null storage id.\n"},
        {"1", "\nTotal have [0] time period data has null storage id.\n"},
        {"5", "\nTotal have [0] time period data has null storage id.\n"},
    };
    for (const auto& c : cases) expect_output(w.server.run({"nullid", c.first}), c.second);
    expect_output(w.server.run({"recoverid", "7"}),
                  "\nTotal have [0] time period data has null storage id, [0] recover success.\n");
}

// Spaces S1 (group 101) and S2 (102). The volume list starts with two
// volumes whose paths leave no room for an FSU or an hour folder, then
// volume 4 (group 109), which lies in no listed space.
struct RepairServer {
    SimServer server{"Asia/Kolkata"};
    long long t = kt::local_ms(2024, 3, 5, 7, 8, 9);
    std::string fsu[7];

    RepairServer() {
        server.add_space(kt::space_row(51, "S1", 101));
        server.add_space(kt::space_row(52, "S2", 102));
        volume(5, 101, "/" + std::string(1023, 'p'), false);
        volume(6, 101, std::string(210, 'a') + "/" + std::string(210, 'b'));
        volume(4, 109, "vol4");
        volume(1, 101, "vol1");
        volume(2, 101, "vol2");
        volume(3, 102, "vol3");
        for (int ch = 0; ch < 4; ++ch) server.add_channel(ch, kt::sid(ch + 1));
    }
    void volume(int n, int group, const std::string& path, bool make_fsu_folder = true) {
        kt::Volume v = kt::volume_row(n, group, path);
        v.make_fsu_folder = make_fsu_folder;
        fsu[n] = server.add_volume(v);
    }
    void profile(int ch, int space, int group, int volume, int id) {
        server.add_profile(
            kt::profile_row(ch, kt::sid(ch + 1), space, group, volume, kt::storage_id(id)));
    }
    // A null period of |key|; its hour folders are made on |volumes|.
    void period(int ch, int type, int stream, long long start, const std::string& key,
                std::vector<int> volumes, long long folder_ms = -1) {
        server.add_period(kt::period_row(ch, type, stream, start, start + 30 * kMinute,
                                         kt::Value::null(), key, 40));
        for (int v : volumes)
            server.make_dir(server.hour_folder(fsu[v], kt::sid(ch + 1), type, stream,
                                               folder_ms < 0 ? start : folder_ms));
    }
};

TEST(Recoverid, EveryResultTextAndTheRepairInTheDatabase) {
    RepairServer r;
    r.profile(0, 51, 101, 2, 11);
    r.profile(0, 51, 101, 1, 12);
    r.profile(0, 51, 101, 1, 13);  // same place again: never taken
    r.profile(0, 52, 102, 3, 14);
    r.profile(1, 52, 102, 3, 21);
    r.period(0, 4, 1, r.t, "first-volume", {6, 1, 2, 3});
    r.period(0, 4, 2, r.t + kHour, "on-S2", {3});
    r.period(0, 4, 2, r.t + 2 * kHour, "later-hour-only", {1}, r.t + 3 * kHour);
    r.period(0, 4, 3, r.t, "unlisted-space-first", {4, 2});
    r.period(0, 1, 1, r.t, "update-fails", {1});
    r.period(0, 1, 2, r.t, "update-claims-success", {2});
    r.server.add_period(
        kt::period_row(0, 1, 4, r.t, r.t, kt::Value(kt::storage_id(99)), "not-null"));
    r.period(1, 4, 1, r.t, "no-matching-profile", {1});
    r.period(2, 4, 1, r.t, "profiles-fail", {1});
    r.period(3, 4, 2, r.t, "no-profiles", {1});
    r.server.add_fault("update_time_period", "update-fails");
    r.server.add_fault("update_time_period", "update-claims-success", 0);
    r.server.add_fault("retrieve_storage_id_profile_list", "2");
    r.server.add_fault("query_time_periods", "2:1:1");
    r.server.add_fault("query_time_periods", "3:4:1");
    std::string before = r.server.dump_tables();
    r.server.enable_trace();

    auto line = [](const char* query, int hour, const std::string& result) {
        std::string span = "[2024-3-05 0" + std::to_string(hour) + ":08:09]-[2024-3-05 0" +
                           std::to_string(hour) + ":38:09]";
        return "\t[" + std::string(query) + "] " + span +
               (result.empty() ? "" : ", recover storage id: [" + result + "]") + "\n";
    };
    const std::string none = "no found data in volume.", update = "update time period fail.",
                      access = "data base access fail.  ";
    expect_output(r.server.run({"recoverid", "-1"}),
                  "ch01 list:\n" + line("NR S01", 7, kt::storage_id(12)) +
                      line("NR S02", 8, kt::storage_id(14)) + line("NR S02", 9, none) +
                      line("NR S03", 7, none) + line("AR S01", 7, update) +
                      line("AR S02", 7, kt::storage_id(11)) + "ch02 list:\n" +
                      line("NR S01", 7, update) + "ch03 list:\n" + line("NR S01", 7, access) +
                      "ch03 [AR S01] retrieve time period fail\n"
                      "ch04 [NR S01] retrieve time period fail\n"
                      "ch04 list:\n" + line("NR S02", 7, access) +
                      "\nTotal have [9] time period data has null storage id, [3] recover "
                      "success.\n");

    // What was repaired is no longer null; the failures still are.
    expect_output(r.server.run({"nullid", "0"}),
                  "ch01 list:\n" + line("NR S02", 9, "") + line("NR S03", 7, "") +
                      line("AR S01", 7, "") + line("AR S02", 7, "") +
                      "\nTotal have [4] time period data has null storage id.\n");

    // A place without a profile is never written.
    EXPECT_EQ(r.server.query("SELECT json_extract(args, '$.period_key') FROM call_log "
                             "WHERE op = 'update_time_period' ORDER BY seq"),
              "first-volume\non-S2\nupdate-fails\nupdate-claims-success\n");
    // Exactly the two repaired periods changed, each to its 32-byte id.
    EXPECT_EQ(r.server.query("SELECT period_key, typeof(storage_id), CAST(storage_id AS TEXT) "
                             "FROM periods WHERE storage_id IS NOT NULL AND period_key <> "
                             "'not-null' ORDER BY rowid"),
              "first-volume|blob|" + kt::storage_id(12) + "\non-S2|blob|" + kt::storage_id(14) +
                  "\n");
    r.server.exec("DELETE FROM call_log; DELETE FROM settings; UPDATE periods SET storage_id = "
                  "NULL WHERE period_key IN ('first-volume', 'on-S2');");
    EXPECT_EQ(r.server.dump_tables(), before);
}

TEST(Recoverid, CallsOfOneRepair) {
    RepairServer r;
    r.profile(0, 51, 101, 1, 12);
    r.period(0, 4, 1, r.t, "k1", {1});
    r.server.exec("DELETE FROM channels WHERE channel_id > 0;");
    r.server.enable_trace();
    long long now = r.t / 1000 + 86400;
    expect_output(r.server.run_at(now, {"recoverid", "-1"}),
                  "ch01 list:\n\t[NR S01] [2024-3-05 07:08:09]-[2024-3-05 07:38:09], recover "
                  "storage id: [" + kt::storage_id(12) + "]\n"
                  "\nTotal have [1] time period data has null storage id, [1] recover success.\n");
    auto q = [now](int type, int stream) {
        return "query_time_periods {\"channel_id\":0,\"record_type\":" + std::to_string(type) +
               ",\"stream\":" + std::to_string(stream) + ",\"from_ms\":0,\"to_ms\":" +
               std::to_string(now * 1000) + ",\"a\":0,\"b\":1,\"c\":1} 0\n";
    };
    std::string expected = "create_storage_setting {} NULL\n"
                           "get_channel_setting_list {\"flag\":1} 0\n"
                           "create_channel_session {\"channel_id\":0,\"sid\":\"" + kt::sid(1) +
                           "\"} 0\n" + q(4, 1) +
                           "retrieve_storage_id_profile_list {\"channel_id\":0} 0\n"
                           "get_volume_list {} 0\n"
                           "get_space_list {} 0\n"
                           "update_time_period {\"channel_id\":0,\"period_key\":\"k1\","
                           "\"storage_id\":\"" + kt::storage_id(12) + "\"} 0\n" +
                           q(4, 2) + q(4, 3) + q(4, 4) + q(1, 1) + q(1, 2) + q(1, 3) + q(1, 4) +
                           "destroy_channel_session {} 0\n"
                           "destroy_storage_setting {} NULL\n"
                           "~COrnStorageDaemon {} NULL\n"
                           "~COrnStorage {} NULL\n";
    EXPECT_EQ(r.server.call_log(), expected);
}

}  // namespace
