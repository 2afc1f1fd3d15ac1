// A simulated recording server for tests: a temporary folder, a database made
// from the schema file, rows and folders, and a way to run the real kelvo
// binary against it.
#ifndef KELVO_TESTS_SIM_SERVER_H
#define KELVO_TESTS_SIM_SERVER_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace kt {

struct RunResult {
    std::string out;
    std::string err;
    int status = -1;  // exit status, or -1 when the process did not exit normally
};

// A column value for insert().
struct Value {
    enum Kind { Int, Text, Blob, Null };
    Kind kind;
    long long number = 0;
    std::string bytes;

    Value(int v) : kind(Int), number(v) {}
    Value(long long v) : kind(Int), number(v) {}
    Value(const char* v) : kind(Text), bytes(v) {}
    Value(const std::string& v) : kind(Text), bytes(v) {}
    static Value blob(const std::string& v) { return Value(Blob, v); }
    static Value null() { return Value(Null, std::string()); }

private:
    Value(Kind k, const std::string& b) : kind(k), bytes(b) {}
};

struct Space {
    std::string uuid;
    std::string name;
    std::string group_uuid;
    long long total_size_mb = 0;
    long long used_size_mb = 0;
    long long status = 0;
    long long spare_status = 0;
};

struct Volume {
    std::string uuid;
    std::string group_uuid;
    std::string path;  // relative paths are taken below the server's root
    long long volume_no = -1;
    long long volume_type = 0;
    long long state = 0;
    long long total_size_mb = 0;
    long long used_size_mb = 0;
    std::string label;
    bool make_fsu_folder = true;  // creates path/FSU_<uuid 4..35>/preallocate
};

struct Period {
    long long channel_id = 0;
    long long record_type = 4;
    long long stream = 1;
    long long start_ms = 0;
    long long end_ms = 0;
    Value storage_id = Value::null();
    std::string period_key;
    long long size_mb = 0;
};

struct Profile {
    long long channel_id = 0;
    std::string sid;
    std::string space_uuid;
    std::string group_uuid;
    std::string volume_uuid;
    std::string storage_id;
};

// Deterministic identifiers of the right width: uuid(7) has 36 characters,
// sid(7) and storage_id(7) have 32.
std::string uuid(int n);
std::string sid(int n);
std::string storage_id(int n);
// Milliseconds since the epoch of a local time in the process's TZ.
long long local_ms(int year, int month, int day, int hour, int minute = 0, int second = 0);

// Rows by number: uuid(n), uuid(group), uuid(space) and so on; fields left out
// keep their defaults.
Space space_row(int n, const std::string& name, int group, long long total_mb = 0,
                long long used_mb = 0, long long status = 0, long long spare_status = 0);
Volume volume_row(int n, int group, const std::string& path, long long volume_no = -1,
                  long long total_mb = 0, long long used_mb = 0, long long type = 0,
                  long long state = 0, const std::string& label = "");
Period period_row(long long channel, long long record_type, long long stream, long long start_ms,
                  long long end_ms, const Value& storage_id = Value::null(),
                  const std::string& key = "", long long size_mb = 0);
Profile profile_row(long long channel, const std::string& sid, int space, int group, int volume,
                    const std::string& storage_id);

class SimServer {
public:
    // Sets TZ for this process too, so local times agree with kelvo's.
    // |schema| replaces the schema file's DDL when given.
    explicit SimServer(const std::string& tz = "UTC", const std::string& schema = "");
    ~SimServer();
    SimServer(const SimServer&) = delete;
    SimServer& operator=(const SimServer&) = delete;

    const std::string& root() const { return root_; }
    const std::string& db_path() const { return db_path_; }
    const std::string& tz() const { return tz_; }
    // An absolute path below the root for a relative one.
    std::string path(const std::string& relative) const;

    void exec(const std::string& sql);
    // Rows as the sqlite3 shell prints them: columns joined by '|', one line a row.
    std::string query(const std::string& sql);
    void insert(const std::string& table,
                std::initializer_list<std::pair<const char*, Value>> columns);

    void add_space(const Space& space);
    // Returns the volume's FSU folder.
    std::string add_volume(const Volume& volume);
    void add_channel(long long channel_id, const std::string& sid);
    void add_period(const Period& period);
    void add_profile(const Profile& profile);
    void add_volume_channel(long long volume_no, long long channel_id, const std::string& sid = "");
    void add_fault(const std::string& op, const std::string& target = "*", long long result = -1);
    void enable_trace();
    // The call log as "op args result" lines, in order.
    std::string call_log();
    // How many calls of |op| the log holds.
    int call_count(const std::string& op);

    // FSU folder of a volume: path + "/FSU_" + uuid characters 4 to 35.
    std::string fsu_folder(const std::string& volume_path, const std::string& volume_uuid) const;
    // Hour folder below an FSU folder, in local time, as the library builds it.
    std::string hour_folder(const std::string& fsu, const std::string& sid, int record_type,
                            int stream, long long time_ms) const;
    void make_dir(const std::string& path);  // like mkdir -p; absolute or below root
    bool exists(const std::string& path) const;

    // Every table but call_log, row by row with each value's type and bytes,
    // for comparing the state before and after a run.
    std::string dump_tables();
    // Every path below the root, relative to it, folders with a trailing '/';
    // the database and its journal are left out.
    std::vector<std::string> tree() const;

    // Runs kelvo (or |binary|) with ORN_STORAGE_DB and TZ set, in the root folder.
    RunResult run(const std::vector<std::string>& args,
                  const std::vector<std::string>& extra_env = {},
                  const std::string& binary = KELVO_BINARY);
    // The same under a fixed clock (libfaketime), at |epoch_seconds|.
    RunResult run_at(long long epoch_seconds, const std::vector<std::string>& args,
                     const std::vector<std::string>& extra_env = {},
                     const std::string& binary = KELVO_BINARY);

private:
    std::string root_;
    std::string db_path_;
    std::string tz_;
    void* db_;
};

// Standard output byte for byte, nothing on standard error, status 0.
void expect_output(const RunResult& r, const std::string& out);

// The whole file ("" when it cannot be read).
std::string read_file(const std::string& path);

// Runs any program with the given environment, capturing both outputs.
RunResult run_program(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      const std::string& cwd);

// The usage text, as kelvo prints it.
extern const char* const kUsageText;

}  // namespace kt

#endif
