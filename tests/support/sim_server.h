// A simulated recording server for tests: a temporary folder, a database made
// from the schema file, and the real binaries run against it.
#ifndef KELVO_TESTS_SIM_SERVER_H
#define KELVO_TESTS_SIM_SERVER_H

#include <string>
#include <vector>

namespace kt {

struct RunResult {
    std::string out, err;
    int status = -1;  // exit status, or -1 when the process did not exit normally
};

// Identifiers of their field's width: uuid(7) has 36 characters, sid(7) and
// storage_id(7) have 32. SQL given to exec() and query() has them as uuid(n),
// sid(n) and sto(n), and ms('YYYY-MM-DD HH:MM:SS') for a local time in ms.
std::string uuid(int n);
std::string sid(int n);
std::string storage_id(int n);
long long local_ms(int year, int month, int day, int hour, int minute = 0, int second = 0);

class SimServer {
public:
    // Sets TZ for this process too, so local times agree with kelvo's;
    // |schema| replaces the schema file's DDL when given.
    explicit SimServer(const std::string& tz = "UTC", const std::string& schema = "");
    ~SimServer();
    SimServer(const SimServer&) = delete;
    SimServer& operator=(const SimServer&) = delete;

    const std::string& root() const { return root_; }
    const std::string& db_path() const { return db_path_; }
    std::string path(const std::string& relative) const;  // below the root unless absolute
    void exec(std::string sql);                           // {root} in it is the root folder
    // Rows as the sqlite3 shell prints them: columns joined by '|', a line a row.
    std::string query(const std::string& sql);
    // path + "/FSU_" + uuid characters 4 to 35, and an hour folder below it.
    std::string fsu_folder(const std::string& volume_path, const std::string& volume_uuid) const;
    std::string hour_folder(const std::string& fsu, const std::string& sid, int record_type,
                            int stream, long long time_ms) const;
    void make_dir(const std::string& path);
    bool exists(const std::string& path) const;
    // Every table but call_log with each value's type and bytes, and every
    // path below the root (folders with a trailing '/', the database left out).
    std::string dump_tables();
    std::vector<std::string> tree() const;
    // Runs kelvo (or |binary|) in the root folder with ORN_STORAGE_DB and TZ;
    // run_at under a fixed clock (libfaketime).
    RunResult run(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                  const std::string& binary = KELVO_BINARY);
    RunResult run_at(long long epoch_seconds, const std::vector<std::string>& args,
                     const std::vector<std::string>& env = {},
                     const std::string& binary = KELVO_BINARY);

private:
    std::string root_, db_path_, tz_;
    void* db_;
};

// Standard output byte for byte, nothing on standard error, status 0.
void expect_output(const RunResult& r, const std::string& out);
std::string read_file(const std::string& path);  // "" when it cannot be read

}  // namespace kt

#endif
