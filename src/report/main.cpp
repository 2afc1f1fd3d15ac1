// kelvo-report: the storage figures of a recording server for monitoring,
// as JSON, Prometheus text or a monitoring-plugin check. Read-only.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "helpers.h"
#include "plan.h"
#include "report.h"
#include "walks.h"

namespace {

// Exit statuses of the check, after the monitoring-plugin convention.
const int kCheckUnknown = 3;
// json and prometheus: the report is not complete.
const int kIncomplete = 1;
const int kBadCommandLine = 2;

const char kProgram[] = "kelvo-report";
// The check answers within this many seconds unless told otherwise.
const double kCheckTimeout = 10;
const double kMaxTimeout = 86400;

// True when an argument is exactly |arg|.
bool has_argument(int argc, char** argv, const char* arg) {
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], arg) == 0) return true;
    return false;
}

bool wants_check(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--format=check") == 0) return true;
        if (strcmp(argv[i], "--format") == 0 && i + 1 < argc && strcmp(argv[i + 1], "check") == 0)
            return true;
    }
    return false;
}

// Read once before the gathering thread starts: umask() sets as it reads.
mode_t g_umask = 022;

// Writes through |write| into a temporary file beside |path|, then renames
// it over |path|, so that a reader sees the old file or the whole new one.
template <typename Write>
bool write_atomically(const std::string& path, Write write, std::string& error) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temp = dir + (dir.back() == '/' ? "" : "/") + "." + base + ".XXXXXX";
    int fd = mkstemp(&temp[0]);
    if (fd < 0) {
        error = "cannot create a file beside " + path + ": " + strerror(errno);
        return false;
    }
    const mode_t mask = g_umask;
    FILE* out = fdopen(fd, "w");
    if (out == nullptr) {
        close(fd);
        unlink(temp.c_str());
        error = std::string("cannot write ") + temp + ": " + strerror(errno);
        return false;
    }
    write(out);
    bool ok = fflush(out) == 0 && !ferror(out) && fchmod(fd, 0666 & ~mask) == 0 && fsync(fd) == 0;
    ok = fclose(out) == 0 && ok;
    // Checked again: the target may have been replaced since the start.
    struct stat target;
    if (ok && lstat(path.c_str(), &target) == 0 && !S_ISREG(target.st_mode)) {
        error = path + " exists and is not a regular file";
        unlink(temp.c_str());
        return false;
    }
    if (ok && rename(temp.c_str(), path.c_str()) == 0) return true;
    error = "cannot write " + path + ": " + strerror(errno);
    unlink(temp.c_str());
    return false;
}

template <typename Write>
bool emit(const std::string& output, Write write, std::string& error) {
    if (!output.empty()) return write_atomically(output, write, error);
    write(stdout);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        error = std::string("cannot write the standard output: ") + strerror(errno);
        return false;
    }
    return true;
}

// The --output target with its folder resolved now, before the measurement
// changes the working folder; empty, with the refusal in |why|, when it
// cannot take a whole file: an empty name, a folder that cannot be
// resolved, or a target that exists and is not a regular file (a device, a
// link, a folder), which the rename would replace.
std::string output_target(const std::string& value, std::string& why) {
    const size_t slash = value.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : value.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? value : value.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") {
        why = "--output: not a file name: '" + value + "'";
        return "";
    }
    char folder[PATH_MAX];
    if (realpath(dir.c_str(), folder) == nullptr) {
        why = "--output: the folder of " + value + ": " + strerror(errno);
        return "";
    }
    const std::string target = std::string(folder) + (strcmp(folder, "/") == 0 ? "" : "/") + base;
    struct stat file;
    if (lstat(target.c_str(), &file) == 0 && !S_ISREG(file.st_mode)) {
        why = "--output: " + value + " exists and is not a regular file";
        return "";
    }
    return target;
}

// One gathering of the report, shared with the thread that does it.
struct Gathering {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    bool complete = false;
    Report report;
    std::string error;
};

