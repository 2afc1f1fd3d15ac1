// The recorder's local time through the system's time-zone database. The
// zone is looked up once per process, by name only: a name the database does
// not list opens nothing and leaves no zone, so every local time fails.
#include <date/tz.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "sim.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

const date::time_zone* g_zone = nullptr;

// Instants beyond this many seconds from 1970 (some 28,000 years) have no
// date the calendar arithmetic can hold: they have no local time.
const long long kMaxSeconds = 900000000000LL;

const date::time_zone* locate(const std::string& name) {
    try {
        return date::locate_zone(name);
    } catch (const std::exception&) {
        return nullptr;
    }
}

// The name with every byte outside printable ASCII as \xHH.
std::string escaped(const std::string& name) {
    std::string out;
    for (unsigned char c : name) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

// The process's own zone, as the C library reads TZ: unset, the system's
// zone (UTC when it has none); empty, UTC; otherwise a name of the database,
// with or without a leading ':'.
const date::time_zone* process_zone(std::string& name) {
    const char* tz = getenv("TZ");
    if (tz == nullptr) {
        try {
            return date::current_zone();
        } catch (const std::exception&) {
            return locate("UTC");
        }
    }
    name = tz;
    std::string bare = !name.empty() && name[0] == ':' ? name.substr(1) : name;
    return locate(bare.empty() ? "UTC" : bare);
}

bool in_range(long long ms) { return ms > -kMaxSeconds * 1000 && ms < kMaxSeconds * 1000; }

}  // namespace

void resolve_recorder_zone(bool has_row, const std::string& row) {
    std::string name;
    g_zone = has_row ? locate(name = row) : process_zone(name);
    if (g_zone == nullptr)
        append_log_line(std::string(has_row ? "timezone" : "TZ") + " '" + escaped(name) +
                        "' is no zone of the time-zone database; no local time: calls that "
                        "need one fail");
}

void forget_recorder_zone() { g_zone = nullptr; }

bool local_time_known() { return g_zone != nullptr; }

bool local_hour_of(long long ms, LocalHour& out) {
    if (g_zone == nullptr || !in_range(ms)) return false;
    try {
        const date::sys_time<milliseconds> instant{milliseconds(ms)};
        const auto local = g_zone->to_local(instant);
        const auto day = date::floor<date::days>(local);
        const date::year_month_day ymd{day};
        out.year = static_cast<int>(ymd.year());
        out.month = static_cast<int>(static_cast<unsigned>(ymd.month()));
        out.day = static_cast<int>(static_cast<unsigned>(ymd.day()));
        out.hour = static_cast<int>(date::floor<std::chrono::hours>(local - day).count());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// An hour folder holds every instant whose local time lies in its hour: from
// the earliest instant of the hour's first millisecond to the latest of its
// last. Where the clocks went back inside it, that is more than an hour;
// where they went forward over it, only the instant of the change (never
// fewer instants than the folder holds).
bool local_hour_span(int year, int month, int day, int hour, Span& span) {
    if (g_zone == nullptr) return false;
    try {
        const date::local_days date_of{date::year(year) / month / day};
        const date::local_time<milliseconds> first = date_of + std::chrono::hours(hour);
        const date::local_time<milliseconds> last =
            first + std::chrono::hours(1) - milliseconds(1);
        span.first = g_zone->to_sys(first, date::choose::earliest).time_since_epoch().count();
        span.last = g_zone->to_sys(last, date::choose::latest).time_since_epoch().count();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace sim
