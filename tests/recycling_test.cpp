// volclean and autoclean: the engine protocol seen in the call log, the
// ranges handed to the engines, the hour folders removed on disk, the leak
// test and the measurement of preallocate folders with du.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::period_row;
using kt::RunResult;
using kt::SimServer;
using kt::space_row;
using kt::volume_row;

const long long kWindowMs = 2592000LL * 1000;

// Milliseconds of a local time in 2024; the tests run at 2024-03-15 12:00.
long long at(int month, int day, int hour, int minute = 0) {
    return kt::local_ms(2024, month, day, hour, minute);
}
long long now_s() { return at(3, 15, 12) / 1000; }

// Writes a file of |mib| MiB of allocated blocks.
void make_file(const std::string& path, long long mib) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path;
    if (mib > 0) {
        EXPECT_EQ(posix_fallocate(fd, 0, mib << 20), 0) << path;
    }
    close(fd);
}

struct EngineRuns {
    int engines = 0;
    int failed_inits = 0;
    std::vector<std::string> recycled;  // "engine uuid chN type/stream from..to"
};

std::string range(const char* engine, const std::string& uuid, int channel, int record_type,
                  int stream, long long from_ms, long long to_ms) {
    std::ostringstream s;
    s << engine << " " << uuid << " ch" << channel << " " << record_type << "/" << stream << " "
      << from_ms << ".." << to_ms;
    return s.str();
}

// Reads the engine calls of the log and checks that every engine gets one
// construction, one init, one recycle exactly when init returned 0, one
// uninit and one destruction, in that order.
EngineRuns engine_runs(SimServer& server, const std::string& cls) {
    std::string log = server.query(
        "SELECT CASE WHEN op = 'recycle_channel_data' THEN printf('recycle %s %s ch%d %d/%d "
        "%lld..%lld', json_extract(args, '$.engine'), json_extract(args, '$.uuid'), "
        "json_extract(args, '$.channel_id'), json_extract(args, '$.record_type'), "
        "json_extract(args, '$.stream'), json_extract(args, '$.from_ms'), "
        "json_extract(args, '$.to_ms')) ELSE op || ' ' || ifnull(result, '-') END "
        "FROM call_log WHERE op IN ('" + cls + "', '" + cls + "::init', 'recycle_channel_data', '" +
        cls + "::uninit', '~" + cls + "') ORDER BY seq");
    std::vector<std::string> calls;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) calls.push_back(line);
    EngineRuns runs;
    size_t i = 0;
    auto next = [&] { return i < calls.size() ? calls[i++] : std::string("<end>"); };
    while (i < calls.size()) {
        ++runs.engines;
        EXPECT_EQ(next(), cls + " -");
        std::string init = next();
        EXPECT_EQ(init.rfind(cls + "::init ", 0), 0u) << init;
        if (init == cls + "::init 0") {
            std::string recycle = next();
            EXPECT_EQ(recycle.rfind("recycle ", 0), 0u) << recycle;
            runs.recycled.push_back(recycle.substr(8));
        } else {
            ++runs.failed_inits;
        }
        EXPECT_EQ(next(), cls + "::uninit 0");
        EXPECT_EQ(next(), "~" + cls + " -");
    }
    return runs;
}

