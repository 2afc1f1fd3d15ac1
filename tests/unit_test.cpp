// Helpers whose faults no command line can show.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "commands.h"

namespace {

// Times in milliseconds never reach seconds without a local broken-down
// form, so only a direct call shows the fixed text (never stale bytes).
TEST(TimeToText, TimeWithoutLocalFormIsAFixedText) {
    setenv("TZ", "UTC", 1);
    tzset();
    const std::pair<int64_t, const char*> cases[] = {
        {INT64_MAX, "[invalid time]"},
        {INT64_MIN, "[invalid time]"},
    };
    for (const auto& c : cases) {
        char out[256];
        std::memset(out, 'Z', sizeof(out));
        time_to_text(c.first, out);
        EXPECT_STREQ(out, c.second) << c.first;
    }
}

}  // namespace
