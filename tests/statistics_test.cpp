// spaceinfo: channel blocks of a space's profiles, recording days and sizes.
// Every run goes through the real binary; in the sanitizer build a day text
// or array left unfreed makes LeakSanitizer fail the status/stderr checks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_server.h"

namespace {

using kt::SimServer;

const std::string kZeroSid(32, '0');

struct Block {
    std::string sid;
    std::vector<std::string> storage_ids;
    std::vector<std::string> normal_days;
    std::vector<std::string> alarm_days;
    long long normal_mb, alarm_mb, all_mb;
};

std::string days_text(const char* label, const std::vector<std::string>& days) {
    std::string out = std::string("    ") + label + " total days: " + std::to_string(days.size()) +
                      "\n";
    for (size_t i = 0; i < days.size(); ++i)
        out += "        day[" + std::to_string(i) + "] = " + days[i] + "\n";
    return out;
}

std::string block_text(const Block& b) {
    std::string out = "channel: " + b.sid + "\n";
    for (const std::string& id : b.storage_ids) out += "    storage_id: " + id + "\n";
    out += days_text("Normal", b.normal_days);
    out += days_text("Alarm", b.alarm_days);
    out += "    Normal recording size: " + std::to_string(b.normal_mb) + "(MB)\n";
    out += "    Alarm recording size: " + std::to_string(b.alarm_mb) + "(MB)\n";
    out += "    All recording size: " + std::to_string(b.all_mb) + "(MB)\n\n";
    return out;
}

std::string space_line(const std::string& name, const std::string& uuid) {
    return "Space: " + name + " uuid: [" + uuid + "]\n\n";
}

class Spaceinfo : public ::testing::Test {
protected:
    // East of UTC, so a local date differs from the UTC date in the small hours.
    Spaceinfo() : server("Asia/Tokyo") {
        server.add_space(kt::space_row(1, "Recording", 101, 4096));
        server.add_space(kt::space_row(2, "Other", 102, 4096));
    }

    void profile(long long channel_id, const std::string& sid, const std::string& storage_id,
                 int space = 1) {
        server.add_profile(
            kt::profile_row(channel_id, sid, space, 100 + space, 200 + space, storage_id));
    }

    void period(long long channel_id, long long record_type, long long start_ms,
                const kt::Value& storage_id, long long size_mb, long long stream = 1) {
        server.add_period(kt::period_row(channel_id, record_type, stream, start_ms,
                                         start_ms + 600000, storage_id, "", size_mb));
    }