// Two spaces: Main with volumes V1 and V3, and Backup with V2, whose tier
// cannot be bound. Channel 2 lists periods in NR streams 1 and 2 and AR
// stream 0; the window runs from 2024-02-14 12:00 to the present time.
TEST(Volclean, RecyclesEveryStreamOfOneChannelOnEverySpace) {
    SimServer server;
    server.enable_trace();
    server.add_space(space_row(1, "Main", 101));
    server.add_space(space_row(2, "Backup", 102));
    server.add_fault("tier_init", kt::uuid(2));
    const std::string v1 = server.add_volume(volume_row(11, 101, "share/V1"));
    const std::string v2 = server.add_volume(volume_row(12, 102, "share/V2"));
    const std::string v3 = server.add_volume(volume_row(13, 101, "share/V3"));
    const std::string sid = kt::sid(2);
    server.add_channel(0, kt::sid(0));
    server.add_channel(1, std::string(32, '9'));
    server.add_channel(2, sid);
    // Newest first: the bound still comes from the earliest start. Stream 2
    // began before the window; stream 4 ended before it.
    server.add_period(period_row(2, 4, 1, at(3, 5, 0), at(3, 5, 1)));
    server.add_period(period_row(2, 4, 1, at(3, 1, 14, 30), at(3, 1, 15)));
    server.add_period(period_row(2, 4, 2, at(2, 10, 0), at(2, 20, 0)));
    server.add_period(period_row(2, 1, 0, at(3, 10, 0), at(3, 10, 1)));
    server.add_period(period_row(2, 4, 4, at(1, 1, 0), at(1, 2, 0)));
    server.add_period(period_row(0, 4, 1, at(3, 2, 0), at(3, 2, 1)));

    auto hour = [&](const std::string& fsu, int type, int stream, long long ms) {
        return server.hour_folder(fsu, sid, type, stream, ms);
    };
    const std::string stream3 = v1 + "/" + sid + "/4/3/";
    const std::pair<std::string, bool> folders[] = {  // path, kept
        {hour(v1, 4, 1, at(3, 1, 13)), false},  // ends before the period at 14:30
        {hour(v1, 4, 1, at(3, 1, 14)), true},   // ends after the bound
        {hour(v1, 4, 1, at(2, 20, 5)), false},
        {hour(v1, 4, 1, at(2, 14, 12)), false},  // starts at the window's start
        {hour(v1, 4, 1, at(2, 14, 11)), true},
        {hour(v3, 4, 1, at(2, 25, 0)), false},  // second volume of the space
        {hour(v2, 4, 1, at(2, 25, 0)), true},   // its space's tier is not bound
        {hour(v1, 4, 2, at(2, 25, 0)), true},   // bound before the window
        {hour(v1, 1, 0, at(3, 9, 23)), false},
        {hour(v1, 1, 0, at(3, 10, 0)), true},
        {hour(v1, 4, 3, at(3, 15, 11)), false},  // no period: up to the present time
        {hour(v1, 4, 3, at(3, 15, 12)), true},
        {hour(v1, 4, 3, at(2, 25, 0)), false},
        {stream3 + "20240225/7", true},  // not an hour
        {stream3 + "20240231/00", true},  // not a date
        {stream3 + "2024022/00", true},
        {server.hour_folder(v1, kt::sid(0), 4, 1, at(2, 25, 0)), true},  // other channel
    };
    for (const auto& f : folders) {
        server.make_dir(f.first + "/index");
        make_file(f.first + "/rec.dat", 0);
        make_file(f.first + "/index/rec.idx", 0);
    }
    const std::string outside = server.path("outside");
    server.make_dir(outside + "/03");
    const std::string linked_hour = hour(v1, 4, 3, at(2, 26, 1));
    server.make_dir(linked_hour);
    ASSERT_EQ(symlink(outside.c_str(), (linked_hour + "/link").c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), (stream3 + "20240227").c_str()), 0);

    RunResult r = server.run_at(now_s(), {"volclean", "2"});

    const long long now = at(3, 15, 12), from = now - kWindowMs;
    std::string out = "Recycle --ch03-- data ...\n";
    std::vector<std::string> ranges;
    for (int type : {4, 1}) {
        for (int stream = 0; stream < 5; ++stream) {
            long long bound = now;
            if (type == 4 && stream == 1) bound = at(3, 1, 14, 30) - 1;
            if (type == 4 && stream == 2) bound = at(2, 10, 0) - 1;
            if (type == 1 && stream == 0) bound = at(3, 10, 0) - 1;
            ranges.push_back(range("tier", kt::uuid(1), 2, type, stream, from, bound));
            out += "Initial Tier to process failure.\n\t[" + std::string(type == 4 ? "NR" : "AR") +
                   " S0" + std::to_string(stream) + "] " +
                   (bound == now ? "Can not find time period.\n" : "Success.\n");
        }
    }
    expect_output(r, out + "Recycle process done.\n");
    EngineRuns runs = engine_runs(server, "CFSTier");
    EXPECT_EQ(runs.engines, 20);
    EXPECT_EQ(runs.failed_inits, 10);
    EXPECT_EQ(runs.recycled, ranges);
    // One query per stream, shared by both spaces, up to the present time.
    EXPECT_EQ(server.query("SELECT count(*), min(json_extract(args, '$.from_ms')), "
                           "max(json_extract(args, '$.to_ms')), min(json_extract(args, "
                           "'$.to_ms')) FROM call_log WHERE op = 'query_time_periods'"),
              "10|" + std::to_string(from) + "|" + std::to_string(now) + "|" +
                  std::to_string(now) + "\n");

    for (const auto& f : folders) EXPECT_EQ(server.exists(f.first), f.second) << f.first;
    // Day folders go only when nothing is left in them.
    EXPECT_FALSE(server.exists(v1 + "/" + sid + "/4/1/20240220"));
    EXPECT_TRUE(server.exists(v1 + "/" + sid + "/4/1/20240214"));
    EXPECT_TRUE(server.exists(stream3 + "20240225"));
    // Symlinks go as links or stay, and are never followed.
    EXPECT_FALSE(server.exists(linked_hour));
    EXPECT_TRUE(server.exists(stream3 + "20240227"));
    EXPECT_TRUE(server.exists(outside + "/03"));
    EXPECT_EQ(server.query("SELECT count(*) FROM periods"), "6\n");
}

