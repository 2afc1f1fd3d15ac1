// Recycling: volclean, autoclean, the recycle bound and volume usage.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <memory>
#include <string>

#include "commands.h"
#include "recycle.h"

namespace {

// Recycling looks back this far from the present time.
const int64_t kRecycleWindowSeconds = 2592000;  // 30 days
// One piece of work on a fresh engine: init, recycle only when bound,
// uninit and destruction whatever init returned.
template <typename Engine>
void recycle_with_engine(const ornsid& target, stream_info info, int64_t from_ms, int64_t bound_ms,
                         const char* init_failure) {
    std::unique_ptr<Engine> engine(new Engine());
    if (engine->init(ornsid(target.uuid)) != 0) printf("%s", init_failure);
    else engine->recycle_channel_data(info, from_ms, bound_ms);
    engine->uninit();
}

// The lines of du's output that matter: the first (autoclean's reading) and
// the last (the folder's own total), each kept up to 126 characters.
struct DuLines {
    std::string first, last, current;
    bool any = false;
    void feed(const char* data, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            if (data[i] == '\n') end_line();
            else if (current.size() < 126) current += data[i];
        }
    }
    void end_line() {
        if (!any) first = current;
        last = current;
        any = true;
        current.clear();
    }
};

// The leading decimal number of a line in KiB, as strtol reads it; false
// when the line does not begin (after blanks) with a digit.
bool leading_kib(const std::string& line, int64_t& kib) {
    kib = strtoll(line.c_str(), nullptr, 10);
    size_t digit = line.find_first_not_of(" \t");
    return digit != std::string::npos && line[digit] >= '0' && line[digit] <= '9';
}

// The du that is running, for stop_running_du; stopping is set once for good.
std::atomic<pid_t> g_du_child{0};
std::atomic<bool> g_du_stopped{false};

// Waits for |pid|; when |limited|, kills it once |deadline| has passed. A du
// that does not die within a second of its kill (a hung disk) is left
// behind: -1.
int reap(pid_t pid, bool limited, std::chrono::steady_clock::time_point deadline, bool& killed) {
    using Clock = std::chrono::steady_clock;
    auto give_up = killed ? Clock::now() + std::chrono::seconds(1) : deadline;
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, limited ? WNOHANG : 0);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
        if (r != 0) continue;
        if (Clock::now() < give_up) {
            usleep(2000);
            continue;
        }
        if (killed) return -1;
        kill(pid, SIGKILL);
        killed = true;
        give_up = Clock::now() + std::chrono::seconds(1);
    }
}

void print_missing_volume(const VolumePath& path) {
    printf("Volume [%s] path does not exist\n", path.text);
}

}  // namespace

RecycleBound recycle_bound_from_answer(const std::list<time_period>& periods, int64_t from_ms,
                                       int64_t now_ms, int64_t& bound_ms) {
    bool found = false;
    int64_t earliest = 0;
    for (const time_period& period : periods) {
        if (period.end_ms < from_ms) continue;
        if (!found || period.start_ms < earliest) earliest = period.start_ms;
        found = true;
    }
    if (!found) {
        bound_ms = now_ms;
        return RecycleBound::kWholeWindow;
    }
    // The oldest possible start leaves nothing before it to recycle.
    bound_ms = earliest == INT64_MIN ? earliest : earliest - 1;
    return RecycleBound::kFound;
}

int64_t recycle_window_start_ms(int64_t now_ms) { return now_ms - kRecycleWindowSeconds * 1000; }

namespace {

// The bound of one stream with the answer it came from; |query_result| is
// the query's own result, which the bound does not examine.
RecycleBound query_recycle_bound(channel_sid channel, uint32_t alarm, uint32_t stream,
                                 int64_t from_ms, int64_t& bound_ms,
                                 std::list<time_period>& periods, int& query_result) {
    COrnChannel channel_factory;
    IFrameChannelSession* session = nullptr;
    channel_factory.create_channel_session(make_channel_sid(channel.channel_id, channel.sid),
                                           &session);
    if (session == nullptr) return RecycleBound::kNoSession;

    query_result = query_periods(*session, alarm == 0 ? kRecordTypeNormal : kRecordTypeAlarm,
                                 static_cast<int>(stream), from_ms, now_ms(), periods);
    channel_factory.destroy_channel_session(&session);
    // The clock is read again: an empty answer recycles up to this moment.
    return recycle_bound_from_answer(periods, from_ms, now_ms(), bound_ms);
}

}  // namespace

