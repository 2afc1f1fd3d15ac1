// Channel sessions and the free functions on periods, profiles and hour
// folders.
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
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
    int result = 0;
    bool failed = fault("query_time_periods", target, true, &result);
    log_call("query_time_periods",
             {arg("channel_id", static_cast<long long>(channel_id_)),
              arg("record_type", record_type), arg("stream", stream), arg("from_ms", from_ms),
              arg("to_ms", to_ms), arg("a", a), arg("b", b), arg("c", c)},
             failed ? result : 0);
    if (failed) return result;
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
        periods.emplace_back();
        time_period& period = periods.back();
        period.stream = static_cast<uint32_t>(rows.int64(0));
        period.start_ms = rows.int64(1);
        period.end_ms = rows.int64(2);
        int size = 0;
        const unsigned char* data = rows.bytes(3, &size);
        copy_field(period.storage_id, sizeof(period.storage_id), data, size);
        data = rows.bytes(4, &size);
        copy_field(period.period_key, sizeof(period.period_key) - 1, data, size);
    }
    return 0;
}

}  // namespace
}  // namespace sim

// The channel factory is not in the call log.
COrnChannel::COrnChannel() {}

COrnChannel::~COrnChannel() {}

int COrnChannel::create_channel_session(channel_sid channel, IFrameChannelSession** session) {
    int result = 0;
    bool failed = sim::fault("create_channel_session", std::to_string(channel.channel_id), false,
                             &result);
    sim::log_call("create_channel_session",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id)),
                   sim::arg("sid", sim::field_text(channel.sid, sizeof(channel.sid)))},
                  failed ? result : 0);
    if (failed) return result;
    *session = new sim::ChannelSession(channel.channel_id);
    return 0;
}

int COrnChannel::destroy_channel_session(IFrameChannelSession** session) {
    sim::log_call("destroy_channel_session", {}, 0);
    if (session == nullptr || *session == nullptr) return 0;
    delete static_cast<sim::ChannelSession*>(*session);
    *session = nullptr;
    return 0;
}

int retrieve_storage_id_profile_list(channel_sid channel, std::list<TStoreIDProfile>& profiles) {
    profiles.clear();
    int result = 0;
    bool failed = sim::fault("retrieve_storage_id_profile_list",
                             std::to_string(channel.channel_id), true, &result);
    sim::log_call("retrieve_storage_id_profile_list",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id))},
                  failed ? result : 0);
    if (failed) return result;
    static const std::string sql = std::string("SELECT ") + sim::kProfileColumns +
                                   " FROM profiles WHERE channel_id = ?1 ORDER BY rowid";
    sim::Stmt rows(sql.c_str());
    rows.bind(1, static_cast<long long>(channel.channel_id));
    while (rows.step()) {
        profiles.emplace_back();
        sim::fill_profile(rows, profiles.back());
    }
    return 0;
}

int update_time_period(channel_sid channel, char* period_key, char* storage_id) {
    // The key lives in a 64-byte record field and the id in a 32-byte one.
    std::string key = sim::field_text(period_key, sizeof(time_period::period_key));
    int result = 0;
    bool failed = sim::fault("update_time_period", key, true, &result);
    if (!failed) {
        int before = sqlite3_total_changes(sim::db());
        sim::Stmt update(
            "UPDATE periods SET storage_id = ?1 WHERE period_key = ?2 AND channel_id = ?3");
        update.bind_blob(1, storage_id, 32)
            .bind(2, key)
            .bind(3, static_cast<long long>(channel.channel_id));
        update.step();
        result = sqlite3_total_changes(sim::db()) > before ? 0 : -1;
    }
    sim::log_call("update_time_period",
                  {sim::arg("channel_id", static_cast<long long>(channel.channel_id)),
                   sim::arg("period_key", key),
                   sim::arg("storage_id", sim::field_text(storage_id, 32))},
                  result);
    return result;
}

int make_hour_folder_full_path(char* out, const char* fsu_folder, stream_info info,
                               long long time_ms) {
    const size_t kOutSize = 512;
    long long seconds = time_ms / 1000;
    if (time_ms % 1000 < 0) --seconds;  // floor division
    time_t t = static_cast<time_t>(seconds);
    struct tm local;
    if (localtime_r(&t, &local) == nullptr) {
        out[0] = '\0';
        return -1;
    }
    int n = snprintf(out, kOutSize, "%s/%.32s/%u/%u/%04lld%02d%02d/%02d", fsu_folder, info.sid,
                     info.record_type, info.stream, static_cast<long long>(local.tm_year) + 1900,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour);
    if (n < 0 || static_cast<size_t>(n) >= kOutSize) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}