TEST(Volclean, NothingToCleanCases) {
    struct Case {
        const char* name;
        bool space;
        std::vector<std::string> sids;  // channel n gets sids[n]
        const char* session_fault;
        const char* arg;
        const char* out;
    };
    const std::string nines(32, '9');
    const Case cases[] = {
        {"no space", false, {kt::sid(0)}, nullptr, "-1", "No space or channel found.\n"},
        {"no channel", true, {}, nullptr, "-1", "No space or channel found.\n"},
        {"empty slots only", true, {nines, nines}, nullptr, "-1", "Recycle process done.\n"},
        {"no such channel", true, {kt::sid(0)}, nullptr, "99", "Recycle process done.\n"},
        {"minus two", true, {kt::sid(0)}, nullptr, "-2", "Recycle process done.\n"},
        {"no session", true, {kt::sid(0)}, "0", "0",
         "Recycle --ch01-- data ...\nRecycle process done.\n"},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        SimServer server;
        server.enable_trace();
        if (k.space) server.add_space(space_row(1, "Main", 101));
        for (size_t i = 0; i < k.sids.size(); ++i) server.add_channel(i, k.sids[i]);
        if (k.session_fault) server.add_fault("create_channel_session", k.session_fault);
        expect_output(server.run_at(now_s(), {"volclean", k.arg}), k.out);
        EXPECT_EQ(engine_runs(server, "CFSTier").engines, 0);
    }
}

// The two lines of a leaking volume.
std::string leak(const std::string& name, long long total, long long used, long long remain,
                 long long lost, long long over) {
    return "Volume [" + name + "] total size " + std::to_string(total / 1024) + " GB(" +
           std::to_string(total) + " MB), used " + std::to_string(used) +
           " MB(preallocate_remain " + std::to_string(remain) + " MB).\nSize lost " +
           std::to_string(lost) + " MB over " + std::to_string(over) +
           " MB(%5) is not resonable. Start to recycle volume using space ...\n";
}

TEST(Autoclean, LeakThreshold) {
    struct Case {
        long long total, used, preallocate_mib, lost, over;  // lost 0: no leak
    };
    const Case cases[] = {
        {1000, 900, 50, 0, 0},     {1000, 900, 49, 51, 50}, {1019, 968, 0, 51, 50},
        {2048, 1900, 0, 148, 102}, {1000, 1200, 0, 0, 0},  // more used than there is
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(std::to_string(k.total) + "/" + std::to_string(k.used) + "/" +
                     std::to_string(k.preallocate_mib));
        SimServer server;
        std::string fsu =
            server.add_volume(volume_row(21, 101, "share/Vol1", 1, k.total, k.used));
        make_file(fsu + "/preallocate/reserve", k.preallocate_mib);
        server.add_channel(0, kt::sid(0));
        expect_output(server.run_at(now_s(), {"autoclean"}),
                      (k.lost ? leak("Vol1", k.total, k.used, k.preallocate_mib, k.lost, k.over) +
                                    "Volume space leak detected count: 1\n"
                              : "Volume space leak detected count: 0\n") +
                          "recycle check process done.\n");
    }
}