RecycleBound compute_recycle_bound(channel_sid channel, uint32_t alarm, uint32_t stream,
                                   const int64_t& from_ms, int64_t& bound_ms) {
    std::list<time_period> periods;
    int query_result = 0;
    return query_recycle_bound(channel, alarm, stream, from_ms, bound_ms, periods, query_result);
}

bool command_recycles(RecycleCommand command, RecycleBound bound) {
    if (command == RecycleCommand::kUnit) return bound == RecycleBound::kFound;
    return bound != RecycleBound::kNoSession;
}

void walk_recycle_streams(const std::list<TChannelStorageSetting>& channels, int channel_id,
                          int64_t from_ms, RecycleCommand command,
                          const RecycleChannelVisit& channel, const RecycleStreamVisit& visit) {
    for (const TChannelStorageSetting& entry : channels) {
        if (!entry_selected(entry, channel_id)) continue;
        if (channel) channel(entry);
        for_each_record_stream(kRecycleFirstStream, [&](int record_type, int stream) {
            RecycleStream s{entry, record_type, stream, RecycleBound::kNoSession, from_ms, 0,
                            0,     {},          false};
            s.bound = query_recycle_bound(make_channel_sid(entry.channel_id, entry.sid),
                                          record_type != kRecordTypeNormal, stream, from_ms,
                                          s.bound_ms, s.periods, s.query_result);
            s.recycles = command_recycles(command, s.bound);
            visit(s);
        });
    }
}

void cmd_volclean(IStorageSetting* setting, int channel_id) {
    std::list<TSpaceInfo> spaces;
    std::list<TChannelStorageSetting> channels;
    setting->get_space_list(spaces);
    setting->get_channel_setting_list(channels, 1);
    if (spaces.empty() || channels.empty()) {
        printf("No space or channel found.\n");
        return;
    }
    walk_recycle_streams(
        channels, channel_id, recycle_window_start_ms(now_ms()), RecycleCommand::kVolclean,
        [](const TChannelStorageSetting& entry) {
        printf("Recycle --ch%02d-- data ...\n", shown_channel(entry.channel_id));
        },
        [&spaces](const RecycleStream& s) {
        if (!s.recycles) return;
        const stream_info info =
            make_stream_info(s.entry.channel_id, s.entry.sid, s.stream, s.record_type);
        for (const TSpaceInfo& space : spaces)
            recycle_with_engine<CFSTier>(space.uuid, info, s.from_ms, s.bound_ms,
                                         "Initial Tier to process failure.\n");
        printf("\t[%s S%02d] %s\n", record_type_label(s.record_type), s.stream,
               s.bound == RecycleBound::kFound ? "Success." : "Can not find time period.");
    });
    printf("Recycle process done.\n");
}

void recycle_unit(IStorageSetting* setting, TVolumeInfo volume, int channel_id) {
    std::list<TChannelStorageSetting> channels;
    setting->get_channel_setting_list(channels, 1);
    if (channels.empty()) {
        printf("No channel settings found.\n");
        return;
    }
    // Only a stream with a listed period has data the database no longer knows.
    walk_recycle_streams(channels, channel_id, recycle_window_start_ms(now_ms()),
                         RecycleCommand::kUnit, nullptr,
                         [&volume](const RecycleStream& s) {
        if (!s.recycles) return;
        recycle_with_engine<CFSUnit>(volume.uuid,
                                     make_stream_info(s.entry.channel_id, s.entry.sid, s.stream,
                                                      s.record_type),
                                     s.from_ms, s.bound_ms, "Initial Unit to process failure.\n");
    });
}

