// Runs the cases of tests/cases/*.cases, each a fixture, kelvo's command
// lines, the expected output and the expected change. A case starts with
// "=== title"; then one step a line, a block being the "| "-prefixed lines
// below its step ('#' lines are comments):
//   tz ZONE            the case's TZ (UTC otherwise)
//   at Y-M-D h:m:s     kelvo's clock, local time (the real clock otherwise)
//   sql + block        run on the database (uuid(n) sid(n) sto(n) ms(text))
//   {root} anywhere    the server's root folder; other paths are below it
//   dir PATH | file PATH KIB   folders and files below the server's root;
//                      dir and gone take {a,b} alternatives as the shell does
//   link PATH TARGET | script PATH + block   a symbolic link, a program
//   env NAME=VALUE     for the runs that follow
//   run ARGS           runs kelvo ('a b' is one argument, '' an empty one)
//   out + block        stdout of every run since the last out; stderr empty,
//                      status 0; ORN_LOG_FILE is log.txt below the root
//   same + block       the runs since the last out print one output, which
//                      starts with the block
//   after SQL + block  rows after the runs; without one the database must
//                      not change (checked before a fixture step that follows
//                      runs, and at the end)
//   rows SQL + block   rows of a query, allowing no change
//   calls [OPS] + block   the call log (of those ops)
//   log + block        what the library logged
//   gone PATH          what the runs removed: everything below PATH, and
//                      nothing else of the tree may change
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
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
    glob_t files;
    glob(KELVO_CASES_DIR "/*.cases", 0, nullptr, &files);
    std::vector<Case> cases;
    for (size_t i = 0; i < files.gl_pathc; ++i) {
        std::ifstream in(files.gl_pathv[i]);
        std::string line, stem = files.gl_pathv[i];
        stem = stem.substr(stem.rfind('/') + 1, stem.size() - stem.rfind('/') - 7);
        while (std::getline(in, line)) {
            if (line.rfind("=== ", 0) == 0) {
                cases.push_back({stem + "_" + line.substr(4), {}});
                for (char& c : cases.back().name)
                    if (!isalnum(static_cast<unsigned char>(c))) c = '_';
            } else if (line[0] == '|' && !cases.empty() && !cases.back().steps.empty()) {
                cases.back().steps.back().block += line.substr(line.size() > 1 ? 2 : 1) + "\n";
            } else if (!line.empty() && line[0] != '#' && !cases.empty()) {
                size_t space = std::min(line.find(' '), line.size());
                cases.back().steps.push_back(
                    {line.substr(0, space), line.substr(space + (space < line.size())), ""});
            }
        }
    }
    globfree(&files);
    return cases;
}

// Words split on spaces; 'a b' is one word, '' an empty one.
std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> words;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        bool quoted = text[i] == '\'';
        size_t end = text.find(quoted ? '\'' : ' ', i + 1);
        if (end == std::string::npos) end = text.size();
        words.push_back(text.substr(i + quoted, end - i - quoted));
        i = end;
    }
    return words;
}

// PATH with its first {a,b,...} group, nested ones included, expanded.
std::vector<std::string> expand(const std::string& path) {
    size_t open = path.find('{'), close = open, depth = 0;
    std::vector<size_t> commas;
    for (; close < path.size(); ++close) {
        depth += path[close] == '{';
        if (path[close] == ',' && depth == 1) commas.push_back(close);
        if (path[close] == '}' && --depth == 0) break;
    }
    if (close >= path.size()) return {path};
    commas.push_back(close);
    std::vector<std::string> all;
    for (size_t from = open, i = 0; i < commas.size(); from = commas[i++]) {
        std::string one = path.substr(0, open) + path.substr(from + 1, commas[i] - from - 1);
        for (const std::string& e : expand(one + path.substr(close + 1))) all.push_back(e);
    }
    return all;
}

// Seconds since the epoch of "YYYY-MM-DD HH:MM:SS" in local time.
long long epoch(const std::string& text) {
    struct tm t = {};
    strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &t);
    t.tm_isdst = -1;
    return static_cast<long long>(mktime(&t));
}

// What the runs since the last fixture step may change, and the state before them.
struct Baseline {
    bool taken = false, db_may_change = false;
    std::string db;
    std::vector<std::string> tree, gone;
};

std::vector<std::string> tree_of(kt::SimServer& server) {
    std::vector<std::string> tree = server.tree();
    tree.erase(std::remove(tree.begin(), tree.end(), "log.txt"), tree.end());
    return tree;
}

