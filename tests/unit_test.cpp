// What no command line can show: the walk's answer to a library that leaves stale
// periods, and one library call timed against a lock.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "channel.h"
#include "commands.h"
#include "storage_setting.h"

namespace {

// A library that leaves the last stream's periods in the list when a query
// fails: the walk hands on none of them.
struct StaleSession : IFrameChannelSession {
    int result = 0;
    int query_time_periods(int, int, long long, long long, std::list<time_period>& periods, int,
                           int, int) override {
        periods.emplace_back();
        return result;
    }
};

TEST(PeriodWalk, FailedQueryHandsOnNoPeriods) {
    StaleSession session;
    for (int result : {0, -1, 5}) {
        std::list<time_period> periods(1);
        session.result = result;
        EXPECT_EQ(query_stream_periods(session, 4, 1, 1000, periods), result);
        EXPECT_EQ(periods.size(), result == 0 ? 2u : 0u) << result;
    }
}

// The library's connection against this test's own, which holds the lock: a
// lock released within the wait is waited for, one held past it fails the query
// (never an empty success).
TEST(Library, LockIsWaitedForThenFailsTheQuery) {
    char folder[] = "/tmp/kelvo-lock-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/storage.db";
    std::stringstream schema;
    schema << std::ifstream(KELVO_SCHEMA).rdbuf();
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    auto exec = [db](const std::string& sql) { sqlite3_exec(db, sql.c_str(), 0, 0, 0); };
    exec(schema.str() + "INSERT INTO periods VALUES (0, 4, 1, 0, 1, NULL, 'a', 0);");
    setenv("ORN_STORAGE_DB", path.c_str(), 1);
    COrnStorage storage;  // opens the database
    IStorageSetting* setting = nullptr;
    storage.create_storage_setting(&setting);
    COrnChannel channel_factory;
    IFrameChannelSession* session = nullptr;
    ASSERT_EQ(channel_factory.create_channel_session(channel_sid(), &session), 0);
    std::list<time_period> periods;
    exec("BEGIN EXCLUSIVE");
    std::thread release([&] { sleep(1), exec("COMMIT"); });
    EXPECT_EQ(session->query_time_periods(4, 1, 0, LLONG_MAX, periods, 0, 1, 1), 0);
    EXPECT_EQ(periods.size(), 1u);
    release.join();
    exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(session->query_time_periods(4, 1, 0, LLONG_MAX, periods, 0, 1, 1), -1);
    exec("COMMIT");
    channel_factory.destroy_channel_session(&session);
    storage.destroy_storage_setting(&setting);
    sqlite3_close(db);
    std::filesystem::remove_all(folder);
}

}  // namespace