void gather(const Options& options, Gathering& g) {
    Report report;
    std::string error;
    bool complete = false;
    try {
        complete = collect_report(options, report, error);
        if (complete) find_problems(options, report);
    } catch (const std::exception& e) {
        error = e.what();
    }
    std::lock_guard<std::mutex> lock(g.mutex);
    g.report = std::move(report);
    g.error = error;
    g.complete = complete;
    g.done = true;
    g.finished.notify_all();
}

// Gathers the report in a thread of its own, so that a library call that
// hangs (a locked database, a slow du) cannot hold the answer past
// |timeout_s| (0: no limit). False in |finished| when it did not finish: that thread then
// still uses the library, and the process must end without unwinding.
bool gather_within(const Options& options, double timeout_s, Report& report, std::string& error,
                   bool& finished) {
    auto g = std::make_shared<Gathering>();
    finished = true;
    if (timeout_s <= 0) {
        gather(options, *g);
    } else {
        std::thread worker([g, options] { gather(options, *g); });
        std::unique_lock<std::mutex> lock(g->mutex);
        finished = g->finished.wait_for(lock, std::chrono::duration<double>(timeout_s),
                                        [&g] { return g->done; });
        if (!finished) {
            worker.detach();
            char text[64];
            snprintf(text, sizeof(text), "no answer within the timeout of %g s", timeout_s);
            error = text;
            return false;
        }
        lock.unlock();
        worker.join();
    }
    report = std::move(g->report);
    error = g->error;
    return g->complete;
}

int run(const Options& options, double timeout_s, const std::string& output) {
    const auto start = std::chrono::steady_clock::now();
    const bool check = options.format == "check";
    Report report;
    std::string error;
    bool finished = true;
    bool complete = gather_within(options, timeout_s, report, error, finished);
    if (!finished) stop_running_du();  // nothing may outlive the answer
    report.duration_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    int status = 0;
    std::string write_error;
    bool written = true;
    if (check) {
        written = emit(
            output,
            [&](FILE* out) {
            if (complete) status = write_check(out, options, report);
            else write_check_unknown(out, error);
            },
            write_error);
        if (!complete) status = kCheckUnknown;
    } else {
        if (!complete) {
            fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
            status = kIncomplete;
        }
        if (options.format == "prometheus")
            written = emit(
                output, [&](FILE* out) { write_prometheus(out, report, complete); }, write_error);
        else
            written = emit(
                output,
                [&](FILE* out) {
                if (complete) write_json(out, report);
                else write_json_error(out, error, report.failed_call);
                },
                write_error);
    }
    if (!written) {
        fprintf(stderr, "%s: %s\n", kProgram, write_error.c_str());
        status = check ? kCheckUnknown : kIncomplete;
    }
    if (!finished) {
        fflush(stderr);
        _exit(status);
    }
    return status;
}

// The values CLI11 leaves as text; an empty text when all hold, else a
// short line naming the option refused.
std::string parse_thresholds(const CLI::App& app, Options& options, double& timeout_s) {
    const struct {
        const char* name;
        Range* range;
    } ranges[] = {{"--warning", &options.warning},
                  {"--critical", &options.critical},
                  {"--min-days", &options.min_days}};
    for (const auto& r : ranges) {
        const CLI::Option* option = app.get_option(r.name);
        if (option->count() == 0) continue;
        std::string text = option->as<std::string>();
        // A bare number of days is the minimum the option names: "N" means "N:".
        if (r.range == &options.min_days && text.find_first_of(":@") == std::string::npos)
            text += ":";
        if (!parse_range(text, *r.range))
            return option->get_name() + ": not a range (N, N:, ~:N, N:M or @N:M, N >= 0)";
    }
    const CLI::Option* timeout = app.get_option("--timeout");
    timeout_s = options.format == "check" ? kCheckTimeout : 0;
    if (timeout->count() > 0 && (!parse_decimal(timeout->as<std::string>(), timeout_s) ||
                                 timeout_s <= 0 || timeout_s > kMaxTimeout))
        return timeout->get_name() + ": not a number of seconds above 0, at most 86400";
    const CLI::Option* du_timeout = app.get_option("--du-timeout");
    if (du_timeout->count() > 0 &&
        (!parse_decimal(du_timeout->as<std::string>(), options.du_timeout_s) ||
         options.du_timeout_s <= 0 || options.du_timeout_s > kMaxTimeout))
        return du_timeout->get_name() + ": not a number of seconds above 0, at most 86400";
    return "";
}

