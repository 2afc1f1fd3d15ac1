// Argument rules, the usage text and the missing-database paths of main.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_server.h"

namespace {

using kt::expect_output;
using kt::kUsageText;
using kt::RunResult;
using kt::SimServer;

// A server with one space, so that commands that run print something.
void add_one_space(SimServer& server) {
    server.add_space(kt::space_row(1, "Main", 101, 10240, 2560));
}

const char* const kSpaceListOutput =
    "Space count: 1\n"
    "[01] [Main], total size: 10 GB, used: 2560 MB, use 25.00% [Normal                   ]\n"
    "\n";

TEST(FrontEnd, UsageForEveryRefusedCommandLine) {
    SimServer server;
    add_one_space(server);
    const std::string long_word(128, 'x');
    const std::vector<std::vector<std::string>> cases = {
        {},                                      // count 1
        {"vollist", "a", "b"},                   // count 4
        {"spacelist", "a", "b", "c", "d"},       // count 6
        {"bogus"},                               // unknown word
        {"SPACELIST"},                           // case-sensitive
        {long_word},                             // does not fit the command buffer
        {"vollist"},                             // vollist needs 3
        {"volset", "vol", "1"},                  // volset needs 5
        {"nullid", "1", "2", "3"},               // count 5 for a count-3 command
        {"volset", "vol", "1", "2"},             // state out of range
        {"volset", "vol", "-1", "0"},            // -1 is refused
        {"volset", "vol", "0", "4294967298"},    // low 32 bits are 2
        {"spaceinfo"},
        {"voluse"},
        {"volchn", "a", "b", "c"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(args.empty() ? std::string("(none)") : args[0]);
        expect_output(server.run(args), kUsageText);
    }
    // Refused before the database is needed.
    expect_output(server.run({"vollist", "a", "b"}, {"ORN_STORAGE_DB=/nonexistent/x.db"}),
                  kUsageText);
}

TEST(FrontEnd, AcceptedCommandLinesReachTheirCommand) {
    SimServer server;
    add_one_space(server);
    // Extra arguments of spacelist are ignored.
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"spacelist"}, {"spacelist", "x"}, {"spacelist", "x", "y", "z"}})
        expect_output(server.run(args), kSpaceListOutput);
    // volset values parse like strtol: "abc" is 0 and "1x" is 1.
    expect_output(server.run({"volset", "nothere", "abc", "1x"}), "Cannot fine volume [nothere]\n");
}

TEST(FrontEnd, NameArgumentsKeepTheirFirst511Characters) {
    SimServer server;
    const std::string name511(511, 'a');
    server.add_space(kt::space_row(1, name511, 101, 1024));
    // A longer argument is cut and then matches the space of 511 characters.
    RunResult r = server.run({"vollist", name511 + "bcd"});
    EXPECT_EQ(r.out.substr(0, 7 + 511 + 1), "Space: " + name511 + "\n");
    EXPECT_EQ(r.err, "");
    // A name of 600 other characters is echoed cut to 511.
    const std::string other(600, 'z');
    expect_output(server.run({"spaceinfo", other}),
                  "\nno space [" + std::string(511, 'z') + "] info\n");
}

TEST(FrontEnd, MissingOrBrokenDatabaseFailsEveryWord) {
    SimServer server;
    const std::string failure = "Query storage settings faiure.\n";
    std::vector<std::vector<std::string>> lines = {
        {"spacelist"}, {"vollist"}, {"bogus"}, {"nullid", "1"}, {"volset", "v", "7", "7"},
        {std::string(300, 'y'), "a"}};
    // No file at all.
    for (const auto& args : lines) {
        SCOPED_TRACE(args[0]);
        expect_output(server.run(args, {"ORN_STORAGE_DB=" + server.path("absent.db")}), failure);
    }
    // A file that is not a database, and a database without the schema.
    server.exec("CREATE TABLE unrelated (x);");
    kt::run_program({"/bin/sh", "-c", "echo garbage > junk.db; sqlite3 empty.db 'CREATE TABLE t(x);'"},
                    {"PATH=/usr/bin:/bin"}, server.root());
    for (const char* db : {"junk.db", "empty.db"}) {
        SCOPED_TRACE(db);
        expect_output(server.run({"spacelist"}, {std::string("ORN_STORAGE_DB=") + server.path(db)}),
                      failure);
    }
}

TEST(FrontEnd, ReleaseOrderInCallLog) {
    SimServer server;
    add_one_space(server);
    server.enable_trace();
    expect_output(server.run({"spacelist"}), kSpaceListOutput);
    EXPECT_EQ(server.call_log(),
              "create_storage_setting {} NULL\n"
              "get_space_list {} 0\n"
              "destroy_storage_setting {} NULL\n"
              "~COrnStorageDaemon {} NULL\n"
              "~COrnStorage {} NULL\n");
    // On the usage path the setting is released and the process ends there.
    server.exec("DELETE FROM call_log;");
    expect_output(server.run({"vollist"}), kUsageText);
    EXPECT_EQ(server.call_log(),
              "create_storage_setting {} NULL\n"
              "destroy_storage_setting {} NULL\n");
}

}  // namespace