namespace {

// du's absolute path, looked up once in the absolute entries of PATH only:
// an empty or relative entry would find a du planted in the preallocate
// folder the measurement enters. Empty when no such entry holds du.
const std::string& du_program() {
    static const std::string program = [] {
        const char* path = getenv("PATH");
        std::string entries = path != nullptr ? path : "/bin:/usr/bin";  // as execvp
        for (size_t start = 0; start <= entries.size();) {
            size_t end = entries.find(':', start);
            if (end == std::string::npos) end = entries.size();
            const std::string entry = entries.substr(start, end - start);
            const std::string candidate = entry + "/du";
            struct stat file;
            if (!entry.empty() && entry[0] == '/' && stat(candidate.c_str(), &file) == 0 &&
                S_ISREG(file.st_mode) && access(candidate.c_str(), X_OK) == 0)
                return candidate;
            start = end + 1;
        }
        return std::string();
    }();
    return program;
}

// Runs du on |folder| without a shell, its standard error discarded; with
// |timeout_ms| > 0 kills it when that has passed. False when it could not
// be started at all.
bool run_du(const char* folder, int timeout_ms, DuReading& reading) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    const pid_t parent = getpid();
    const char* program = du_program().c_str();
    pid_t pid = fork();
    if (pid < 0) {
        close(out[0]);
        close(out[1]);
        return false;
    }
    if (pid == 0) {
        // du dies with us, whatever kills us (the signal follows the thread
        // that forked, which waits for du); a parent gone before the prctl
        // is caught by the parent id. The folder is one argument whatever it
        // holds; du's complaints are never ours to print. A pipe that is
        // already descriptor 1 (ours was closed) only loses its close-on-exec
        // flag.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
        int null = open("/dev/null", O_WRONLY);
        bool piped = out[1] == STDOUT_FILENO ? fcntl(out[1], F_SETFD, 0) == 0
                                             : dup2(out[1], STDOUT_FILENO) >= 0;
        if (piped && null >= 0 && dup2(null, STDERR_FILENO) >= 0)
            execl(program, "du", folder, static_cast<char*>(nullptr));
        _exit(127);
    }
    g_du_child = pid;
    if (g_du_stopped) kill(pid, SIGKILL);
    close(out[1]);
    const bool limited = timeout_ms > 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    DuLines lines;
    bool killed = false;
    char buffer[4096];
    for (;;) {
        if (limited) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            struct pollfd ready = {out[0], POLLIN, 0};
            int r = left.count() > 0 ? poll(&ready, 1, static_cast<int>(left.count())) : 0;
            if (r < 0 && errno == EINTR) continue;
            if (r == 0) {  // out of time
                kill(pid, SIGKILL);
                killed = true;
                break;
            }
        }
        ssize_t n = read(out[0], buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        lines.feed(buffer, static_cast<size_t>(n));
    }
    close(out[0]);
    int status = reap(pid, limited || g_du_stopped, deadline, killed);
    g_du_child = 0;
    if (!lines.current.empty()) lines.end_line();

    reading = DuReading();
    reading.printed = lines.any;
    bool first_number = leading_kib(lines.first, reading.first_kib);
    bool total_number = leading_kib(lines.last, reading.total_kib);
    reading.numbers = lines.any && first_number && total_number;
    reading.timed_out = killed;
    reading.succeeded = !killed && status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return true;
}

}  // namespace

void stop_running_du() {
    g_du_stopped = true;
    pid_t pid = g_du_child;
    if (pid > 0) kill(pid, SIGKILL);
}