TEST(Autoclean, RecyclesEachLeakingVolumeWithUnits) {
    SimServer server;
    server.enable_trace();
    const std::string va = server.add_volume(volume_row(31, 101, "share/VA", 1, 1000, 0));
    const std::string vb = server.add_volume(volume_row(32, 101, "share/VB", 2, 1000, 990));
    kt::Volume missing = volume_row(33, 101, "share/VC", 3);
    missing.make_fsu_folder = false;
    server.add_volume(missing);
    const std::string vd = server.add_volume(volume_row(34, 101, "mnt/vol7", 7, 100, 0));
    server.add_fault("unit_init", kt::uuid(34));
    server.add_channel(0, kt::sid(0));
    server.add_channel(1, kt::sid(1));
    server.add_channel(2, std::string(32, '9'));
    server.add_period(period_row(0, 4, 1, at(3, 1, 14, 30), at(3, 1, 15)));
    server.add_period(period_row(0, 1, 4, at(3, 10, 0), at(3, 10, 1)));
    const std::string sid = kt::sid(0);
    const std::string removed = server.hour_folder(va, sid, 4, 1, at(3, 1, 13));
    const std::vector<std::string> kept = {
        server.hour_folder(va, sid, 4, 1, at(3, 1, 14)),
        server.hour_folder(va, sid, 4, 2, at(2, 25, 0)),  // no period: a unit skips the stream
        server.hour_folder(vb, sid, 4, 1, at(3, 1, 13)),  // no leak on that volume
        server.hour_folder(vd, sid, 4, 1, at(3, 1, 13)),  // its unit could not be bound
    };
    server.make_dir(removed);
    for (const std::string& k : kept) server.make_dir(k);

    expect_output(server.run_at(now_s(), {"autoclean"}),
                  leak("VA", 1000, 0, 0, 1000, 50) +
                      "Volume [" + server.path("share/VC") + "] path does not exist\n" +
                      leak("VolName_7", 100, 0, 0, 100, 5) +
                      "Initial Unit to process failure.\nInitial Unit to process failure.\n"
                      "Volume space leak detected count: 2\nrecycle check process done.\n");
    EngineRuns runs = engine_runs(server, "CFSUnit");
    EXPECT_EQ(runs.engines, 4);
    EXPECT_EQ(runs.failed_inits, 2);
    const long long from_ms = at(3, 15, 12) - kWindowMs;
    EXPECT_EQ(runs.recycled,
              (std::vector<std::string>{
                  range("unit", kt::uuid(31), 0, 4, 1, from_ms, at(3, 1, 14, 30) - 1),
                  range("unit", kt::uuid(31), 0, 1, 4, from_ms, at(3, 10, 0) - 1)}));
    EXPECT_FALSE(server.exists(removed));
    for (const std::string& k : kept) EXPECT_TRUE(server.exists(k)) << k;
}

TEST(Autoclean, NoVolumeAndNoChannel) {
    SimServer server;
    expect_output(server.run({"autoclean"}), "no volume found\nrecycle check process done.\n");
    server.add_volume(volume_row(21, 101, "share/Vol1", 1, 1000, 0));
    expect_output(server.run({"autoclean"}),
                  leak("Vol1", 1000, 0, 0, 1000, 50) +
                      "No channel settings found.\nVolume space leak detected count: 1\n"
                      "recycle check process done.\n");
}

// Measures in this process; restores the working directory afterwards.
class MeasureTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(getcwd(saved_cwd_, sizeof(saved_cwd_)), nullptr); }
    void TearDown() override { EXPECT_EQ(chdir(saved_cwd_), 0); }

    static TVolumeInfo volume(const std::string& path, long long used_mb) {
        TVolumeInfo v;
        std::memcpy(v.uuid.uuid, kt::uuid(41).data(), 36);
        std::strncpy(v.setting.config.path, path.c_str(), sizeof(v.setting.config.path) - 1);
        v.setting.used_size_mb = used_mb;
        return v;
    }
    // Result, both outputs (starting at 777 and 888) and what was printed.
    static std::string measure(const TVolumeInfo& v) {
        int64_t remain = 777, used = 888;
        testing::internal::CaptureStdout();
        int result = measure_volume_usage(v, remain, used);
        std::string out = testing::internal::GetCapturedStdout();
        return std::to_string(result) + " " + std::to_string(remain) + " " +
               std::to_string(used) + " " + out;
    }
    static std::string cwd() {
        char buffer[PATH_MAX];
        return getcwd(buffer, sizeof(buffer)) ? buffer : "";
    }

    SimServer server_;
    char saved_cwd_[PATH_MAX];
};

