// Internals of the stand-in storage library: one process-wide SQLite
// connection, injected faults, the call log and row-to-record copies.
#ifndef KELVO_STORAGE_SIM_SIM_H
#define KELVO_STORAGE_SIM_SIM_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <string>
#include <vector>

#include "channel.h"
#include "channel_config.h"
#include "helpers.h"
#include "ornsid.h"
#include "plug_play.h"
#include "storage_setting.h"

namespace sim {

// The open connection, or null before create_storage_setting opened one.
sqlite3* db();
// Opens the database named by ORN_STORAGE_DB once; false when it cannot be
// opened or lacks a table of the schema.
bool open_db();
// ORN_LOG_FILE as an absolute path, resolved when the library was loaded;
// empty when unset.
const std::string& log_file_path();
// Appends |line| and a newline to ORN_LOG_FILE when it is set.
void append_log_line(const std::string& line);

// The recorder's local time. Its zone is the settings row "timezone" or,
// without the row, the process's TZ, looked up once, when the database is
// opened, in the system's time-zone database (|has_row|: whether the row is
// there, |row| its value). The process's TZ is never changed. A name the
// database does not hold leaves no zone, logged once: every call that needs
// a local time then fails and changes nothing.
void resolve_recorder_zone(bool has_row, const std::string& row);
void forget_recorder_zone();
bool local_time_known();

struct LocalHour {
    int year, month, day, hour;
};
// The local date and hour of the instant |ms|; false without a zone.
bool local_hour_of(long long ms, LocalHour& out);

// A span of time in milliseconds, both ends included.
struct Span {
    long long first, last;
};
// The instants the local hour |hour| of that day holds; false without a zone.
bool local_hour_span(int year, int month, int day, int hour, Span& span);

// How long a lock held by another process is waited for.
const int kLockWaitMs = 10000;

// One library call. Its statements share one transaction, so an SQLite error
// anywhere in it leaves the database as it was; the call then fails and the
// error's text goes to ORN_LOG_FILE. Calls inside a call join the outer one.
class Call {
public:
    explicit Call(bool writes = false);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Commits; false (after rolling back) when any statement of the call
    // failed. Statements of the call must be reset (out of scope) by then.
    bool finish();
    bool failed() const;

private:
    bool owner_;
    bool active_;
};

// A prepared statement from the process-wide cache, reset when it goes out
// of scope. Bind indexes start at 1.
class Stmt {
public:
    explicit Stmt(const char* sql);
    ~Stmt();
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    Stmt& bind(int index, long long value);
    Stmt& bind(int index, const std::string& text);
    Stmt& bind_blob(int index, const void* data, int size);
    // True while a row is available; an error fails the current call.
    bool step();
    long long int64(int col) const;
    // Raw bytes of a column (TEXT or BLOB); null pointer and size 0 for NULL.
    const unsigned char* bytes(int col, int* size) const;
    bool is_null(int col) const;

private:
    sqlite3_stmt* stmt_;
};

// A value of the call log's args object.
struct Arg {
    enum Kind { Int, Text, TextArray };
    const char* key;
    Kind kind;
    long long number;
    std::string text;
    std::vector<std::string> texts;
};
Arg arg(const char* key, long long value);
Arg arg(const char* key, const std::string& text);
Arg arg(const char* key, const char* text);
Arg arg(const char* key, const std::vector<std::string>& texts);

// Appends one call_log row when tracing is on (result NULL / the integer).
void log_call(const char* op, std::initializer_list<Arg> args);
void log_call(const char* op, std::initializer_list<Arg> args, long long result);

// Looks up the faults table. Rows whose result is 0 count only where
// |zero_meaningful|. Returns true and sets |result| when a row applies.
bool fault(const char* op, const std::string& target, bool zero_meaningful, int* result);

// Bounded copy of a column into a fixed field; the rest of the field is zero.
void copy_field(char* field, size_t width, const unsigned char* src, int size);
// Uuid column into an ornsid: 36 bytes, zero padded, bytes 36 and 37 zero.
void copy_uuid(ornsid& id, const unsigned char* src, int size);
// The 36 uuid bytes of |id| as a text for SQL comparisons.
std::string uuid_text(const ornsid& id);
// A storage id as 32 bytes, zero padded.
std::string storage_id_bytes(const unsigned char* src, int size);

// The setting interface handed out by COrnStorage. Its operations are
// defined in the source file of their area.
class StorageSetting : public IStorageSetting {
public:
    int set_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) override;
    int get_volume_setting(ornsid volume_uuid, TVolumeSetting* setting) override;
    int refresh_space(ornsid group_uuid) override;
    int get_total_recording_size(ornsid space_uuid, channel_sid channel,
                                 long long* size_mb) override;
    int get_recording_size(ornsid space_uuid, channel_sid channel, int record_type,
                           long long* size_mb) override;
    int get_storage_id_profile_list(ornsid space_uuid,
                                    std::list<TStoreIDProfile>& profiles) override;
    int get_space_list(std::list<TSpaceInfo>& spaces) override;
    int get_volume_list(std::list<TVolumeInfo>& volumes) override;
    int get_channel_setting_list(std::list<TChannelStorageSetting>& settings, int flag) override;
    ~StorageSetting() override = default;
};

// Fills the channel_id and sid of a channel record from columns 0 and 1.
template <typename ChannelRecord>
void fill_channel(const Stmt& row, ChannelRecord& channel) {
    channel.channel_id = static_cast<uint32_t>(row.int64(0));
    int size = 0;
    const unsigned char* data = row.bytes(1, &size);
    copy_field(channel.sid, sizeof(channel.sid), data, size);
}

// Fills a volume record from a row of "SELECT <volume columns> FROM volumes".
extern const char* const kVolumeColumns;
void fill_volume(const Stmt& row, TVolumeInfo& volume);

// Fills a profile from a row of "SELECT <profile columns> FROM profiles".
extern const char* const kProfileColumns;
void fill_profile(const Stmt& row, TStoreIDProfile& profile);

// Creates / destroys the channel storage configuration (statistics area).
int create_channel_configuration(channel_sid channel, IChannelStorageConfiguration** config);
void destroy_channel_configuration(int channel_id, IChannelStorageConfiguration** config);

}  // namespace sim

#endif
