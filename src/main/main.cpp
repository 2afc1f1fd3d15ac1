// kelvo: maintenance of a recording server's storage layer. One command per
// run; every query and change goes through the storage library.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands.h"
#include "plug_play.h"
#include "storage_setting.h"
#include "usage.h"

namespace {

// One run of a command: its command line and the library objects it works
// with, held by reference (main owns them). The storage and daemon objects
// live for the whole run; the setting from its creation to its release; the
// service only around the handlers that need it.
struct Invocation {
    COrnStorage& storage;
    COrnStorageDaemon& daemon;
    IStorageSetting* setting;
    IPlugPlayService* service;
    int argc;
    char** argv;
    char name[512];
};

[[noreturn]] void release_and_usage(Invocation& run) {
    run.storage.destroy_storage_setting(&run.setting);
    print_usage();
}

int parse_number(const char* text) { return command_number(text); }

// Name arguments keep at most 511 characters and are always terminated.
void copy_name(Invocation& run) { strncpy(run.name, run.argv[2], sizeof(run.name) - 1); }

// Runs |handler| with the plug-and-play service, released right after it.
template <typename Handler>
void with_service(Invocation& run, Handler handler) {
    run.daemon.create_plug_play_service(&run.service);
    if (run.service == nullptr) {
        printf("Query plug and play service failure.\n");
        return;
    }
    handler();
    run.daemon.destroy_plug_play_service(&run.service);
}

void run_spacelist(Invocation& run) { cmd_spacelist(run.setting); }

void run_vollist(Invocation& run) {
    copy_name(run);
    cmd_vollist(run.setting, run.name);
}

void run_volset(Invocation& run) {
    int volume_type = parse_number(run.argv[3]);
    int volume_state = parse_number(run.argv[4]);
    if (static_cast<uint32_t>(volume_type) > 1 || static_cast<uint32_t>(volume_state) > 1)
        release_and_usage(run);
    copy_name(run);
    cmd_volset(run.setting, run.name, volume_type, static_cast<uint32_t>(volume_state));
}

void run_volchn(Invocation& run) {
    with_service(run, [&run] {
        copy_name(run);
        cmd_volchn(run.setting, run.service, run.name);
    });
}

void run_voluse(Invocation& run) {
    int channel_id = parse_number(run.argv[2]);
    with_service(run, [&run, channel_id] { cmd_voluse(run.setting, run.service, channel_id); });
}

void run_volclean(Invocation& run) { cmd_volclean(run.setting, parse_number(run.argv[2])); }

void run_autoclean(Invocation& run) { cmd_autoclean(run.setting); }

void run_nullid(Invocation& run) { cmd_nullid(run.setting, parse_number(run.argv[2])); }

void run_recoverid(Invocation& run) { cmd_recoverid(run.setting, parse_number(run.argv[2])); }

void run_spaceinfo(Invocation& run) {
    copy_name(run);
    cmd_spaceinfo(run.setting, run.name);
}

struct cmd_struct {
    const char* cmd;
    int argc;  // the argument count the command needs; 0 takes any of 2, 3, 5
    void (*fn)(Invocation&);
};

const cmd_struct commands[] = {
    {"spacelist", 0, run_spacelist}, {"vollist", 3, run_vollist}, {"volset", 5, run_volset},
    {"volchn", 3, run_volchn},       {"voluse", 3, run_voluse},   {"volclean", 3, run_volclean},
    {"autoclean", 0, run_autoclean}, {"nullid", 3, run_nullid},   {"recoverid", 3, run_recoverid},
    {"spaceinfo", 3, run_spaceinfo},
};

const cmd_struct* find_command(const char* word) {
    for (const cmd_struct& c : commands)
        if (strcmp(c.cmd, word) == 0) return &c;
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    COrnStorage storage;
    COrnStorageDaemon daemon;
    Invocation run{storage, daemon, nullptr, nullptr, argc, argv, {}};

    if (argc != 2 && argc != 3 && argc != 5) print_usage();

    // A word that does not fit the buffer names no command.
    char command[128] = {};
    if (strlen(argv[1]) < sizeof(command)) strcpy(command, argv[1]);
    memset(run.name, 0, sizeof(run.name));

    storage.create_storage_setting(&run.setting);
    if (run.setting == nullptr) {
        printf("Query storage settings faiure.\n");
        return 0;
    }

    const cmd_struct* c = find_command(command);
    if (c == nullptr || (c->argc != 0 && c->argc != argc)) release_and_usage(run);
    c->fn(run);

    storage.destroy_storage_setting(&run.setting);
    return 0;
}
