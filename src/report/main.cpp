// kelvo-report: the storage figures of a recording server for monitoring,
// as JSON, Prometheus text or a monitoring-plugin check. Read-only.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "helpers.h"
#include "report.h"

namespace {

// Exit statuses of the check, after the monitoring-plugin convention.
const int kCheckUnknown = 3;
// json and prometheus: the report is not complete.
const int kIncomplete = 1;
const int kBadCommandLine = 2;

const char kProgram[] = "kelvo-report";

bool wants_check(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--format=check") == 0) return true;
        if (strcmp(argv[i], "--format") == 0 && i + 1 < argc && strcmp(argv[i + 1], "check") == 0)
            return true;
    }
    return false;
}

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
    mode_t mask = umask(0);
    umask(mask);
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

int run(const Options& options, const std::string& output) {
    const auto start = std::chrono::steady_clock::now();
    const bool check = options.format == "check";
    Report report;
    std::string error;
    bool complete = collect_report(options, report, error);
    if (complete) find_problems(options, report);
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
        else if (complete)
            written = emit(
                output, [&](FILE* out) { write_json(out, report); }, write_error);
    }
    if (!written) {
        fprintf(stderr, "%s: %s\n", kProgram, write_error.c_str());
        return check ? kCheckUnknown : kIncomplete;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string output;
    CLI::App app{"Storage health of a recording server for monitoring, read-only.",
                 "kelvo-report"};
    app.add_option("--format", options.format, "json (default), prometheus or check")
        ->check(CLI::IsMember({"json", "prometheus", "check"}));
    app.add_option("--output", output,
                   "write to FILE atomically (temporary file in its folder, then rename)")
        ->type_name("FILE");
    app.add_option("--warn", options.warn, "percent used of a space or volume that warns (80)")
        ->check(CLI::NonNegativeNumber)
        ->type_name("PERCENT");
    app.add_option("--crit", options.crit, "percent used that is critical (90)")
        ->check(CLI::NonNegativeNumber)
        ->type_name("PERCENT");
    bool no_du = false;
    app.add_flag("--no-du", no_du, "do not measure the preallocate folders with du");
    app.add_option("--du-timeout", options.du_timeout_s,
                   "seconds after which du is killed and the volume not measured (60)")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS");
    app.set_version_flag("--version", "kelvo-report " KELVO_VERSION);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        if (wants_check(argc, argv)) {
            write_check_unknown(stdout, e.what());
            return kCheckUnknown;
        }
        app.exit(e);
        return kBadCommandLine;
    }
    options.du = !no_du;
    try {
        // Taken from the starting folder: du changes it while the report is gathered.
        return run(options, absolute_path(output.c_str()));
    } catch (const std::exception& e) {
        if (options.format == "check") {
            write_check_unknown(stdout, e.what());
            return kCheckUnknown;
        }
        fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return kIncomplete;
    }
}
