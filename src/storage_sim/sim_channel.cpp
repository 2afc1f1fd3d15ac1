// Channel sessions and the free functions on periods, profiles and hour
// folders.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "sim.h"

namespace sim {
namespace {

class ChannelSession : public IFrameChannelSession {
public:
    explicit ChannelSession(uint32_t channel_id) : channel_id_(channel_id) {}
    ~ChannelSession() override = default;

    int query_time_periods(int record_type, int stream, long long from_ms, long long to_ms,
                           std::list<time_period>& periods, int a, int b, int c) override;

private:
    uint32_t channel_id_;
};

int ChannelSession::query_time_periods(int record_type, int stream, long long from_ms,
                                       long long to_ms, std::list<time_period>& periods, int a,
                                       int b, int c) {
    periods.clear();
    std::string target = std::to_string(channel_id_) + ":" + std::to_string(record_type) + ":" +
                         std::to_string(stream);
    Call call;
    int result = 0;
    bool failed = fault("query_time_periods", target, true, &result);
    std::list<time_period> found;
    if (!failed) {
        Stmt rows(
            "SELECT stream, start_ms, end_ms, storage_id, period_key FROM periods "
            "WHERE channel_id = ?1 AND record_type = ?2 AND stream = ?3 "
            "AND start_ms <= ?4 AND end_ms >= ?5 ORDER BY rowid");
        rows.bind(1, static_cast<long long>(channel_id_))
            .bind(2, record_type)
            .bind(3, stream)
            .bind(4, to_ms)
            .bind(5, from_ms);
        while (rows.step()) {
            found.emplace_back();
            time_period& period = found.back();
            period.stream = static_cast<uint32_t>(rows.int64(0));
            period.start_ms = rows.int64(1);
            period.end_ms = rows.int64(2);
            int size = 0;
            const unsigned char* data = rows.bytes(3, &size);
            copy_field(period.storage_id, sizeof(period.storage_id), data, size);
            data = rows.bytes(4, &size);
            copy_field(period.period_key, sizeof(period.period_key) - 1, data, size);
        }
    }
    log_call("query_time_periods",
             {arg("channel_id", static_cast<long long>(channel_id_)),
              arg("record_type", record_type), arg("stream", stream), arg("from_ms", from_ms),
              arg("to_ms", to_ms), arg("a", a), arg("b", b), arg("c", c)},
             failed ? result : 0);
    if (!call.finish()) return -1;
    if (failed) return result;
    periods.swap(found);
    return 0;
}

// The key as a period record carries it: up to its first zero byte and at
// most the 63 characters the record's field holds.
std::string key_as_read(const unsigned char* data, int size) {
    std::string key(reinterpret_cast<const char*>(data), data ? static_cast<size_t>(size) : 0);
    return key.substr(0, std::min(key.find('\0'), sizeof(time_period::period_key) - 1));
}

// The smallest text above every text that starts with |prefix|; empty when
// there is none.
std::string prefix_end(std::string prefix) {
    while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xff) prefix.pop_back();
    if (!prefix.empty()) prefix.back() = static_cast<char>(prefix.back() + 1);
    return prefix;
}

// The rowid of the one period of the channel whose whole key is |key|, or 0.
// A key that another period's key also reads as (one longer than the record
// holds, or with a zero byte after |key|) names no period for certain.
long long period_named(uint32_t channel_id, const std::string& key) {
    // Candidates: keys starting with |key|, stored as text or as a blob.
    std::string end = prefix_end(key);
    Stmt rows(
        end.empty()
            ? "SELECT rowid, period_key, typeof(period_key) = 'text' FROM periods "
              "WHERE +channel_id = ?1 AND (period_key >= ?2 OR period_key >= CAST(?2 AS BLOB))"
            : "SELECT rowid, period_key, typeof(period_key) = 'text' FROM periods "
              "WHERE +channel_id = ?1 AND ((period_key >= ?2 AND period_key < ?3) OR "
              "(period_key >= CAST(?2 AS BLOB) AND period_key < CAST(?3 AS BLOB)))");
    rows.bind(1, static_cast<long long>(channel_id)).bind(2, key);
    if (!end.empty()) rows.bind(3, end);
    long long named = 0;
    int readers = 0;
    while (rows.step()) {
        int size = 0;
        const unsigned char* data = rows.bytes(1, &size);
        if (key_as_read(data, size) != key) continue;
        ++readers;
        if (rows.int64(2) == 1 && static_cast<size_t>(size) == key.size()) named = rows.int64(0);
    }
    return readers == 1 ? named : 0;
}

}  // namespace
}  // namespace sim

