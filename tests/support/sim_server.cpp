#include "sim_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace fs = std::filesystem;

namespace kt {
namespace {

sqlite3* handle(void* db) { return static_cast<sqlite3*>(db); }

std::string padded(int n, size_t width) {
    std::string digits = std::to_string(n);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
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

// Runs |argv| in |cwd| with PATH, HOME and the sanitizer options of this
// process plus |env| (later entries win), its outputs captured in files.
RunResult run_program(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      const std::string& cwd) {
    std::vector<std::string> all;
    for (char** e = environ; *e; ++e)
        for (const char* keep : {"PATH=", "HOME=", "ASAN_OPTIONS=", "UBSAN_OPTIONS="})
            if (strncmp(*e, keep, strlen(keep)) == 0) all.push_back(*e);
    for (const std::string& extra : env) {
        std::string name = extra.substr(0, extra.find('=') + 1);
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [&](const std::string& e) { return e.rfind(name, 0) == 0; }),
                  all.end());
        all.push_back(extra);
    }
    const std::string out = cwd + ".stdout", err = cwd + ".stderr";  // beside the folder
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 ||
            chdir(cwd.c_str()) != 0)
            _exit(126);
        std::vector<char*> args, envp;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        for (const std::string& a : all) envp.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        envp.push_back(nullptr);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult r{read_file(out), read_file(err), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
    fs::remove(out);
    fs::remove(err);
    return r;
}

}  // namespace

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::string uuid(int n) { return "a0b1c2d3-0000-4000-8000-" + padded(n, 12); }
std::string sid(int n) { return "5d" + padded(n, 30); }
std::string storage_id(int n) { return "7e" + padded(n, 30); }

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
    root_ = mkdtemp(pattern) ? pattern : "";
    db_path_ = root_ + "/storage.db";
    sqlite3* db = nullptr;
    if (root_.empty() || sqlite3_open(db_path_.c_str(), &db) != SQLITE_OK)
        throw std::runtime_error("cannot create the test server");
    db_ = db;
    for (const char* f : {"uuid", "sid", "sto", "ms"})
        sqlite3_create_function(db, f, 1, SQLITE_UTF8, const_cast<char*>(f), sql_function, nullptr,
                                nullptr);
    exec(schema.empty() ? read_file(KELVO_SCHEMA) : schema);
}

SimServer::~SimServer() {
    sqlite3_close(handle(db_));
    // Folders made read-only by a test must not stop the clean-up.
    if (system(("chmod -R u+rwx '" + root_ + "' 2>/dev/null").c_str()) != 0) {
    }
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string SimServer::path(const std::string& relative) const {
    return !relative.empty() && relative[0] == '/' ? relative : root_ + "/" + relative;
}

void SimServer::exec(std::string sql) {
    for (size_t at; (at = sql.find("{root}")) != std::string::npos;) sql.replace(at, 6, root_);
    char* error = nullptr;
    if (sqlite3_exec(handle(db_), sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK)
        ADD_FAILURE() << "SQL failed: " << (error ? error : "?") << "\n" << sql;
    sqlite3_free(error);
}

std::string SimServer::query(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(handle(db_), sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
        ADD_FAILURE() << "SQL failed: " << sqlite3_errmsg(handle(db_)) << "\n" << sql;
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            const unsigned char* text = sqlite3_column_text(stmt, i);
            if (i) out += '|';
            if (text)
                out.append(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt, i));
        }
        out += '\n';
    }
    sqlite3_finalize(stmt);
    return out;
}

std::string SimServer::fsu_folder(const std::string& volume_path,
                                  const std::string& volume_uuid) const {
    return path(volume_path) + "/FSU_" + (volume_uuid.size() > 4 ? volume_uuid.substr(4, 32) : "");
}

std::string SimServer::hour_folder(const std::string& fsu, const std::string& sid, int record_type,
                                   int stream, long long time_ms) const {
    time_t t = static_cast<time_t>(time_ms >= 0 ? time_ms / 1000 : -((-time_ms + 999) / 1000));
    struct tm local = {};
    localtime_r(&t, &local);
    char tail[64];
    snprintf(tail, sizeof(tail), "/%d/%d/%04d%02d%02d/%02d", record_type, stream,
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
    return fsu + "/" + sid.substr(0, 32) + tail;
}

void SimServer::make_dir(const std::string& p) {
    std::error_code error;
    fs::create_directories(path(p), error);
    if (error) ADD_FAILURE() << "mkdir failed: " << p << ": " << error.message();
}

bool SimServer::exists(const std::string& p) const { return fs::exists(path(p)); }

std::string SimServer::dump_tables() {
    std::string out, table;
    std::istringstream names(
        query("SELECT name FROM sqlite_master WHERE type = 'table' AND name "
              "NOT IN ('call_log', 'sqlite_sequence') ORDER BY name"));
    while (std::getline(names, table)) {
        std::istringstream columns(query("SELECT name FROM pragma_table_info('" + table + "')"));
        std::string column, select = "SELECT rowid";
        while (std::getline(columns, column))
            select += ", typeof(" + column + ") || ':' || hex(" + column + ")";
        out += "== " + table + "\n" + query(select + " FROM " + table + " ORDER BY rowid");
    }
    return out;
}

std::vector<std::string> SimServer::tree() const {
    std::vector<std::string> entries;
    for (const auto& e : fs::recursive_directory_iterator(root_, fs::directory_options::none)) {
        std::string relative = e.path().string().substr(root_.size() + 1);
        if (relative.rfind("storage.db", 0) == 0) continue;
        entries.push_back(relative + (e.is_directory() && !e.is_symlink() ? "/" : ""));
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

RunResult SimServer::run(const std::vector<std::string>& args, const std::vector<std::string>& env,
                         const std::string& binary) {
    std::vector<std::string> argv{binary}, all{"ORN_STORAGE_DB=" + db_path_, "TZ=" + tz_};
    argv.insert(argv.end(), args.begin(), args.end());
    all.insert(all.end(), env.begin(), env.end());
    return run_program(argv, all, root_);
}

RunResult SimServer::run_at(long long epoch_seconds, const std::vector<std::string>& args,
                            const std::vector<std::string>& env, const std::string& binary) {
    time_t t = static_cast<time_t>(epoch_seconds);
    struct tm local = {};
    localtime_r(&t, &local);
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::vector<std::string> all = {
        "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1",
        std::string("FAKETIME=") + stamp, "FAKETIME_DONT_FAKE_MONOTONIC=1",
        "ASAN_OPTIONS=verify_asan_link_order=0"};
    all.insert(all.end(), env.begin(), env.end());
    return run(args, all, binary);
}

void expect_output(const RunResult& r, const std::string& out) {
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
}

}  // namespace kt
