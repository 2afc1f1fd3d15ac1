// spacelist output and the text helpers it shares with the volume commands.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "sim_server.h"

namespace {

using kt::SimServer;

struct StatusCase {
    uint32_t status;
    int32_t spare_status;
    const char* text;
};

TEST(SpaceStatusText, EveryCodeIsPaddedTo25) {
    const StatusCase cases[] = {
        {0, 0, "Normal                   "},    {0, -3, "Normal                   "},
        {0, 1, "Normal(With Spare)       "},    {1, 5, "Allocating               "},
        {2, 0, "Deleting                 "},    {3, 0, "Expanding                "},
        {4, 0, "UNKNOW_STATUS            "},    {5, 0, "Error                    "},
        {5, 2, "Error(Spare Error)       "},    {6, 0, "Warning                  "},
        {7, 0, "Spare Enabled(With Spare)"},    {8, 1, "Warning(Spare Error)     "},
        {9, 0, "Normal(Spare Error)      "},    {10, 0, "UNKNOW_STATUS            "},
        {0xFFFFFFFFu, 1, "UNKNOW_STATUS            "},
    };
    for (const StatusCase& c : cases) {
        char out[26];
        std::memset(out, 'Z', sizeof(out));
        space_status_text(c.status, c.spare_status, out);
        EXPECT_STREQ(out, c.text) << "status " << c.status << " spare " << c.spare_status;
    }
}

TEST(VolumeStateText, EveryCodeIsPaddedTo19) {
    const std::pair<int32_t, const char*> cases[] = {
        {0, "ACTIVE             "},      {1, "STANDBY            "},
        {2, "NOT_MOUNTED        "},      {3, "STANDBY_NOT_MOUNTED"},
        {4, "CREAT_SHARE_FOLDERS"},      {5, "VOL_OVER_THRESHOLD "},
        {6, "REMOVING_VOLUME    "},      {7, "UNKNOW_ERROR       "},
        {8, ""},                         {9, "UNKNOW_STATUS      "},
        {-1, "UNKNOW_STATUS      "},
    };
    for (const auto& c : cases) {
        char out[20];
        std::memset(out, 'Z', sizeof(out));
        volume_state_text(c.first, out);
        EXPECT_STREQ(out, c.second) << "state " << c.first;
    }
}

TEST(StripSharePrefix, TakesTheRestAfterTheFirstShare) {
    const std::pair<const char*, const char*> cases[] = {
        {"/share/Vol1", "Vol1"},
        {"/mnt/share/a/b", "a/b"},
        {"/share/x/share/y", "x/share/y"},
        {"/Share/Vol1", "keep"},
        {"/mnt/shares", "keep"},
        {"share/", ""},
    };
    for (const auto& c : cases) {
        char name[128] = "keep";
        strip_share_prefix(c.first, name);
        EXPECT_STREQ(name, c.second) << c.first;
    }
    // A rest of 128 characters or more is cut to 127.
    std::string long_path = "/share/" + std::string(300, 'n');
    char name[128];
    std::memset(name, 'Z', sizeof(name));
    strip_share_prefix(long_path.c_str(), name);
    EXPECT_EQ(std::string(name), std::string(127, 'n'));
}

TEST(Spacelist, PrintsEverySpaceInListOrder) {
    SimServer server;
    kt::expect_output(server.run({"spacelist"}), "");
    server.add_space(kt::space_row(1, "Main", 101, 10240, 2560));
    server.add_space(kt::space_row(2, "Spare pool", 102, 1535, 1, 0, 1));
    server.add_space(kt::space_row(3, "Broken", 103, -1535, 7, 7));
    server.add_space(kt::space_row(4, "Odd", 104, 2048, 3072, 12));
    kt::expect_output(
        server.run({"spacelist"}),
        "Space count: 4\n"
        "[01] [Main], total size: 10 GB, used: 2560 MB, use 25.00% [Normal                   ]\n"
        "[02] [Spare pool], total size: 1 GB, used: 1 MB, use 0.07% [Normal(With Spare)       ]\n"
        "[03] [Broken], total size: -1 GB, used: 7 MB, use -0.46% [Spare Enabled(With Spare)]\n"
        "[04] [Odd], total size: 2 GB, used: 3072 MB, use 150.00% [UNKNOW_STATUS            ]\n"
        "\n");
}

TEST(Spacelist, ZeroTotalAndHugeCountsAndLongNames) {
    SimServer server;
    server.add_space(kt::space_row(1, "Empty", 101));
    server.add_space(kt::space_row(2, "Full", 102, 0, 5));
    // A 512-character name fills its field with no terminator.
    server.add_space(kt::space_row(3, std::string(512, 'N'), 103, 1024));
    for (int i = 4; i <= 100; ++i)
        server.add_space(kt::space_row(i, "s" + std::to_string(i), 100 + i, 1024, 512, 1));
    kt::RunResult r = server.run({"spacelist"});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 16), "Space count: 100");
    for (const std::string& line : std::vector<std::string>{
             "[01] [Empty], total size: 0 GB, used: 0 MB, use -nan% [",
             "[02] [Full], total size: 0 GB, used: 5 MB, use inf% [",
             "[03] [" + std::string(512, 'N') + "], total size: 1 GB",
             "[100] [s100], total size: 1 GB, used: 512 MB, use 50.00% [Allocating"})
        EXPECT_NE(r.out.find("\n" + line), std::string::npos) << line;
}

}  // namespace
