#include "sim_server.h"

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

extern char** environ;

namespace kt {
namespace {

sqlite3* handle(void* db) { return static_cast<sqlite3*>(db); }

void remove_tree(const std::string& path) {
    std::string command = "rm -rf '" + path + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path.c_str());
}

std::string padded_number(int n, size_t width) {
    std::string digits = std::to_string(n);
    if (digits.size() > width) return digits.substr(digits.size() - width);
    return std::string(width - digits.size(), '0') + digits;
}

// Environment passed on to every program run: PATH and the sanitizer options.
std::vector<std::string> base_env() {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        if (entry.rfind("PATH=", 0) == 0 || entry.rfind("ASAN_OPTIONS=", 0) == 0 ||
            entry.rfind("UBSAN_OPTIONS=", 0) == 0 || entry.rfind("LSAN_OPTIONS=", 0) == 0 ||
            entry.rfind("HOME=", 0) == 0)
            env.push_back(entry);
    }
    return env;
}

void sql_text(sqlite3_context* ctx, const std::string& text) {
    sqlite3_result_text(ctx, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// uuid(n), sid(n), sto(n) and ms(local time text) for fixtures written in SQL.
void sql_function(sqlite3_context* ctx, int, sqlite3_value** args) {
    const char* name = static_cast<const char*>(sqlite3_user_data(ctx));
    int n = sqlite3_value_int(args[0]);
    if (strcmp(name, "uuid") == 0) return sql_text(ctx, uuid(n));
    if (strcmp(name, "sid") == 0) return sql_text(ctx, sid(n));
    if (strcmp(name, "sto") == 0) return sql_text(ctx, storage_id(n));
    struct tm t = {};
    const char* text = reinterpret_cast<const char*>(sqlite3_value_text(args[0]));
    if (text == nullptr || strptime(text, "%Y-%m-%d %H:%M:%S", &t) == nullptr)
        return sqlite3_result_error(ctx, "ms() wants YYYY-MM-DD HH:MM:SS", -1);
    sqlite3_result_int64(ctx, local_ms(t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                                       t.tm_min, t.tm_sec));
}

}  // namespace

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::string uuid(int n) {
    // 8-4-4-4-12 layout, the number in the last group.
    return "a0b1c2d3-0000-4000-8000-" + padded_number(n, 12);
}

std::string sid(int n) { return "5d" + padded_number(n, 30); }

std::string storage_id(int n) { return "7e" + padded_number(n, 30); }

long long local_ms(int year, int month, int day, int hour, int minute, int second) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    return static_cast<long long>(mktime(&t)) * 1000;
}

SimServer::SimServer(const std::string& tz, const std::string& schema) : tz_(tz), db_(nullptr) {
    setenv("TZ", tz.c_str(), 1);
    tzset();
    char pattern[] = "/tmp/kelvo-test-XXXXXX";
    char* dir = mkdtemp(pattern);
    if (dir == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = dir;
    db_path_ = root_ + "/storage.db";
    sqlite3* db = nullptr;
    if (sqlite3_open(db_path_.c_str(), &db) != SQLITE_OK)
        throw std::runtime_error("cannot create test database");
    db_ = db;
    static const char* const kFunctions[] = {"uuid", "sid", "sto", "ms"};
    for (const char* f : kFunctions)
        sqlite3_create_function(db, f, 1, SQLITE_UTF8, const_cast<char*>(f), sql_function,
                                nullptr, nullptr);
    exec(schema.empty() ? read_file(KELVO_SCHEMA) : schema);
}

SimServer::~SimServer() {
    sqlite3_close(handle(db_));
    // Folders made read-only by a test must not stop the clean-up.
    std::string command = "chmod -R u+rwx '" + root_ + "' 2>/dev/null";
    if (system(command.c_str()) != 0) {
    }
    remove_tree(root_);
}

std::string SimServer::path(const std::string& relative) const {
    if (!relative.empty() && relative[0] == '/') return relative;
    return root_ + "/" + relative;
}

void SimServer::exec(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(handle(db_), sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        ADD_FAILURE() << "SQL failed: " << message << "\n" << sql;
    }
}

std::string SimServer::query(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(handle(db_), sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "SQL failed: " << sqlite3_errmsg(handle(db_)) << "\n" << sql;
        return out;
    }
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        int columns = sqlite3_column_count(stmt);
        for (int i = 0; i < columns; ++i) {
            if (i) out += '|';
            const unsigned char* text = sqlite3_column_text(stmt, i);
            if (text) out.append(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt, i));
        }
        out += '\n';
    }
    sqlite3_finalize(stmt);
    return out;
}

