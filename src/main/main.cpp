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

// What one run holds. The storage and daemon objects live for the whole run;
// the setting from its creation to its release; the service only around the
// handlers that need it.
struct Session {
    COrnStorage& storage;
    COrnStorageDaemon& daemon;
    IStorageSetting* setting;
    IPlugPlayService* service;
    int argc;
    char** argv;
    char name[512];
};

[[noreturn]] void release_and_usage(Session& s) {
    s.storage.destroy_storage_setting(&s.setting);
    print_usage();
}

int parse_number(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }

// Name arguments keep at most 511 characters and are always terminated.
void copy_name(Session& s) { strncpy(s.name, s.argv[2], sizeof(s.name) - 1); }

// Runs |handler| with the plug-and-play service, released right after it.
template <typename Handler>
void with_service(Session& s, Handler handler) {
    s.daemon.create_plug_play_service(&s.service);
    if (s.service == nullptr) {
        printf("Query plug and play service failure.\n");
        return;
    }
    handler();
    s.daemon.destroy_plug_play_service(&s.service);
}

void run_spacelist(Session& s) { cmd_spacelist(s.setting); }

void run_vollist(Session& s) {
    copy_name(s);
    cmd_vollist(s.setting, s.name);
}

void run_volset(Session& s) {
    int volume_type = parse_number(s.argv[3]);
    int volume_state = parse_number(s.argv[4]);
    if (static_cast<uint32_t>(volume_type) > 1 || static_cast<uint32_t>(volume_state) > 1)
        release_and_usage(s);
    copy_name(s);
    cmd_volset(s.setting, s.name, volume_type, static_cast<uint32_t>(volume_state));
}

void run_volchn(Session& s) {
    with_service(s, [&s] {
        copy_name(s);
        cmd_volchn(s.setting, s.service, s.name);
    });
}

void run_voluse(Session& s) {
    int channel_id = parse_number(s.argv[2]);
    with_service(s, [&s, channel_id] { cmd_voluse(s.setting, s.service, channel_id); });
}

void run_volclean(Session& s) { cmd_volclean(s.setting, parse_number(s.argv[2])); }

void run_autoclean(Session& s) { cmd_autoclean(s.setting); }

void run_nullid(Session& s) { cmd_nullid(s.setting, parse_number(s.argv[2])); }

void run_recoverid(Session& s) { cmd_recoverid(s.setting, parse_number(s.argv[2])); }

void run_spaceinfo(Session& s) {
    copy_name(s);
    cmd_spaceinfo(s.setting, s.name);
}

struct cmd_struct {
    const char* cmd;
    int argc;  // the argument count the command needs; 0 takes any of 2, 3, 5
    void (*fn)(Session&);
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
    Session s{storage, daemon, nullptr, nullptr, argc, argv, {}};

    if (argc != 2 && argc != 3 && argc != 5) print_usage();

    // A word that does not fit the buffer names no command.
    char command[128] = {};
    if (strlen(argv[1]) < sizeof(command)) strcpy(command, argv[1]);
    memset(s.name, 0, sizeof(s.name));

    storage.create_storage_setting(&s.setting);
    if (s.setting == nullptr) {
        printf("Query storage settings faiure.\n");
        return 0;
    }

    const cmd_struct* c = find_command(command);
    if (c == nullptr || (c->argc != 0 && c->argc != argc)) release_and_usage(s);
    c->fn(s);

    storage.destroy_storage_setting(&s.setting);
    return 0;
}
