// Builds a large simulated recording server for the benchmark: one database
// made from the schema file, filled in a single transaction, and the volume
// folders with an hour folder for every period whose storage id is null.
//
//   gen_server --schema FILE --db FILE --root DIR [--channels N] [--volumes N]
//              [--periods N] [--null-share F] [--leaking N] [--seed N] [--now-ms N]
//
// Channel c records on volume c % volumes; its periods (record types 4 and 1,
// streams 1 to 4, one hour each, ending before now) are inserted in time
// order across all streams, as a recorder writes them. Volumes 0 to
// leaking-1 report sizes that make them lose more than 5% of their total.
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

const long long kHourMs = 3600LL * 1000;
const int kRecordTypes[] = {4, 1};
const int kStreams = 4;

struct Options {
    std::string schema;
    std::string db;
    std::string root;
    int channels = 16;
    int volumes = 8;
    int periods = 1024;  // per channel, record type and stream
    double null_share = 0.01;
    int leaking = 2;
    unsigned seed = 1;
    long long now_ms = 0;
};

void usage() {
    fprintf(stderr,
            "usage: gen_server --schema FILE --db FILE --root DIR [--channels 1..256] "
            "[--volumes 1..32] [--periods N] [--null-share 0..1] [--leaking N] [--seed N] "
            "[--now-ms N]\n");
    exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string key = argv[i];
        if (i + 1 >= argc) usage();
        const char* value = argv[++i];
        if (key == "--schema") o.schema = value;
        else if (key == "--db") o.db = value;
        else if (key == "--root") o.root = value;
        else if (key == "--channels") o.channels = atoi(value);
        else if (key == "--volumes") o.volumes = atoi(value);
        else if (key == "--periods") o.periods = atoi(value);
        else if (key == "--null-share") o.null_share = atof(value);
        else if (key == "--leaking") o.leaking = atoi(value);
        else if (key == "--seed") o.seed = static_cast<unsigned>(strtoul(value, nullptr, 10));
        else if (key == "--now-ms") o.now_ms = strtoll(value, nullptr, 10);
        else usage();
    }
    if (o.schema.empty() || o.db.empty() || o.root.empty()) usage();
    if (o.channels < 1 || o.channels > 256 || o.volumes < 1 || o.volumes > 32 || o.periods < 0 ||
        o.null_share < 0 || o.null_share > 1)
        usage();
    if (o.now_ms == 0) o.now_ms = static_cast<long long>(time(nullptr)) * 1000;
    return o;
}

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "gen_server: %s\n", what.c_str());
    exit(1);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    if (!in) fail("cannot read " + path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::string numbered(const char* prefix, int n, int width) {
    char digits[64];
    snprintf(digits, sizeof(digits), "%s%0*d", prefix, width - static_cast<int>(strlen(prefix)),
             n);
    return digits;
}

// Identifiers of the widths the records hold.
std::string space_uuid(int n) { return "5pace000-0000-4000-8000-" + numbered("", n, 12); }
std::string group_uuid(int n) { return "9r0up000-0000-4000-8000-" + numbered("", n, 12); }
std::string volume_uuid(int n) { return "v0l00000-0000-4000-8000-" + numbered("", n, 12); }
std::string channel_sid_text(int n) { return numbered("c4a1", n, 32); }
std::string profile_storage_id(int channel, int volume) {
    return numbered("57", channel * 100 + volume, 32);
}

// mkdir -p that remembers what it made.
class Folders {
public:
    void make(const std::string& path) {
        if (made_.count(path)) return;
        size_t slash = path.rfind('/');
        if (slash != std::string::npos && slash > 0) make(path.substr(0, slash));
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + path);
        made_.insert(path);
    }

private:
    std::set<std::string> made_;
};

