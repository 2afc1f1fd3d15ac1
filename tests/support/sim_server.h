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

// Deterministic identifiers of the right width: uuid(7) has 36 characters,
// sid(7) and storage_id(7) have 32. SQL run through exec() and query() has
// them as uuid(n), sid(n) and sto(n), and ms('YYYY-MM-DD HH:MM:SS') for a
// local time in milliseconds.
std::string uuid(int n);
std::string sid(int n);
std::string storage_id(int n);
// Milliseconds since the epoch of a local time in the process's TZ.
long long local_ms(int year, int month, int day, int hour, int minute = 0, int second = 0);

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
    // The call log as "op args result" lines, in order.
    std::string call_log();

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

}  // namespace kt

#endif
