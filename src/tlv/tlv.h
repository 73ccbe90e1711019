// The walk over the elements of a message body.
#ifndef PEGEIR_TLV_TLV_H
#define PEGEIR_TLV_TLV_H

#include <pegeir/pegeir.h>

#include "tlv/ndpi.h"

extern "C" {

// Returns the first element of the length bytes at buffer, or null when none fits wholly inside them.
// lengthsInNetworkOrder tells how every tlvLen is read: nonzero big-endian, 0 host order.
ND_LIB_API uint8_t *ND_LIB_GetFirstTlv(uint8_t *buffer, int32_t length, uint32_t lengthsInNetworkOrder);

// Returns the element behind current, which lies in buffer and whose tlvLen is currentLen in host order, or
// null when no further one fits.  The caller supplies the length because the head of current may have
// been rewritten since it was read.
ND_LIB_API uint8_t *ND_LIB_GetNextTlv(uint8_t *buffer, int32_t length, uint8_t *current,
                                      uint32_t lengthsInNetworkOrder, uint16_t currentLen);

} // extern "C"

namespace pegeir::tlv {

struct Head {
    uint16_t tlvType;
    uint16_t tlvLen;
};

// Reads the head of an element that the walk has returned.
inline Head ReadHead(const uint8_t *element) {
    return {wire::LoadU16(element), wire::LoadU16(element + 2)};
}

// Calls visit(element, head) for each element of the message's body, those that the two operations above
// would return; in one piece, because a download walks over a million of them.  The head is read before the
// visit, which may rewrite it.
template <typename Visit>
void ForEach(void *message, Visit visit) {
    const uint16_t msgLen = ndpi::ReadHeader(message).msgLen;
    if (msgLen < NDPI_HEADER_LEN) {
        return; // there is no body
    }
    uint8_t *body = static_cast<uint8_t *>(message) + NDPI_HEADER_LEN;
    const uint32_t length = msgLen - NDPI_HEADER_LEN;
    for (uint32_t offset = 0; offset + ndpi::kTlvHeadLen <= length;) {
        const Head head = ReadHead(body + offset);
        const uint32_t end = offset + ndpi::kTlvHeadLen + head.tlvLen;
        if (end > length) {
            return;
        }
        visit(body + offset, head);
        offset = end;
    }
}

} // namespace pegeir::tlv

#endif