    SimServer server;
};

TEST_F(Spaceinfo, NeighbouringProfilesOfOneChannelFormOneBlock) {
    // A, A, B: one block for A with both ids, one for B.
    profile(3, kt::sid(3), kt::storage_id(31));
    profile(3, kt::sid(3), kt::storage_id(32));
    profile(3, kt::sid(3), kt::storage_id(33), 2);  // another space
    profile(3, kt::sid(3), "S-short");
    profile(5, kt::sid(5), kt::storage_id(51));

    period(3, 4, kt::local_ms(2024, 3, 1, 10), kt::storage_id(31), 100);
    period(3, 4, kt::local_ms(2024, 3, 1, 23, 30), kt::storage_id(32), 50, 2);
    period(3, 4, kt::local_ms(2024, 2, 28, 8), kt::Value::blob(kt::storage_id(32)), 7);
    period(3, 4, kt::local_ms(2024, 3, 2, 1), kt::Value::blob("S-short" + std::string(25, '\0')),
           2);
    period(3, 1, kt::local_ms(2024, 3, 2, 0, 10), kt::storage_id(31), 5);
    // Neither of these belongs to the space's ids.
    period(3, 4, kt::local_ms(2024, 3, 5, 9), kt::storage_id(33), 1000);
    period(3, 4, kt::local_ms(2024, 3, 6, 9), kt::Value::null(), 3);

    kt::expect_output(server.run({"spaceinfo", "Recording"}),
                      space_line("Recording", kt::uuid(1)) +
                          block_text({kt::sid(3),
                                      {kt::storage_id(31), kt::storage_id(32), "S-short"},
                                      {"2024-02-28", "2024-03-01", "2024-03-02"},
                                      {"2024-03-02"}, 159, 5, 164}) +
                          block_text({kt::sid(5), {kt::storage_id(51)}, {}, {}, 0, 0, 0}) +
                          "Total recording size: 164(MB)  0.16(GB)\n");
}

TEST_F(Spaceinfo, ChannelSeenAgainStartsANewBlock) {
    // Z, Z, A, B, A, Z: the head Z profiles match the initial sid and are
    // skipped; A is printed twice and counted twice; the last Z forms a block.
    profile(0, kZeroSid, kt::storage_id(1));
    profile(0, kZeroSid, kt::storage_id(2));
    profile(1, kt::sid(1), kt::storage_id(11));
    profile(2, kt::sid(2), kt::storage_id(21));
    profile(1, kt::sid(1), kt::storage_id(12));
    profile(0, kZeroSid, kt::storage_id(3));
    period(1, 4, kt::local_ms(2024, 5, 10, 12), kt::storage_id(11), 1000);
    period(1, 1, kt::local_ms(2024, 5, 11, 12), kt::storage_id(12), 24);
    period(2, 4, kt::local_ms(2024, 5, 10, 12), kt::storage_id(21), 512);
    period(0, 4, kt::local_ms(2024, 1, 1, 12), kt::storage_id(3), 10);

    Block a{kt::sid(1), {kt::storage_id(11), kt::storage_id(12)}, {"2024-05-10"}, {"2024-05-11"},
            1000, 24, 1024};
    Block b{kt::sid(2), {kt::storage_id(21)}, {"2024-05-10"}, {}, 512, 0, 512};
    Block z{kZeroSid, {kt::storage_id(1), kt::storage_id(2), kt::storage_id(3)}, {"2024-01-01"},
            {}, 10, 0, 10};
    kt::expect_output(server.run({"spaceinfo", "Recording"}),
                      space_line("Recording", kt::uuid(1)) + block_text(a) + block_text(b) +
                          block_text(a) + block_text(z) +
                          "Total recording size: 2570(MB)  2.51(GB)\n");
}

TEST_F(Spaceinfo, TotalInGigabytesIsSinglePrecision) {
    struct Case {
        long long normal_mb, alarm_mb;
        const char* total_line;
    };
    const Case cases[] = {
        // The exact quotient would print 97656.25.
        {100000000, 5, "Total recording size: 100000005(MB)  97656.26(GB)\n"},
        {-2048, 0, "Total recording size: -2048(MB)  -2.00(GB)\n"},
    };
    profile(1, kt::sid(1), kt::storage_id(11));
    for (const Case& c : cases) {
        server.exec("DELETE FROM periods;");
        period(1, 4, kt::local_ms(2024, 5, 10, 12), kt::storage_id(11), c.normal_mb);
        period(1, 1, kt::local_ms(2024, 5, 10, 13), kt::storage_id(11), c.alarm_mb);
        kt::expect_output(server.run({"spaceinfo", "Recording"}),
                      space_line("Recording", kt::uuid(1)) +
                             block_text({kt::sid(1), {kt::storage_id(11)}, {"2024-05-10"},
                                         {"2024-05-10"}, c.normal_mb, c.alarm_mb,
                                         c.normal_mb + c.alarm_mb}) +
                             c.total_line);
    }
}

TEST_F(Spaceinfo, SpaceChoice) {
    profile(1, kt::sid(1), kt::storage_id(11), 2);
    server.enable_trace();
    for (const char* name : {"recording", "Rec", "Recording ", "Recordings"}) {
        kt::expect_output(server.run({"spaceinfo", name}),
                      std::string("\nno space [") + name + "] info\n");
    }
    // Without a matching space no storage object of the command's own is made.
    EXPECT_EQ(server.call_count("COrnStorage"), 0);

    kt::expect_output(server.run({"spaceinfo", "Recording"}),
                  space_line("Recording", kt::uuid(1)) + "Total recording size: 0(MB)  0.00(GB)\n");

    server.exec("DELETE FROM spaces;");
    kt::expect_output(server.run({"spaceinfo", "Recording"}), "no space [Recording] info\n");
}

TEST_F(Spaceinfo, CallOrderOfOneChannel) {
    profile(2, kt::sid(2), kt::storage_id(21));
    profile(2, kt::sid(2), "S-short");
    server.enable_trace();
    kt::expect_output(server.run({"spaceinfo", "Recording"}),
                      space_line("Recording", kt::uuid(1)) +
                          block_text({kt::sid(2), {kt::storage_id(21), "S-short"}, {}, {}, 0, 0,
                                      0}) +
                          "Total recording size: 0(MB)  0.00(GB)\n");
    const std::string space = "\"space_uuid\":\"" + kt::uuid(1) + "\"";
    const std::string ids = "\"storage_ids\":[\"" + kt::storage_id(21) + "\",\"S-short\"]";
    EXPECT_EQ(server.call_log(),
              "create_storage_setting {} NULL\n"
              "get_space_list {} 0\n"
              "get_storage_id_profile_list {" + space + "} 0\n"
              "COrnStorage {} NULL\n"
              "create_channel_configuration {\"channel_id\":2} 0\n"
              "get_recording_days {\"channel_id\":2,\"record_type\":4,\"value\":255," + ids + "} 0\n"
              "get_recording_days {\"channel_id\":2,\"record_type\":1,\"value\":255," + ids + "} 0\n"
              "destroy_channel_configuration {\"channel_id\":2} NULL\n"
              "get_recording_size {" + space + ",\"channel_id\":2,\"record_type\":4} 0\n"
              "get_recording_size {" + space + ",\"channel_id\":2,\"record_type\":1} 0\n"
              "get_total_recording_size {" + space + ",\"channel_id\":2} 0\n"
              "~COrnStorage {} NULL\n"
              "destroy_storage_setting {} NULL\n"
              "~COrnStorageDaemon {} NULL\n"
              "~COrnStorage {} NULL\n");
}

}  // namespace
