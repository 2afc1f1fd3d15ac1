// Time texts of period lines and the library's hour-folder paths.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "commands.h"
#include "sim_server.h"

namespace {

using kt::SimServer;

struct TimeCase {
    const char* tz;
    int64_t seconds;
    const char* text;
};

TEST(TimeToText, LocalTimeWithUnpaddedMonth) {
    const TimeCase cases[] = {
        {"UTC", 1609459200, "[2021-1-01 00:00:00]"},
        {"UTC", 1640995199, "[2021-12-31 23:59:59]"},
        {"UTC", 1614928089, "[2021-3-05 07:08:09]"},
        {"UTC", 0, "[1970-1-01 00:00:00]"},
        {"UTC", -1, "[1969-12-31 23:59:59]"},
        {"Asia/Kolkata", 1609459200, "[2021-1-01 05:30:00]"},
        {"Asia/Kolkata", 1640975399, "[2021-12-31 23:59:59]"},
        // No broken-down form: a fixed text, never stale bytes.
        {"UTC", INT64_MAX, "[invalid time]"},
        {"UTC", INT64_MIN, "[invalid time]"},
    };
    for (const TimeCase& c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        char out[256];
        std::memset(out, 'Z', sizeof(out));
        time_to_text(c.seconds, out);
        EXPECT_STREQ(out, c.text) << c.tz << " " << c.seconds;
    }
}

stream_info make_stream(const std::string& sid, uint32_t record_type, uint32_t stream) {
    stream_info info;
    info.channel_id = 3;
    std::memcpy(info.sid, sid.data(), 32);
    info.record_type = record_type;
    info.stream = stream;
    return info;
}

TEST(MakeHourFolderFullPath, LocalHourOfFlooredSeconds) {
    SimServer server("Asia/Kolkata");
    stream_info info = make_stream(kt::sid(7), 4, 2);
    info.zero[0] = info.zero[1] = 'X';  // the sid is taken as exactly 32 characters
    const std::pair<long long, const char*> cases[] = {
        {kt::local_ms(2024, 3, 5, 7, 59, 59) + 999, "20240305/07"},
        {kt::local_ms(2024, 3, 5, 8), "20240305/08"},
        {-19800LL * 1000 - 1, "19691231/23"},
    };
    for (const auto& c : cases) {
        char out[512];
        EXPECT_EQ(make_hour_folder_full_path(out, "/f", info, c.first), 0);
        EXPECT_EQ(std::string(out), "/f/" + kt::sid(7) + "/4/2/" + c.second);
    }
}

TEST(MakeHourFolderFullPath, NeverWritesPast512Bytes) {
    SimServer server;
    stream_info info = make_stream(kt::sid(1), 1, 4);
    // 462 + 49 characters fit exactly; one more does not.
    for (size_t length : {462u, 463u, 2000u}) {
        std::string fsu(length, 'd');
        char out[600];
        std::memset(out, 'Z', sizeof(out));
        int result = make_hour_folder_full_path(out, fsu.c_str(), info, 0);
        EXPECT_EQ(std::string(out + 512, 88), std::string(88, 'Z'));
        if (length == 462) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(std::strlen(out), 511u);
        } else {
            EXPECT_EQ(result, -1);
            EXPECT_STREQ(out, "");
        }
    }
}

}  // namespace
