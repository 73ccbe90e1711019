// The subscription record, the one element that the library builds; tlv/ndpi.h has its layout.

#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"

using namespace pegeir::ndpi;
using pegeir::wire::StoreU16;

namespace {

// Writes type, length and bytes; returns what follows.
uint8_t *PutTyped(uint8_t *to, uint16_t type, uint16_t len, const uint8_t *bytes) {
    StoreU16(to, type);
    StoreU16(to + 2, len);
    if (len != 0) {
        (void)memcpy_s(to + 4, len, bytes, len); // the caller has made room
    }
    return to + 4 + len;
}

} // namespace

uint16_t ND_LIB_BuildSubscribeMsg(uint8_t *destination, const ND_LIB_DataEntry *entry) {
    if (destination == nullptr || entry == nullptr) {
        return 0;
    }
    const ND_LIB_KeyEntry *key = entry->keyEntry;
    StoreU16(destination, NDPI_TLV_SUBSCRIBE_RECORD);
    uint8_t *next = PutTyped(destination + kTlvHeadLen, key->keyType, key->keyLen, key->keyValue);
    next = PutTyped(next, entry->dataType, entry->dataLen, entry->dataValue);
    const auto total = static_cast<uint16_t>(next - destination);
    StoreU16(destination + 2, static_cast<uint16_t>(total - kTlvHeadLen));
    return total;
}
