// Element walker: an element is returned only when its head and its whole value lie inside the body,
// so whoever holds one may read it without further tests.  Positions are compared as offsets, which
// cannot overflow as sums of pointers could.

#include "tlv/tlv.h"

#include <cstring>

namespace {

using pegeir::ndpi::kTlvHeadLen;

uint16_t ReadLength(const uint8_t *element, uint32_t inNetworkOrder) {
    if (inNetworkOrder != 0) {
        return pegeir::wire::LoadU16(element + 2);
    }
    uint16_t length = 0;
    memcpy(&length, element + 2, sizeof(length));
    return length;
}

// Returns the element at offset, or null when it does not fit into length bytes.
uint8_t *ElementAt(uint8_t *buffer, int64_t length, int64_t offset, uint32_t inNetworkOrder) {
    if (offset + kTlvHeadLen > length) {
        return nullptr;
    }
    uint8_t *element = buffer + offset;
    return offset + kTlvHeadLen + ReadLength(element, inNetworkOrder) > length ? nullptr : element;
}

} // namespace

uint8_t *ND_LIB_GetFirstTlv(uint8_t *buffer, int32_t length, uint32_t lengthsInNetworkOrder) {
    return buffer == nullptr ? nullptr : ElementAt(buffer, length, 0, lengthsInNetworkOrder);
}

uint8_t *ND_LIB_GetNextTlv(uint8_t *buffer, int32_t length, uint8_t *current, uint32_t lengthsInNetworkOrder,
                           uint16_t currentLen) {
    if (buffer == nullptr || current == nullptr || length < 0) {
        return nullptr;
    }
    return ElementAt(buffer, length, (current - buffer) + int64_t{kTlvHeadLen} + currentLen,
                     lengthsInNetworkOrder);
}
