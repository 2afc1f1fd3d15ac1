// Identifier record shared by every area of the storage library.
#ifndef KELVO_STORAGE_API_ORNSID_H
#define KELVO_STORAGE_API_ORNSID_H

#include <cstring>

// Identifier of a space, a volume group or a volume: 36 uuid characters, not
// terminated inside the field, then two zero bytes.
struct ornsid {
    char uuid[36];
    char zero[2];
    char reserved[38];

    ornsid() {
        std::memset(static_cast<void*>(this), 0, sizeof(*this));
        std::memset(uuid, '0', sizeof(uuid));
    }
    // A copy of the 36 uuid bytes at |src| with bytes 36 and 37 zero.
    explicit ornsid(const char* src) {
        std::memset(static_cast<void*>(this), 0, sizeof(*this));
        std::memcpy(uuid, src, sizeof(uuid));
    }
};
static_assert(sizeof(ornsid) == 76, "ornsid takes 76 bytes in records");

#endif
