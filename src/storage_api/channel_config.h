// Per-channel storage configuration: the days on which a channel recorded.
#ifndef KELVO_STORAGE_API_CHANNEL_CONFIG_H
#define KELVO_STORAGE_API_CHANNEL_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <list>

// One 32-byte storage id field, not terminated inside the field.
struct TStorageId {
    char storage_id[32];
};
static_assert(sizeof(TStorageId) == 32, "TStorageId is 32 bytes");

// Day texts and the array holding them are malloc'ed by the library and
// freed by the caller with free().
struct TRecordDayList {
    int32_t day_count;
    char reserved_4[4];
    char** days;
};
static_assert(offsetof(TRecordDayList, day_count) == 0, "TRecordDayList layout");
static_assert(offsetof(TRecordDayList, days) == 8, "TRecordDayList layout");
static_assert(sizeof(TRecordDayList) == 16, "TRecordDayList is 16 bytes");

class IChannelStorageConfiguration {
public:
    // |value|: undocumented; spaceinfo always passes 255.
    virtual int get_recording_days(int record_type, int value, std::list<TStorageId> storage_ids,
                                   TRecordDayList* days) = 0;

protected:
    virtual ~IChannelStorageConfiguration() = default;
};

#endif
