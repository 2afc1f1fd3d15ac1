// vollist, volset, the volume look-ups and the stored volume setting.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::SimServer;
using kt::volume_row;

const char* const kRecHeader =
    "Space: Rec\n"
    "[Rec], total size: 10 GB, used: 2560 MB, use 25.00% [Normal(With Spare)       ]\n"
    "\n";

TEST(Vollist, ShowsOnlyTheFirstSpaceOfThatNameWithEveryTypeAndState) {
    SimServer s;
    s.add_space(kt::space_row(1, "Other", 101, 1024));
    s.add_space(kt::space_row(2, "Rec", 102, 10240, 2560, 0, 1));
    s.add_space(kt::space_row(3, "Rec", 103));
    s.add_volume(volume_row(40, 103, "share/SecondRec"));
    const long long states[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, -1};
    for (int i = 0; i < 11; ++i) {
        // A volume of another space before each one of Rec.
        s.add_volume(volume_row(60 + i, 101, "share/X" + std::to_string(i), 50 + i));
        std::string path = i == 3 ? "mnt/raw3" : "share/V" + std::to_string(i);
        s.add_volume(volume_row(20 + i, 102, path, i, i == 0 ? 1023 : 4096, i == 0 ? 0 : 1024,
                                i % 3, states[i]));
    }
    const std::string rest = ", total size 4 GB, used 1024 MB, use 25.00%\n";
    expect_output(s.run({"vollist", "Rec"}),
                  std::string(kRecHeader) +
                      "[01] [V0], [NORMAL] [ACTIVE             ], total size 0 GB, used 0 MB, use 0.00%\n"
                      "[02] [V1], [SPARE ] [STANDBY            ]" + rest +
                      "[03] [V2], [SPARE ] [NOT_MOUNTED        ]" + rest +
                      "[04] [VolName_3], [NORMAL] [STANDBY_NOT_MOUNTED]" + rest +
                      "[05] [V4], [SPARE ] [CREAT_SHARE_FOLDERS]" + rest +
                      "[06] [V5], [SPARE ] [VOL_OVER_THRESHOLD ]" + rest +
                      "[07] [V6], [NORMAL] [REMOVING_VOLUME    ]" + rest +
                      "[08] [V7], [SPARE ] [UNKNOW_ERROR       ]" + rest +
                      "[09] [V8], [SPARE ] []" + rest +
                      "[10] [V9], [NORMAL] [UNKNOW_STATUS      ]" + rest +
                      "[11] [V10], [SPARE ] [UNKNOW_STATUS      ]" + rest);
}

TEST(Vollist, MissingSpaceOrVolumes) {
    SimServer s;
    expect_output(s.run({"vollist", "Rec"}), "no space [Rec] info\n");
    s.add_space(kt::space_row(2, "Rec", 102, 10240, 2560, 0, 1));
    for (std::string name : {"Re", "Rec "})
        expect_output(s.run({"vollist", name}), "\nno space [" + name + "] info\n");
    const std::string none = std::string(kRecHeader) + "no find volume at space [Rec]\n";
    expect_output(s.run({"vollist", "Rec"}), none);
    s.add_volume(volume_row(10, 101, "share/Elsewhere"));
    expect_output(s.run({"vollist", "Rec"}), none);
}

// Two volumes give the name Vol1; the first in list order is the one meant.
void add_volset_volumes(SimServer& s) {
    s.add_volume(volume_row(9, 101, "mnt/raw", 3, 10, 1, 0, 0, "raw"));
    s.add_volume(volume_row(10, 102, "share/Vol1", 5, 4096, 1000, 0, 0, "it's \"first\" \xc3\xa4"));
    s.add_volume(volume_row(11, 103, "x/share/Vol1", 6, 2048, 7, 0, 0, "second"));
    s.add_volume(volume_row(12, 102, "share/Vol/ext", 7, 1, 1, 2, 1, "ext"));
}

const char* const kPreserved =
    "SELECT uuid, group_uuid, path, volume_no, total_size_mb, used_size_mb, label "
    "FROM volumes ORDER BY rowid";
const char* const kTypeState = "SELECT volume_type, state FROM volumes ORDER BY rowid";

