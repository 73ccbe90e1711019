// What key entries and data entries share: copying bytes and remembering how long they can be.
#ifndef PEGEIR_ND_LIB_CONSUMER_ENTRIES_H
#define PEGEIR_ND_LIB_CONSUMER_ENTRIES_H

#include "nd_lib/nd_lib.h"

namespace pegeir::store {

// What is added to a length in maxKeyLength and maxValueLength: the type and the length in the record.
constexpr uint32_t kTypeAndLength = 4;

// Raises maximum, which is never lowered, to that of len bytes.
inline void RaiseTo(uint16_t &maximum, uint32_t len) {
    const uint32_t needed = len + kTypeAndLength;
    if (needed > maximum) {
        maximum = static_cast<uint16_t>(needed < UINT16_MAX ? needed : UINT16_MAX);
    }
}

// Copies len bytes into a block of that size; a copy that fails is asserted, and the zeros stay.
inline void CopyBytes(uint8_t *to, const uint8_t *from, uint32_t len, uint32_t line = __builtin_LINE()) {
    if (len != 0 && memcpy_s(to, len, from, len) != 0) {
        AssertFailed(kStoreModule, line);
    }
}

} // namespace pegeir::store

#endif