TEST_F(MeasureTest, FirstLineOfDuIsTheFirstSubfolder) {
    std::string fsu = server_.add_volume(volume_row(41, 101, "share/Vol1"));
    server_.make_dir(fsu + "/preallocate/sub");
    make_file(fsu + "/preallocate/sub/a", 2);
    make_file(fsu + "/preallocate/b", 5);
    EXPECT_EQ(measure(volume(server_.path("share/Vol1"), 42)), "0 2 42 ");
    EXPECT_EQ(cwd(), fsu + "/preallocate");
}

TEST_F(MeasureTest, ShellCharactersInThePathAreNeverRun) {
    const char* const names[] = {"a b$(touch INJECTED1)", "b'; touch INJECTED2 #",
                                 "c`touch INJECTED3`",    "d\ntouch INJECTED4",
                                 "e;touch INJECTED5|x&",  "f\"g\\h*"};
    for (const char* name : names) {
        const std::string path = server_.path(std::string("share/") + name);
        std::string fsu = server_.fsu_folder(path, kt::uuid(41));
        server_.make_dir(fsu + "/preallocate");
        make_file(fsu + "/preallocate/reserve", 3);
        EXPECT_EQ(measure(volume(path, 7)), "0 3 7 ") << name;
    }
    RunResult found = kt::run_program({"/usr/bin/find", server_.root(), "-name", "INJECTED*"},
                                      {}, server_.root());
    EXPECT_EQ(found.out, "");
    EXPECT_EQ(found.status, 0);
}

TEST_F(MeasureTest, FailuresLeaveBothOutputs) {
    const std::string missing = server_.path("share/none");
    EXPECT_EQ(measure(volume(missing, 7)),
              "-1 777 888 Volume [" + missing + "] path does not exist\n");
    // Neither the folder path nor the command "du <folder>" is ever cut to
    // fit its 256-byte buffer; quoting does not shorten the limit. The
    // preallocate folder is the path plus 49.
    const std::string prefix = server_.path("share/");
    auto path_for = [&](size_t folder_length, const std::string& head) {
        size_t fill = folder_length - 49 - prefix.size() - head.size();
        std::string p = prefix + head + std::string(fill, 'L');
        std::string folder = server_.fsu_folder(p, kt::uuid(41)) + "/preallocate";
        EXPECT_EQ(folder.size(), folder_length);
        server_.make_dir(folder);
        return p;
    };
    const std::pair<std::string, const char*> cases[] = {
        {path_for(256, ""), "-1 777 888 "},  // folder too long
        {path_for(253, ""), "-1 777 888 "},  // "du <folder>" too long
        {path_for(252, "'"), "0 0 7 "},      // longest, with a quote inside
        {path_for(250, ""), "0 0 7 "},
    };
    for (const auto& c : cases) {
        std::string failure =
            c.second[0] == '-' ? "Volume [" + c.first + "] path does not exist\n" : "";
        EXPECT_EQ(measure(volume(c.first, 7)), c.second + failure) << c.first.size();
    }
}

TEST_F(MeasureTest, FigureOfTheFirstLineInMegabytes) {
    const std::string bin = server_.path("bin");
    server_.make_dir(bin);
    {
        std::ofstream script(bin + "/du");
        script << "#!/bin/sh\ncat \"$(dirname \"$0\")/out\"\n";
    }
    ASSERT_EQ(chmod((bin + "/du").c_str(), 0755), 0);
    std::string fsu = server_.add_volume(volume_row(41, 101, "share/Vol1"));
    const std::pair<const char*, const char*> cases[] = {
        {"1048576\t/x\n", "0 1024 5 "},        {"1023\t/x\n", "0 0 5 "},
        {"2047\t/x\n2048\t/y\n", "0 1 5 "},    {"2147483648\t/x\n", "0 2097152 5 "},
        {"  4096\n", "0 4 5 "},                {"total\n", "0 0 5 "},
        {"", "0 777 5 "},  // du printed nothing: the caller's figure stays
    };
    const char* old_path = getenv("PATH");
    const std::string saved = old_path ? old_path : "";
    setenv("PATH", (bin + ":" + saved).c_str(), 1);
    for (const auto& c : cases) {
        std::ofstream(bin + "/out") << c.first;
        EXPECT_EQ(measure(volume(server_.path("share/Vol1"), 5)), c.second) << c.first;
    }
    setenv("PATH", saved.c_str(), 1);
}

}  // namespace