class Db {
public:
    explicit Db(const std::string& path) {
        remove(path.c_str());
        if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) fail("cannot create " + path);
    }
    ~Db() { sqlite3_close(db_); }
    void exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK)
            fail(std::string("SQL: ") + (error ? error : "?"));
    }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) != SQLITE_OK)
            fail(std::string("prepare: ") + sqlite3_errmsg(db_));
        return stmt;
    }
    void done(sqlite3_stmt* stmt) {
        if (sqlite3_step(stmt) != SQLITE_DONE) fail(std::string("insert: ") + sqlite3_errmsg(db_));
        sqlite3_reset(stmt);
    }

private:
    sqlite3* db_ = nullptr;
};

void bind_text(sqlite3_stmt* stmt, int index, const std::string& text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string volume_path(const Options& o, int v) {
    return o.root + "/share/" + numbered("Vol", v, 5);
}

std::string fsu_folder(const Options& o, int v) {
    return volume_path(o, v) + "/FSU_" + volume_uuid(v).substr(4, 32);
}

// The library's hour folder of a stream at |time_ms|, in local time.
std::string hour_folder(const Options& o, int volume, int channel, int record_type, int stream,
                        long long time_ms) {
    time_t seconds = static_cast<time_t>(time_ms / 1000);
    struct tm local = {};
    localtime_r(&seconds, &local);
    char tail[64];
    snprintf(tail, sizeof(tail), "/%d/%d/%04d%02d%02d/%02d", record_type, stream,
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
    return fsu_folder(o, volume) + "/" + channel_sid_text(channel) + tail;
}

void add_spaces_and_volumes(Db& db, const Options& o, Folders& folders) {
    sqlite3_stmt* space = db.prepare(
        "INSERT INTO spaces (uuid, name, group_uuid, total_size_mb, used_size_mb) "
        "VALUES (?1, 'Space0', ?2, ?3, ?4)");
    long long volume_total = 1000000;
    bind_text(space, 1, space_uuid(0));
    bind_text(space, 2, group_uuid(0));
    sqlite3_bind_int64(space, 3, volume_total * o.volumes);
    sqlite3_bind_int64(space, 4, volume_total * o.volumes / 2);
    db.done(space);
    sqlite3_finalize(space);

    sqlite3_stmt* volume = db.prepare(
        "INSERT INTO volumes (uuid, group_uuid, path, volume_no, total_size_mb, used_size_mb) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    for (int v = 0; v < o.volumes; ++v) {
        // An empty preallocate folder measures 0 MB: used 0 loses everything,
        // used 99% of the total loses 1%.
        long long used = v < o.leaking ? 0 : volume_total * 99 / 100;
        bind_text(volume, 1, volume_uuid(v));
        bind_text(volume, 2, group_uuid(0));
        bind_text(volume, 3, volume_path(o, v));
        sqlite3_bind_int64(volume, 4, v + 1);
        sqlite3_bind_int64(volume, 5, volume_total);
        sqlite3_bind_int64(volume, 6, used);
        db.done(volume);
        folders.make(fsu_folder(o, v) + "/preallocate");
    }
    sqlite3_finalize(volume);
}

void add_channels(Db& db, const Options& o) {
    sqlite3_stmt* channel = db.prepare("INSERT INTO channels (channel_id, sid) VALUES (?1, ?2)");
    sqlite3_stmt* profile = db.prepare(
        "INSERT INTO profiles (channel_id, sid, space_uuid, group_uuid, volume_uuid, storage_id) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    sqlite3_stmt* on_volume =
        db.prepare("INSERT INTO volume_channels (volume_no, channel_id, sid) VALUES (?1, ?2, ?3)");
    for (int c = 0; c < o.channels; ++c) {
        std::string sid = channel_sid_text(c);
        sqlite3_bind_int64(channel, 1, c);
        bind_text(channel, 2, sid);
        db.done(channel);
        // Profiles of the volume the channel records on and of the next one.
        int home = c % o.volumes;
        int places[] = {home, (home + 1) % o.volumes};
        for (int i = 0; i < (o.volumes > 1 ? 2 : 1); ++i) {
            sqlite3_bind_int64(profile, 1, c);
            bind_text(profile, 2, sid);
            bind_text(profile, 3, space_uuid(0));
            bind_text(profile, 4, group_uuid(0));
            bind_text(profile, 5, volume_uuid(places[i]));
            bind_text(profile, 6, profile_storage_id(c, places[i]));
            db.done(profile);
        }
        sqlite3_bind_int64(on_volume, 1, home + 1);
        sqlite3_bind_int64(on_volume, 2, c);
        bind_text(on_volume, 3, sid);
        db.done(on_volume);
    }
    sqlite3_finalize(channel);
    sqlite3_finalize(profile);
    sqlite3_finalize(on_volume);
}

long long add_periods(Db& db, const Options& o, Folders& folders) {
    sqlite3_stmt* period = db.prepare(
        "INSERT INTO periods (channel_id, record_type, stream, start_ms, end_ms, storage_id, "
        "period_key, size_mb) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
    std::mt19937 random(o.seed);
    std::uniform_real_distribution<double> share(0.0, 1.0);
    long long nulls = 0;
    // The newest period ends one hour before now; the oldest starts
    // |periods| hours earlier.
    long long first_start = (o.now_ms / kHourMs - 1 - o.periods) * kHourMs;
    for (int i = 0; i < o.periods; ++i) {
        long long start = first_start + i * kHourMs;
        for (int c = 0; c < o.channels; ++c) {
            int home = c % o.volumes;
            std::string storage_id = profile_storage_id(c, home);
            for (int record_type : kRecordTypes) {
                for (int stream = 1; stream <= kStreams; ++stream) {
                    // Starts spread over the hour, so periods are not aligned.
                    long long offset = (c * 7919 + stream * 104729) % (kHourMs / 4);
                    char key[64];
                    snprintf(key, sizeof(key), "c%03d-t%d-s%d-%07d", c, record_type, stream, i);
                    sqlite3_bind_int64(period, 1, c);
                    sqlite3_bind_int64(period, 2, record_type);
                    sqlite3_bind_int64(period, 3, stream);
                    sqlite3_bind_int64(period, 4, start + offset);
                    sqlite3_bind_int64(period, 5, start + offset + kHourMs - 1000);
                    if (share(random) < o.null_share) {
                        sqlite3_bind_null(period, 6);
                        folders.make(hour_folder(o, home, c, record_type, stream, start + offset));
                        ++nulls;
                    } else {
                        sqlite3_bind_blob(period, 6, storage_id.data(), 32, SQLITE_TRANSIENT);
                    }
                    bind_text(period, 7, key);
                    sqlite3_bind_int64(period, 8, 1000 + (i % 700));
                    db.done(period);
                }
            }
        }
    }
    sqlite3_finalize(period);
    return nulls;
}

}  // namespace

int main(int argc, char** argv) {
    Options o = parse(argc, argv);
    Folders folders;
    folders.make(o.root + "/share");
    Db db(o.db);
    db.exec("PRAGMA journal_mode = MEMORY; PRAGMA synchronous = OFF;");
    db.exec(read_file(o.schema));
    db.exec("BEGIN");
    // The hour folders are made in this process's zone: the recorder's.
    const char* tz = getenv("TZ");
    if (tz != nullptr && *tz != '\0') {
        sqlite3_stmt* zone = db.prepare("INSERT INTO settings VALUES ('timezone', ?1)");
        bind_text(zone, 1, tz);
        db.done(zone);
        sqlite3_finalize(zone);
    }
    add_spaces_and_volumes(db, o, folders);
    add_channels(db, o);
    long long nulls = add_periods(db, o, folders);
    db.exec("COMMIT");
    long long total = static_cast<long long>(o.periods) * o.channels * 2 * kStreams;
    printf("%lld periods, %lld with a null storage id, %d channels, %d volumes\n", total, nulls,
           o.channels, o.volumes);
    return 0;
}