// One line on standard error, control characters shown as '?'.
void print_error(const std::string& why) {
    std::string line = why;
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    fprintf(stderr, "%s: %s\n", kProgram, line.c_str());
}

// A refused command line: one line, as the check's UNKNOWN (3) or on
// standard error (2), control characters shown as '?'.
int refuse(bool check, const std::string& why) {
    if (check) {
        write_check_unknown(stdout, why);
        return kCheckUnknown;
    }
    print_error(why);
    return kBadCommandLine;
}

// --plan: the recycle plan, text unless --format=json.
int run_plan(const PlanRequest& request, bool json, const std::string& output) {
    Plan plan;
    std::string error;
    if (!collect_plan(request, plan, error)) {
        print_error(error);
        return kIncomplete;
    }
    std::string write_error;
    if (emit(
            output,
            [&](FILE* out) {
        if (json) write_plan_json(out, plan);
        else write_plan_text(out, plan);
            },
            write_error))
        return 0;
    print_error(write_error);
    return kIncomplete;
}

}  // namespace

int main(int argc, char** argv) {
    // du's exit status is read with waitpid, which an inherited ignored
    // SIGCHLD would make fail.
    signal(SIGCHLD, SIG_DFL);
    g_umask = umask(022);
    umask(g_umask);
    Options options;
    std::string output;
    CLI::App app{"Storage health of a recording server for monitoring, read-only.",
                 "kelvo-report"};
    app.add_option("--format", options.format, "json (default), prometheus or check")
        ->check(CLI::IsMember({"json", "prometheus", "check"}));
    app.add_option("--output", output,
                   "write to FILE atomically (temporary file in its folder, then rename)")
        ->type_name("FILE");
    // Taken as text and checked after parsing, to name the option refused.
    app.add_option("-w,--warning,--warn")
        ->description("range of percent used that warns")
        ->type_name("RANGE");
    app.add_option("-c,--critical,--crit")
        ->description("range of percent used that is critical")
        ->type_name("RANGE");
    app.add_option("--min-days")
        ->description("range of the age in days of a channel's oldest recordings")
        ->type_name("RANGE");
    app.add_option("-t,--timeout")
        ->description("give up after SECONDS (check: 10)")
        ->type_name("SECONDS");
    bool no_du = false;
    app.add_flag("--no-du", no_du, "do not measure the preallocate folders with du");
    app.add_option("--du-timeout")
        ->description("seconds after which du is killed and the volume not measured (60)")
        ->type_name("SECONDS");
    std::string plan;
    app.add_option("--plan", plan,
                   "what volclean:CHANNEL or autoclean would remove, read-only (text unless "
                   "--format=json)")
        ->type_name("COMMAND");
    app.set_version_flag("-V,--version", "kelvo-report " KELVO_VERSION);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        return refuse(wants_check(argc, argv), e.what());
    }
    const bool check = options.format == "check";
    // CLI11 would take the next argument as the file name of "--output=".
    if (has_argument(argc, argv, "--output="))
        return refuse(check, "--output: not a file name: ''");
    options.du = !no_du;
    PlanRequest request;
    const bool planning = app.get_option("--plan")->count() > 0;
    const bool plan_json = app.get_option("--format")->count() > 0;
    if (planning &&
        (!parse_plan_request(plan, request) || (plan_json && options.format != "json"))) {
        return refuse(false, "--plan: volclean:CHANNEL or autoclean, as text or --format=json");
    }
    double timeout_s = 0;
    const std::string refused = parse_thresholds(app, options, timeout_s);
    if (!refused.empty()) return refuse(check, refused);
    std::string target;
    if (app.get_option("--output")->count() > 0) {
        std::string why;
        target = output_target(output, why);
        if (target.empty()) return refuse(check, why);
    }
    try {
        if (planning) return run_plan(request, plan_json, target);
        return run(options, timeout_s, target);
    } catch (const std::exception& e) {
        if (options.format == "check") {
            write_check_unknown(stdout, e.what());
            return kCheckUnknown;
        }
        fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return kIncomplete;
    }
}
