// Plug-and-play service of the storage daemon: which channels record on a volume.
#ifndef KELVO_STORAGE_API_PLUG_PLAY_H
#define KELVO_STORAGE_API_PLUG_PLAY_H

#include <list>

#include "channel.h"
#include "ornsid.h"
#include "storage_setting.h"

class IPlugPlayService {
public:
    // Replaces |channels| by the channels recording on |volume| (named by volume_no).
    // |a|, |b|: identifiers the library does not document; passed at their
    // default value, nothing is read back from them.
    virtual int get_volume_channel_list(TVolumeConfig& volume, ornsid& a, ornsid& b,
                                        std::list<channel_sid>& channels) = 0;

protected:
    virtual ~IPlugPlayService() = default;
};

class COrnStorageDaemon {
public:
    COrnStorageDaemon();
    ~COrnStorageDaemon();
    COrnStorageDaemon(const COrnStorageDaemon&) = delete;
    COrnStorageDaemon& operator=(const COrnStorageDaemon&) = delete;

    int create_plug_play_service(IPlugPlayService** service);
    int destroy_plug_play_service(IPlugPlayService** service);
};

#endif