// The channel factory is not in the call log.
COrnChannel::COrnChannel() {}

COrnChannel::~COrnChannel() {}

int COrnChannel::create_channel_session(channel_sid channel, IFrameChannelSession** session) {
    sim::Call call;
    int result = 0;
    bool failed =
        sim::fault("create_channel_session", std::to_string(channel.channel_id), false, &result);
    sim::log_call("create_channel_session",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id)),
                   sim::arg("sid", field_text(channel.sid, sizeof(channel.sid)))},
                  failed ? result : 0);
    if (!call.finish()) return -1;
    if (failed) return result;
    *session = new sim::ChannelSession(channel.channel_id);
    return 0;
}

int COrnChannel::destroy_channel_session(IFrameChannelSession** session) {
    sim::Call call;
    sim::log_call("destroy_channel_session", {}, 0);
    if (session != nullptr && *session != nullptr) {
        delete static_cast<sim::ChannelSession*>(*session);
        *session = nullptr;
    }
    return call.finish() ? 0 : -1;
}

int retrieve_storage_id_profile_list(channel_sid channel, std::list<TStoreIDProfile>& profiles) {
    profiles.clear();
    sim::Call call;
    int result = 0;
    bool failed = sim::fault("retrieve_storage_id_profile_list",
                             std::to_string(channel.channel_id), true, &result);
    std::list<TStoreIDProfile> found;
    if (!failed) {
        static const std::string sql = std::string("SELECT ") + sim::kProfileColumns +
                                       " FROM profiles WHERE channel_id = ?1 ORDER BY rowid";
        sim::Stmt rows(sql.c_str());
        rows.bind(1, static_cast<long long>(channel.channel_id));
        while (rows.step()) {
            found.emplace_back();
            sim::fill_profile(rows, found.back());
        }
    }
    sim::log_call("retrieve_storage_id_profile_list",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id))},
                  failed ? result : 0);
    if (!call.finish()) return -1;
    if (failed) return result;
    profiles.swap(found);
    return 0;
}

int update_time_period(channel_sid channel, char* period_key, char* storage_id) {
    // The key lives in a 64-byte record field and the id in a 32-byte one.
    std::string key = field_text(period_key, sizeof(time_period::period_key));
    sim::Call call(true);
    int result = 0;
    if (!sim::fault("update_time_period", key, true, &result)) {
        long long rowid = sim::period_named(channel.channel_id, key);
        result = -1;
        if (rowid != 0) {
            sim::Stmt update("UPDATE periods SET storage_id = ?1 WHERE rowid = ?2");
            update.bind_blob(1, storage_id, 32).bind(2, rowid);
            update.step();
            result = update.ok() ? 0 : -1;
        }
    }
    sim::log_call("update_time_period",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id)),
                   sim::arg("period_key", key),
                   sim::arg("storage_id", field_text(storage_id, 32))},
                  result);
    return call.finish() ? result : -1;
}

int make_hour_folder_full_path(char* out, const char* fsu_folder, stream_info info,
                               long long time_ms) {
    const size_t kOutSize = 512;
    sim::LocalHour local;
    if (!sim::local_hour_of(time_ms, local)) {
        out[0] = '\0';
        return -1;
    }
    int n =
        snprintf(out, kOutSize, "%s/%.32s/%u/%u/%04d%02d%02d/%02d", fsu_folder, info.sid,
                 info.record_type, info.stream, local.year, local.month, local.day, local.hour);
    if (n < 0 || static_cast<size_t>(n) >= kOutSize) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}
