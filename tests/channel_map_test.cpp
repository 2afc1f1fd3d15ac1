// voluse and volchn against the plug-and-play service.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::SimServer;

kt::Volume volume(int n, const std::string& path, long long volume_no) {
    return kt::volume_row(n, 100, path, volume_no);
}

const std::string kLongName(200, 'L');

// Rec1 and the later Rec2 both report channel 4; a volume without "share/",
// one with a long name, one reporting ids beyond the table.
void add_mapped_volumes(SimServer& s) {
    s.add_volume(volume(1, "share/Rec1", 1));
    s.add_volume(volume(2, "mnt/raw", 9));
    s.add_volume(volume(3, "share/Rec2", 2));
    s.add_volume(volume(4, "share/" + kLongName, 7));
    s.add_volume(volume(5, "share/Odd", 8));
    s.add_volume(volume(6, "share/Rec3", 3));
    const std::pair<int, long long> reports[] = {
        {1, 0}, {1, 4}, {9, 6}, {2, 4}, {2, 1}, {7, 7}, {8, 32}, {8, 4294967295LL},
        {8, 31}, {50, 10}};
    for (const auto& r : reports) s.add_volume_channel(r.first, r.second, kt::sid(r.second % 100));
}

std::string voluse_lines(const std::vector<std::pair<int, std::string>>& named) {
    std::vector<std::string> slots(32);
    for (const auto& n : named) slots[n.first] = n.second;
    std::string out;
    for (int i = 0; i < 32; ++i) {
        char number[8];
        snprintf(number, sizeof(number), "%02d", i + 1);
        out += "ch" + std::string(number) + " volume=[" + slots[i] + "]\n";
    }
    return out;
}

TEST(Voluse, InvertsTheServiceAnswersAndTheLastVolumeWins) {
    SimServer s;
    expect_output(s.run({"voluse", "-1"}), voluse_lines({}));
    add_mapped_volumes(s);
    expect_output(s.run({"voluse", "-1"}),
                  voluse_lines({{0, "Rec1"}, {1, "Rec2"}, {4, "Rec2"}, {6, "VolName_9"},
                                {7, std::string(127, 'L')}, {31, "Odd"}}));
    const std::pair<const char*, const char*> single[] = {
        {"0", "ch01 volume=[Rec1]\n"}, {"abc", "ch01 volume=[Rec1]\n"},
        {"4", "ch05 volume=[Rec2]\n"}, {"31", "ch32 volume=[Odd]\n"},
        {"10", "ch11 volume=[]\n"},    {"32", ""},
        {"-2", ""},                    {"4294967296", "ch01 volume=[Rec1]\n"},
    };
    for (const auto& c : single) {
        SCOPED_TRACE(c.first);
        expect_output(s.run({"voluse", c.first}), c.second);
    }
}

TEST(Voluse, AsksAboutEveryVolumeAndReleasesTheServiceFirst) {
    SimServer s;
    s.add_volume(volume(1, "share/Rec1", 1));
    s.add_volume(volume(3, "share/Rec2", -4));
    s.enable_trace();
    expect_output(s.run({"voluse", "33"}), "");
    EXPECT_EQ(s.call_log(),
              "create_storage_setting {} NULL\n"
              "create_plug_play_service {} 0\n"
              "get_volume_list {} 0\n"
              "get_volume_channel_list {\"volume_no\":1,\"field_1092\":0} 0\n"
              "get_volume_channel_list {\"volume_no\":-4,\"field_1092\":0} 0\n"
              "destroy_plug_play_service {} 0\n"
              "destroy_storage_setting {} NULL\n"
              "~COrnStorageDaemon {} NULL\n"
              "~COrnStorage {} NULL\n");
}

TEST(Volchn, SortsByUnsignedChannelIdAndNumbersTheLines) {
    SimServer s;
    s.add_volume(volume(1, "share/Rec1", 1));
    for (long long ch : {5LL, 4294967295LL, 0LL, 2147483648LL, 3LL, 0LL}) s.add_volume_channel(1, ch);
    s.add_volume_channel(2, 1);  // another volume's
    expect_output(s.run({"volchn", "Rec1"}),
                  "[01] uses channel[01]\n[02] uses channel[01]\n[03] uses channel[04]\n"
                  "[04] uses channel[06]\n[05] uses channel[-2147483647]\n[06] uses channel[00]\n");
}

TEST(Volchn, UnknownVolumeAndVolumeWithoutChannels) {
    SimServer s;
    expect_output(s.run({"volchn", "Rec1"}), "Cannot fine volume [Rec1]\n");
    add_mapped_volumes(s);
    s.enable_trace();
    for (const char* name : {"Rec", "rec1", "VolName_9", "Rec1 "}) {
        SCOPED_TRACE(name);
        expect_output(s.run({"volchn", name}), "Cannot fine volume [" + std::string(name) + "]\n");
    }
    EXPECT_EQ(s.call_count("get_volume_channel_list"), 0);
    expect_output(s.run({"volchn", "Rec3"}), "NO channel using volume [Rec3]\n");
    expect_output(s.run({"volchn", "Odd"}),
                  "[01] uses channel[32]\n[02] uses channel[33]\n[03] uses channel[00]\n");
}

}  // namespace
