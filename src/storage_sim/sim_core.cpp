// Connection, statement cache, call log, faults and field copies shared by
// every operation of the stand-in library.
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "log.h"
#include "sim.h"

namespace sim {
namespace {

sqlite3* g_db = nullptr;
bool g_tried_open = false;
bool g_trace = false;

std::map<std::string, sqlite3_stmt*>& statement_cache() {
    static std::map<std::string, sqlite3_stmt*> cache;
    return cache;
}

void statement_cache_clear() {
    for (auto& entry : statement_cache()) sqlite3_finalize(entry.second);
    statement_cache().clear();
}

std::string resolve_log_file() { return absolute_path(getenv("ORN_LOG_FILE")); }

const std::string g_log_file = resolve_log_file();

// Every table with every column the library reads or writes. Preparing a
// SELECT of them fails when one is missing.
const char* const kSchemaChecks[] = {
    "SELECT uuid, name, group_uuid, total_size_mb, used_size_mb, status, spare_status "
    "FROM spaces",
    "SELECT uuid, group_uuid, path, volume_no, volume_type, state, total_size_mb, "
    "used_size_mb, label FROM volumes",
    "SELECT channel_id, sid FROM channels",
    "SELECT channel_id, record_type, stream, start_ms, end_ms, storage_id, period_key, size_mb "
    "FROM periods",
    "SELECT channel_id, sid, space_uuid, group_uuid, volume_uuid, storage_id FROM profiles",
    "SELECT volume_no, channel_id, sid FROM volume_channels",
    "SELECT op, target, result FROM faults",
    "SELECT key, value FROM settings",
    "SELECT seq, op, args, result FROM call_log"};

bool has_schema(sqlite3* handle) {
    for (const char* sql : kSchemaChecks) {
        sqlite3_stmt* stmt = nullptr;
        int rc = sqlite3_prepare_v2(handle, sql, -1, &stmt, nullptr);
        sqlite3_finalize(stmt);
        if (rc != SQLITE_OK) return false;
    }
    return true;
}

// The call in progress: nesting depth and whether a statement of it failed,
// with the first error's text.
int g_call_depth = 0;
bool g_call_failed = false;
std::string g_call_error;

// Looks the recorder's zone up from the settings row, or the process's TZ
// without one.
void read_recorder_zone() {
    Stmt row("SELECT value FROM settings WHERE key = 'timezone'");
    if (!row.step()) {
        if (!g_call_failed) resolve_recorder_zone(false, "");
        return;
    }
    int size = 0;
    const unsigned char* data = row.bytes(0, &size);
    resolve_recorder_zone(true, std::string(reinterpret_cast<const char*>(data),
                                            data ? static_cast<size_t>(size) : 0));
}

}  // namespace

void append_log_line(const std::string& line) {
    const std::string& path = log_file_path();
    if (path.empty()) return;
    FILE* file = fopen(path.c_str(), "a");
    if (file == nullptr) return;
    // One line whatever the text holds: a zone name or a path may carry any byte.
    std::string escaped;
    for (unsigned char c : line) {
        char hex[5];
        snprintf(hex, sizeof(hex), "\\x%02X", c);
        if (c >= 0x20 && c < 0x7f) escaped += static_cast<char>(c);
        else escaped += hex;
    }
    fprintf(file, "%s\n", escaped.c_str());
    fclose(file);
}

sqlite3* db() { return g_db; }

const std::string& log_file_path() { return g_log_file; }

void record_error(const char* text) {
    if (!g_call_failed) g_call_error = text ? text : "unknown error";
    g_call_failed = true;
}

bool open_db() {
    if (g_db != nullptr) return true;
    if (g_tried_open) return false;
    g_tried_open = true;
    const char* env = getenv("ORN_STORAGE_DB");
    std::string path = absolute_path(env ? env : "/var/lib/ornstorage/storage.db");
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        append_log_line(handle ? sqlite3_errmsg(handle) : "out of memory");
        sqlite3_close(handle);
        return false;
    }
    sqlite3_busy_timeout(handle, kLockWaitMs);
    // A channel's queries touch the same table pages again and again; a 16 MiB
    // page cache keeps them, at a memory cost that does not grow with the data.
    sqlite3_exec(handle, "PRAGMA cache_size = -16384", nullptr, nullptr, nullptr);
    if (!has_schema(handle)) {
        append_log_line(sqlite3_errmsg(handle));
        sqlite3_close(handle);
        return false;
    }
    g_db = handle;
    Call call;
    {
        Stmt trace("SELECT value FROM settings WHERE key = 'trace'");
        g_trace = trace.step() && trace.int64(0) == 1;
    }
    read_recorder_zone();
    if (call.finish()) return true;
    // A database that cannot be read now is no server for this process.
    statement_cache_clear();
    sqlite3_close(handle);
    g_db = nullptr;
    g_trace = false;
    forget_recorder_zone();
    return false;
}

Call::Call(bool writes) : owner_(g_call_depth++ == 0), active_(false) {
    if (!owner_) return;
    g_call_failed = false;
    g_call_error.clear();
    if (g_db == nullptr) return;
    // Calls that write take the write lock first: waiting for it is safe,
    // upgrading a read lock later is not.
    const char* begin = writes || g_trace ? "BEGIN IMMEDIATE" : "BEGIN";
    if (sqlite3_exec(g_db, begin, nullptr, nullptr, nullptr) == SQLITE_OK) active_ = true;
    else record_error(sqlite3_errmsg(g_db));
}

Call::~Call() {
    if (owner_) finish();
    --g_call_depth;
}

