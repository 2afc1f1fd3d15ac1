// Recycling engines: a tier works on a whole space, a unit on one volume.
#ifndef KELVO_STORAGE_API_RECYCLE_H
#define KELVO_STORAGE_API_RECYCLE_H

#include <memory>

#include "channel.h"
#include "ornsid.h"

// What an engine is bound to; the library's own business.
struct RecycleEngineBinding;

// Use once: new, init, recycle_channel_data only after init returned 0,
// uninit always, then delete.
class CFSTier {
public:
    CFSTier();
    virtual ~CFSTier();
    CFSTier(const CFSTier&) = delete;
    CFSTier& operator=(const CFSTier&) = delete;

    int init(ornsid space_uuid);
    virtual int recycle_channel_data(stream_info info, long long from_ms, long long to_ms);
    virtual int uninit();

private:
    std::unique_ptr<RecycleEngineBinding> binding_;
};

class CFSUnit {
public:
    CFSUnit();
    virtual ~CFSUnit();
    CFSUnit(const CFSUnit&) = delete;
    CFSUnit& operator=(const CFSUnit&) = delete;

    int init(ornsid volume_uuid);
    virtual int recycle_channel_data(stream_info info, long long from_ms, long long to_ms);
    virtual int uninit();

private:
    std::unique_ptr<RecycleEngineBinding> binding_;
};

#endif