TEST(Volset, ChangesTypeAndStateOnlyAndKeepsTheRestOfTheSetting) {
    SimServer s;
    add_volset_volumes(s);
    s.enable_trace();
    const std::string before = s.query(kPreserved);
    expect_output(s.run({"volset", "Vol1", "1", "0"}), "");
    EXPECT_EQ(s.query(kTypeState), "0|0\n2|1\n0|0\n2|1\n");
    EXPECT_EQ(s.query(kPreserved), before);
    const std::string id = "\"uuid\":\"" + kt::uuid(10) + "\"";
    EXPECT_EQ(s.call_log(),
              "create_storage_setting {} NULL\n"
              "get_volume_list {} 0\n"
              "get_volume_setting {" + id + "} 0\n"
              "set_volume_setting {" + id + ",\"volume_type\":2,\"state\":1,"
              "\"label\":\"it's \\\"first\\\" \xc3\xa4\"} 0\n"
              "refresh_space {\"uuid\":\"" + kt::uuid(102) + "\"} 0\n"
              "destroy_storage_setting {} NULL\n"
              "~COrnStorageDaemon {} NULL\n"
              "~COrnStorage {} NULL\n");

    expect_output(s.run({"volset", "Vol1", "0", "1"}), "");
    EXPECT_EQ(s.query(kTypeState), "0|0\n0|0\n0|0\n2|1\n");
    EXPECT_EQ(s.query(kPreserved), before);
}

TEST(Volset, NamesAreMatchedWholeAndUnknownNamesChangeNothing) {
    SimServer s;
    expect_output(s.run({"volset", "Vol1", "1", "1"}), "Cannot fine volume [Vol1]\n");
    add_volset_volumes(s);
    const std::string before = s.query("SELECT * FROM volumes ORDER BY rowid");
    const std::string preserved = s.query(kPreserved);
    for (const char* name : {"Vol", "vol1", "Vol1/", "VolName_3", "raw", ""}) {
        SCOPED_TRACE(name);
        expect_output(s.run({"volset", name, "1", "0"}),
                      "Cannot fine volume [" + std::string(name) + "]\n");
    }
    EXPECT_EQ(s.query("SELECT * FROM volumes ORDER BY rowid"), before);
    expect_output(s.run({"volset", "Vol/ext", "0", "1"}), "");
    EXPECT_EQ(s.query(kTypeState), "0|0\n0|0\n0|0\n0|0\n");
    EXPECT_EQ(s.query(kPreserved), preserved);
}

// The library opens one database per process; direct calls share this one.
SimServer& library_server() {
    static SimServer server;
    return server;
}

IStorageSetting* library_setting() {
    static COrnStorage storage;
    static IStorageSetting* setting = nullptr;
    if (setting == nullptr) {
        setenv("ORN_STORAGE_DB", library_server().db_path().c_str(), 1);
        storage.create_storage_setting(&setting);
    }
    return setting;
}

TEST(VolumeLookup, MissesLeaveOutputsUntouchedAndHitsFillThem) {
    IStorageSetting* setting = library_setting();
    ASSERT_NE(setting, nullptr);
    SimServer& s = library_server();
    s.exec("DELETE FROM volumes; DELETE FROM faults;");
    add_volset_volumes(s);

    char uuid[36];
    std::memset(uuid, 'Z', sizeof(uuid));
    EXPECT_EQ(find_volume_uuid(setting, "Vol", uuid), -1);
    EXPECT_EQ(std::string(uuid, 36), std::string(36, 'Z'));
    EXPECT_EQ(find_volume_uuid(setting, "Vol1", uuid), 0);
    EXPECT_EQ(std::string(uuid, 36), kt::uuid(10));

    TVolumeConfig config;
    EXPECT_EQ(find_volume_no(setting, "VolName_3", config), -1);
    EXPECT_EQ(config.volume_no, -1);
    EXPECT_EQ(find_volume_no(setting, "Vol/ext", config), 0);
    EXPECT_EQ(config.volume_no, 7);

    // A uuid no row has: -1 both ways, and the record keeps every byte.
    TVolumeSetting record;
    std::memset(static_cast<void*>(&record), 0x5a, sizeof(record));
    std::vector<char> copy(reinterpret_cast<char*>(&record),
                           reinterpret_cast<char*>(&record) + sizeof(record));
    ornsid missing(kt::uuid(99).c_str());
    EXPECT_EQ(setting->get_volume_setting(missing, &record), -1);
    EXPECT_EQ(std::memcmp(&record, copy.data(), copy.size()), 0);
    EXPECT_EQ(setting->set_volume_setting(missing, &record), -1);

    // A fault whose result is 0 means nothing for this operation.
    s.add_fault("get_volume_setting", kt::uuid(12), 0);
    EXPECT_EQ(setting->get_volume_setting(ornsid(kt::uuid(12).c_str()), &record), 0);
    EXPECT_STREQ(record.label, "ext");
    EXPECT_EQ(record.config.volume_no, 7);
}

}  // namespace