std::string SimServer::call_log() {
    return query("SELECT op || ' ' || args || ' ' || ifnull(result, 'NULL') FROM call_log ORDER BY seq");
}

std::string SimServer::fsu_folder(const std::string& volume_path,
                                  const std::string& volume_uuid) const {
    std::string tail = volume_uuid.size() > 4 ? volume_uuid.substr(4, 32) : "";
    return path(volume_path) + "/FSU_" + tail;
}

std::string SimServer::hour_folder(const std::string& fsu, const std::string& sid,
                                   int record_type, int stream, long long time_ms) const {
    long long seconds = time_ms >= 0 ? time_ms / 1000 : -((-time_ms + 999) / 1000);
    time_t t = static_cast<time_t>(seconds);
    struct tm local = {};
    localtime_r(&t, &local);
    char tail[64];
    snprintf(tail, sizeof(tail), "/%d/%d/%04d%02d%02d/%02d", record_type, stream,
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
    return fsu + "/" + sid.substr(0, 32) + tail;
}

void SimServer::make_dir(const std::string& p) {
    std::string full = path(p);
    for (size_t i = 1; i <= full.size(); ++i) {
        if (i == full.size() || full[i] == '/') {
            std::string part = full.substr(0, i);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
                ADD_FAILURE() << "mkdir failed: " << part;
        }
    }
}

bool SimServer::exists(const std::string& p) const {
    struct stat st;
    return stat(path(p).c_str(), &st) == 0;
}

std::string SimServer::dump_tables() {
    std::string out;
    std::string tables = query(
        "SELECT name FROM sqlite_master WHERE type = 'table' "
        "AND name NOT IN ('call_log', 'sqlite_sequence') ORDER BY name");
    std::istringstream names(tables);
    std::string table;
    while (std::getline(names, table)) {
        std::string columns = query("SELECT name FROM pragma_table_info('" + table + "')");
        std::istringstream list(columns);
        std::string column, select = "SELECT rowid";
        while (std::getline(list, column))
            select += ", typeof(" + column + ") || ':' || hex(" + column + ")";
        out += "== " + table + "\n" + query(select + " FROM " + table + " ORDER BY rowid");
    }
    return out;
}

namespace {

std::vector<std::string>* g_tree = nullptr;
size_t g_tree_prefix = 0;

int add_tree_entry(const char* path, const struct stat*, int type, struct FTW*) {
    std::string relative = std::string(path).substr(std::min(g_tree_prefix, strlen(path)));
    if (relative.empty()) return 0;
    if (relative.rfind("storage.db", 0) == 0) return 0;
    if (type == FTW_D || type == FTW_DNR) relative += '/';
    g_tree->push_back(relative);
    return 0;
}

}  // namespace

std::vector<std::string> SimServer::tree() const {
    std::vector<std::string> entries;
    g_tree = &entries;
    g_tree_prefix = root_.size() + 1;
    nftw(root_.c_str(), add_tree_entry, 16, FTW_PHYS);
    g_tree = nullptr;
    std::sort(entries.begin(), entries.end());
    return entries;
}

RunResult SimServer::run(const std::vector<std::string>& args,
                         const std::vector<std::string>& extra_env, const std::string& binary) {
    std::vector<std::string> argv{binary};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = base_env();
    env.push_back("ORN_STORAGE_DB=" + db_path_);
    env.push_back("TZ=" + tz_);
    // Later entries replace earlier ones of the same name.
    for (const std::string& extra : extra_env) {
        std::string name = extra.substr(0, extra.find('=') + 1);
        for (auto it = env.begin(); it != env.end();)
            it = it->rfind(name, 0) == 0 ? env.erase(it) : it + 1;
        env.push_back(extra);
    }
    return run_program(argv, env, root_);
}

RunResult SimServer::run_at(long long epoch_seconds, const std::vector<std::string>& args,
                            const std::vector<std::string>& extra_env, const std::string& binary) {
    time_t t = static_cast<time_t>(epoch_seconds);
    struct tm local = {};
    localtime_r(&t, &local);
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::vector<std::string> env = extra_env;
    env.push_back("LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1");
    env.push_back(std::string("FAKETIME=") + stamp);
    env.push_back("FAKETIME_DONT_FAKE_MONOTONIC=1");
    env.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
    return run(args, env, binary);
}

void expect_output(const RunResult& r, const std::string& out) {
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
}

RunResult run_program(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      const std::string& cwd) {
    RunResult result;
    int out_pipe[2], err_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return result;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        close(out_pipe[0]);
        close(err_pipe[0]);
        close(out_pipe[1]);
        close(err_pipe[1]);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        if (chdir(cwd.c_str()) != 0) _exit(126);
        std::vector<char*> args, envp;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_count = 2;
    while (open_count > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace kt
