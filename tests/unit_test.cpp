// What no command line can show: a helper's unreachable branch, and one library call
// timed against a lock.
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

// Times in milliseconds never reach seconds without a local broken-down form,
// so only a direct call shows the fixed text (never stale bytes).
TEST(TimeToText, TimeWithoutLocalFormIsAFixedText) {
    for (int64_t ms : {INT64_MAX, INT64_MIN}) {
        char out[256];
        std::memset(out, 'Z', sizeof(out));
        time_to_text(ms, out);
        EXPECT_STREQ(out, "[invalid time]") << ms;
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
