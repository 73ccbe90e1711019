// How many bytes of a received message may be read.
//
// Not every platform can tell.  So its answer is asked for where there is one, and the library loads where
// there is none: the import is weak here and in no other place.
#ifndef PEGEIR_TLV_DELIVERED_H
#define PEGEIR_TLV_DELIVERED_H

#include <pegeir/platform.h>

#pragma weak DMS_MsgDataLenGet

namespace pegeir::ndpi {

constexpr uint32_t kUnknownLen = UINT32_MAX;

// Returns the number of data bytes that the platform delivered, or kUnknownLen, which is more than any
// header can claim: the message is then taken at its word.
inline uint32_t DeliveredLen(const void *message) {
    return DMS_MsgDataLenGet == nullptr ? kUnknownLen : DMS_MsgDataLenGet(message);
}

} // namespace pegeir::ndpi

#endif
