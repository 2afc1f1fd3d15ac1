// Runs the cases of tests/cases/*.cases, each a fixture, kelvo's command
// lines, the expected output and the expected change. A case starts with
// "=== title"; then one step a line, a block being the "| "-prefixed lines
// below its step ('#' lines are comments):
//   tz ZONE            the case's TZ (UTC otherwise)
//   at Y-M-D h:m:s     kelvo's clock, local time (the real clock otherwise)
//   sql + block        run on the database (uuid(n) sid(n) sto(n) ms(text))
//   {root} anywhere    the server's root folder; other paths are below it
//   dir PATH | file PATH KIB   folders and files below the server's root
//   env NAME=VALUE     for the runs that follow
//   run ARGS           runs kelvo ('' is an empty argument)
//   out + block        stdout of every run since the last out; stderr empty,
//                      status 0; ORN_LOG_FILE is log.txt below the root
//   after SQL + block  rows after the runs; without one the database must
//                      not change
//   calls [OPS] + block   the call log (of those ops)
//   log + block        what the library logged
//   gone PATH          what the runs removed: everything below PATH, and
//                      nothing else of the tree may change
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "sim_server.h"

namespace {

struct Step {
    std::string keyword, arg, block;
};

struct Case {
    std::string name;
    std::vector<Step> steps;
};

std::vector<Case> load_cases() {
    std::vector<std::string> files;
    DIR* dir = opendir(KELVO_CASES_DIR);
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        std::string f = e->d_name;
        if (f.size() > 6 && f.compare(f.size() - 6, 6, ".cases") == 0) files.push_back(f);
    }
    if (dir) closedir(dir);
    std::sort(files.begin(), files.end());
    std::vector<Case> cases;
    for (const std::string& f : files) {
        std::ifstream in(std::string(KELVO_CASES_DIR) + "/" + f);
        std::string line, stem = f.substr(0, f.size() - 6);
        while (std::getline(in, line)) {
            if (line.rfind("=== ", 0) == 0) {
                std::string name = stem + "_" + line.substr(4);
                for (char& c : name)
                    if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                cases.push_back({name, {}});
            } else if (line[0] == '|' && !cases.empty() && !cases.back().steps.empty()) {
                cases.back().steps.back().block += line.substr(line.size() > 1 ? 2 : 1) + "\n";
            } else if (!line.empty() && line[0] != '#' && !cases.empty()) {
                size_t space = line.find(' ');
                cases.back().steps.push_back({line.substr(0, space),
                                              space == std::string::npos ? "" : line.substr(space + 1), ""});
            }
        }
    }
    return cases;
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string w; in >> w;) words.push_back(w == "''" ? "" : w);
    return words;
}

// Seconds since the epoch of "YYYY-MM-DD HH:MM:SS" in local time.
long long epoch(const std::string& text) {
    struct tm t = {};
    strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &t);
    t.tm_isdst = -1;
    return static_cast<long long>(mktime(&t));
}

class CaseTest : public ::testing::TestWithParam<Case> {};

TEST_P(CaseTest, Run) {
    const Case& c = GetParam();
    std::string tz = "UTC";
    for (const Step& s : c.steps)
        if (s.keyword == "tz") tz = s.arg;
    kt::SimServer server(tz);
    std::vector<std::string> env = {"ORN_LOG_FILE=" + server.path("log.txt")};
    long long at = -1;
    bool snapped = false, db_may_change = false;
    std::string db_before;
    std::vector<std::string> tree_before, gone;
    std::vector<kt::RunResult> pending;
    for (Step s : c.steps) {
        for (std::string* text : {&s.arg, &s.block})
            for (size_t at_root; (at_root = text->find("{root}")) != std::string::npos;)
                text->replace(at_root, 6, server.root());
        SCOPED_TRACE(s.keyword + " " + s.arg);
        if (s.keyword == "sql") {
            server.exec(s.block);
        } else if (s.keyword == "dir") {
            server.make_dir(s.arg);
        } else if (s.keyword == "file") {  // PATH KIB: real blocks for du
            std::vector<std::string> w = split(s.arg);
            std::ofstream(server.path(w[0])) << std::string(std::stoul(w[1]) * 1024, 'x');
        } else if (s.keyword == "env") {
            env.push_back(s.arg);
        } else if (s.keyword == "at") {
            at = epoch(s.arg);
        } else if (s.keyword == "run") {
            if (!snapped) {
                db_before = server.dump_tables();
                tree_before = server.tree();
                snapped = true;
            }
            pending.push_back(at < 0 ? server.run(split(s.arg), env)
                                     : server.run_at(at, split(s.arg), env));
        } else if (s.keyword == "out") {
            EXPECT_FALSE(pending.empty()) << "out without run";
            for (const kt::RunResult& r : pending) kt::expect_output(r, s.block);
            pending.clear();
        } else if (s.keyword == "after") {  // rows of a query after the runs
            EXPECT_EQ(server.query(s.arg), s.block);
            db_may_change = true;
        } else if (s.keyword == "calls") {  // the call log, of the ops named
            std::string where;
            for (const std::string& op : split(s.arg))
                where += (where.empty() ? " WHERE op IN ('" : ", '") + op + "'";
            EXPECT_EQ(server.query("SELECT op || ' ' || args || ' ' || ifnull(result, 'NULL') "
                                   "FROM call_log" + where + (where.empty() ? "" : ")") +
                                   " ORDER BY seq"),
                      s.block);
        } else if (s.keyword == "log") {
            EXPECT_EQ(kt::read_file(server.path("log.txt")), s.block);
        } else if (s.keyword == "gone") {
            gone.push_back(s.arg);
        } else if (s.keyword != "tz") {
            ADD_FAILURE() << "unknown keyword " << s.keyword;
        }
    }
    EXPECT_TRUE(pending.empty()) << "run without out";
    if (!db_may_change) {
        EXPECT_EQ(server.dump_tables(), db_before) << "the database changed";
    }
    // The tree loses exactly what lies below the paths named gone.
    for (const std::string& g : gone)
        EXPECT_TRUE(std::any_of(tree_before.begin(), tree_before.end(),
                                [&](const std::string& p) { return p.rfind(g, 0) == 0; }))
            << g << " was not there before";
    std::vector<std::string> expected;
    for (const std::string& path : tree_before) {
        bool removed = false;
        for (const std::string& g : gone) removed = removed || path.rfind(g, 0) == 0;
        if (!removed && path != "log.txt") expected.push_back(path);
    }
    std::vector<std::string> after = server.tree();
    after.erase(std::remove(after.begin(), after.end(), "log.txt"), after.end());
    EXPECT_EQ(after, expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, CaseTest, ::testing::ValuesIn(load_cases()),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