// The database is unchanged unless an after step allowed it; the tree lost
// exactly what lies below the paths named gone.
void check_changes(kt::SimServer& server, Baseline& b) {
    if (!b.taken) return;
    if (!b.db_may_change) {
        EXPECT_EQ(server.dump_tables(), b.db) << "the database changed";
    }
    std::vector<std::string> expected;
    for (const std::string& g : b.gone)
        EXPECT_TRUE(std::any_of(b.tree.begin(), b.tree.end(),
                                [&](const std::string& p) { return p.rfind(g, 0) == 0; }))
            << g << " was not there before";
    for (const std::string& path : b.tree)
        if (std::none_of(b.gone.begin(), b.gone.end(),
                         [&](const std::string& g) { return path.rfind(g, 0) == 0; }))
            expected.push_back(path);
    EXPECT_EQ(tree_of(server), expected);
    b = Baseline();
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
    Baseline b;
    std::vector<kt::RunResult> pending;
    for (Step s : c.steps) {
        for (std::string* text : {&s.arg, &s.block})
            for (size_t at_root; (at_root = text->find("{root}")) != std::string::npos;)
                text->replace(at_root, 6, server.root());
        SCOPED_TRACE(s.keyword + " " + s.arg);
        if (s.keyword == "sql" || s.keyword == "dir" || s.keyword == "file" ||
            s.keyword == "link" || s.keyword == "script")
            check_changes(server, b);
        if (s.keyword == "sql") {
            server.exec(s.block);
        } else if (s.keyword == "dir") {
            for (const std::string& path : expand(s.arg)) server.make_dir(path);
        } else if (s.keyword == "file") {  // PATH KIB: real blocks for du
            std::vector<std::string> w = split(s.arg);
            std::ofstream(server.path(w[0])) << std::string(std::stoul(w[1]) * 1024, 'x');
        } else if (s.keyword == "link") {  // PATH TARGET
            std::vector<std::string> w = split(s.arg);
            EXPECT_EQ(symlink(w[1].c_str(), server.path(w[0]).c_str()), 0);
        } else if (s.keyword == "script") {  // PATH + block: an executable file
            std::ofstream(server.path(s.arg)) << s.block;
            EXPECT_EQ(chmod(server.path(s.arg).c_str(), 0755), 0);
        } else if (s.keyword == "env") {
            env.push_back(s.arg);
        } else if (s.keyword == "at") {
            at = epoch(s.arg);
        } else if (s.keyword == "run") {
            if (!b.taken) b = {true, false, server.dump_tables(), tree_of(server), {}};
            pending.push_back(at < 0 ? server.run(split(s.arg), env)
                                     : server.run_at(at, split(s.arg), env));
        } else if (s.keyword == "out") {
            EXPECT_FALSE(pending.empty()) << "out without run";
            for (const kt::RunResult& r : pending) kt::expect_output(r, s.block);
            pending.clear();
        } else if (s.keyword == "same") {
            for (const kt::RunResult& r : pending) {
                kt::expect_output(r, pending.at(0).out);
                EXPECT_EQ(r.out.rfind(s.block, 0), 0u) << r.out;
            }
            pending.clear();
        } else if (s.keyword == "after" || s.keyword == "rows") {
            EXPECT_EQ(server.query(s.arg), s.block);
            b.db_may_change = b.db_may_change || s.keyword == "after";
        } else if (s.keyword == "calls") {  // the call log, of the ops named
            std::string where;
            for (const std::string& op : split(s.arg))
                where += (where.empty() ? " WHERE op IN ('" : ", '") + op + "'";
            EXPECT_EQ(server.query("SELECT op || ' ' || args || ' ' || ifnull(result, 'NULL') "
                                   "FROM call_log" +
                                   where + (where.empty() ? "" : ")") + " ORDER BY seq"),
                      s.block);
        } else if (s.keyword == "log") {
            EXPECT_EQ(kt::read_file(server.path("log.txt")), s.block);
        } else if (s.keyword == "gone") {
            for (const std::string& path : expand(s.arg)) b.gone.push_back(path);
        } else if (s.keyword != "tz") {
            ADD_FAILURE() << "unknown keyword " << s.keyword;
        }
    }
    EXPECT_TRUE(pending.empty()) << "run without out";
    check_changes(server, b);
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

INSTANTIATE_TEST_SUITE_P(Cases, CaseTest, ::testing::ValuesIn(load_cases()),
                         [](const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
});

}  // namespace