int read_preallocate(const TVolumeInfo& volume, int timeout_ms, DuReading& reading) {
    // The folder path, and "du <folder>" as the measurement has always been
    // bounded, fit 256 bytes: a path that does not fit is reported like one
    // that cannot be entered, before the working directory changes.
    char folder[256];
    int n = format_fsu_folder(folder, sizeof(folder), volume, "/preallocate");
    const size_t kCommandSize = 256;
    const bool found = !du_program().empty();  // looked up before the first chdir
    if (n < 0 || static_cast<size_t>(n) + strlen("du ") >= kCommandSize || chdir(folder) != 0)
        return kUsageNoFolder;
    if (!found) {  // as a du that prints nothing
        reading = DuReading();
        reading.missing = true;
        return 0;
    }
    return run_du(folder, timeout_ms, reading) ? 0 : kUsageNoDu;
}

namespace {

// measure_volume_usage without its messages: 0, or why it measured nothing.
int measure_preallocate(const TVolumeInfo& volume, int64_t& preallocate_remain_mb) {
    DuReading du;
    int result = read_preallocate(volume, 0, du);
    if (result == 0 && du.printed) preallocate_remain_mb = du.first_kib / 1024;
    return result;
}

// The message of measure_volume_usage for a measurement that failed.
void print_usage_failure(const TVolumeInfo& volume, int result) {
    if (result == kUsageNoFolder) print_missing_volume(VolumePath(volume));
    if (result == kUsageNoDu) printf("Can not get preallocate remain size info.\n");
}

}  // namespace

int measure_volume_usage(const TVolumeInfo& volume, int64_t& preallocate_remain_mb,
                         int64_t& used_size_mb) {
    int result = measure_preallocate(volume, preallocate_remain_mb);
    print_usage_failure(volume, result);
    if (result != 0) return -1;
    used_size_mb = volume.setting.used_size_mb;
    return 0;
}

bool volume_leaks(int64_t total_mb, int64_t preallocate_remain_mb, int64_t used_mb,
                  int64_t& lost_mb) {
    // Wraps like the two's-complement arithmetic of the sizes instead of
    // overflowing on absurd figures.
    lost_mb = static_cast<int64_t>(static_cast<uint64_t>(total_mb) -
                                   static_cast<uint64_t>(preallocate_remain_mb) -
                                   static_cast<uint64_t>(used_mb));
    return static_cast<double>(lost_mb) > static_cast<double>(total_mb) * 0.05;
}

int check_volume_leak(const TVolumeInfo& volume, VolumeLeak& leak) {
    leak = VolumeLeak();
    leak.total_mb = volume.setting.total_size_mb;
    // A du that prints nothing leaves the reserve at the total: no leak.
    leak.preallocate_remain_mb = leak.total_mb;
    int result = measure_preallocate(volume, leak.preallocate_remain_mb);
    if (result != 0) return result;
    leak.used_mb = volume.setting.used_size_mb;
    leak.leaks =
        volume_leaks(leak.total_mb, leak.preallocate_remain_mb, leak.used_mb, leak.lost_mb);
    return 0;
}

void cmd_autoclean(IStorageSetting* setting) {
    std::list<TVolumeInfo> volumes;
    setting->get_volume_list(volumes);
    if (volumes.empty()) {
        printf("no volume found\n");
        printf("recycle check process done.\n");
        return;
    }
    int leak_count = 0;
    for (const TVolumeInfo& volume : volumes) {
        VolumeLeak leak;
        int result = check_volume_leak(volume, leak);
        print_usage_failure(volume, result);
        if (result != 0 || !leak.leaks) continue;

        char name[128];
        volume_display_name(volume, name);
        printf(
            "Volume [%s] total size %lld GB(%lld MB), used %lld MB(preallocate_remain %lld "
            "MB).\n",
            name, static_cast<long long>(leak.total_mb / 1024),
            static_cast<long long>(leak.total_mb), static_cast<long long>(leak.used_mb),
            static_cast<long long>(leak.preallocate_remain_mb));
        printf(
            "Size lost %lld MB over %lld MB(%%5) is not resonable. Start to recycle volume "
            "using space ...\n",
            static_cast<long long>(leak.lost_mb), static_cast<long long>(leak.total_mb / 20));
        recycle_unit(setting, volume, -1);
        ++leak_count;
    }
    printf("Volume space leak detected count: %d\n", leak_count);
    printf("recycle check process done.\n");
}