bool Call::finish() {
    if (!owner_) return !g_call_failed;
    if (active_) {
        active_ = false;
        if (!g_call_failed && sqlite3_exec(g_db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
            record_error(sqlite3_errmsg(g_db));
        if (g_call_failed) sqlite3_exec(g_db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    if (g_call_failed && !g_call_error.empty()) {
        append_log_line(g_call_error);
        g_call_error.clear();
    }
    return !g_call_failed;
}

bool Call::failed() const { return g_call_failed; }

Stmt::Stmt(const char* sql) : stmt_(nullptr) {
    if (g_db == nullptr) return;
    auto& cache = statement_cache();
    auto found = cache.find(sql);
    if (found != cache.end()) {
        stmt_ = found->second;
        return;
    }
    if (sqlite3_prepare_v2(g_db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
        record_error(sqlite3_errmsg(g_db));
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        return;
    }
    cache.emplace(sql, stmt_);
}

Stmt::~Stmt() {
    if (stmt_ == nullptr) return;
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

Stmt& Stmt::bind(int index, long long value) {
    if (stmt_) sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

Stmt& Stmt::bind(int index, const std::string& text) {
    if (stmt_)
        sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    return *this;
}

Stmt& Stmt::bind_blob(int index, const void* data, int size) {
    if (stmt_) sqlite3_bind_blob(stmt_, index, data, size, SQLITE_TRANSIENT);
    return *this;
}

bool Stmt::step() {
    // After an error the call is over: nothing more waits for a lock.
    if (stmt_ == nullptr || (g_call_failed && g_call_depth > 0)) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) record_error(sqlite3_errmsg(g_db));
    return false;
}

long long Stmt::int64(int col) const { return sqlite3_column_int64(stmt_, col); }

const unsigned char* Stmt::bytes(int col, int* size) const {
    if (sqlite3_column_type(stmt_, col) == SQLITE_NULL) {
        *size = 0;
        return nullptr;
    }
    // Blob access keeps embedded zero bytes of TEXT values as they are.
    const void* data = sqlite3_column_blob(stmt_, col);
    *size = sqlite3_column_bytes(stmt_, col);
    return static_cast<const unsigned char*>(data);
}

bool Stmt::is_null(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }

Arg arg(const char* key, long long value) { return Arg{key, Arg::Int, value, {}, {}}; }
Arg arg(const char* key, const std::string& text) { return Arg{key, Arg::Text, 0, text, {}}; }
Arg arg(const char* key, const char* text) { return Arg{key, Arg::Text, 0, text, {}}; }
Arg arg(const char* key, const std::vector<std::string>& texts) {
    return Arg{key, Arg::TextArray, 0, {}, texts};
}

namespace {

void write_log_row(const char* op, std::initializer_list<Arg> args, const long long* result) {
    if (g_db == nullptr || !g_trace) return;
    // The SQL depends only on the keys and array lengths, so it caches well.
    std::string sql = "INSERT INTO call_log (op, args, result) VALUES (?1, json_object(";
    int index = 2;
    bool first = true;
    for (const Arg& a : args) {
        if (!first) sql += ", ";
        first = false;
        sql += "'";
        sql += a.key;
        sql += "', ";
        if (a.kind == Arg::TextArray) {
            sql += "json_array(";
            for (size_t i = 0; i < a.texts.size(); ++i) {
                if (i) sql += ", ";
                sql += "?" + std::to_string(index++);
            }
            sql += ")";
        } else {
            sql += "?" + std::to_string(index++);
        }
    }
    sql += "), ?" + std::to_string(index) + ")";
    Stmt insert(sql.c_str());
    insert.bind(1, std::string(op));
    int bind_index = 2;
    for (const Arg& a : args) {
        if (a.kind == Arg::Int) {
            insert.bind(bind_index++, a.number);
        } else if (a.kind == Arg::Text) {
            insert.bind(bind_index++, a.text);
        } else {
            for (const std::string& t : a.texts) insert.bind(bind_index++, t);
        }
    }
    if (result) insert.bind(bind_index, *result);
    insert.step();
}

}  // namespace

void log_call(const char* op, std::initializer_list<Arg> args) {
    Call call;
    write_log_row(op, args, nullptr);
}

void log_call(const char* op, std::initializer_list<Arg> args, long long result) {
    Call call;
    write_log_row(op, args, &result);
}

bool fault(const char* op, const std::string& target, bool zero_meaningful, int* result) {
    if (g_db == nullptr) return false;
    Stmt query(
        "SELECT result FROM faults WHERE op = ?1 AND (target = ?2 OR target = '*') "
        "AND (?3 OR result <> 0) ORDER BY target = ?2 DESC, rowid LIMIT 1");
    query.bind(1, std::string(op)).bind(2, target).bind(3, zero_meaningful ? 1 : 0);
    if (!query.step()) return false;
    *result = static_cast<int>(query.int64(0));
    return true;
}

void copy_field(char* field, size_t width, const unsigned char* src, int size) {
    std::memset(field, 0, width);
    if (src == nullptr || size <= 0) return;
    std::memcpy(field, src, std::min(width, static_cast<size_t>(size)));
}

void copy_uuid(ornsid& id, const unsigned char* src, int size) {
    copy_field(id.uuid, sizeof(id.uuid), src, size);
    id.zero[0] = id.zero[1] = 0;
}

std::string uuid_text(const ornsid& id) { return field_text(id.uuid, sizeof(id.uuid)); }

std::string storage_id_bytes(const unsigned char* src, int size) {
    std::string bytes(32, '\0');
    if (src != nullptr && size > 0) std::memcpy(&bytes[0], src, std::min(32, size));
    return bytes;
}

}  // namespace sim

void log_Debug(const char* format, ...) {
    char message[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    sim::log_call("log_Debug", {sim::arg("message", message)});
    sim::append_log_line(message);
}
