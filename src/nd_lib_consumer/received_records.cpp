// Records that arrive: acknowledged ones settle entries, data goes on to the consumer.

#include "nd_lib/nd_lib.h"
#include "nd_lib_consumer/entries.h"
#include "nd_lib_debug/report.h"
#include "tlv/tlv.h"

using pegeir::kStoreModule;
using pegeir::wire::Reader;

uint32_t ND_LIB_ParseSubAndUnsubData(ND_LIB_Instance *instance, const uint8_t *tlv, uint8_t msgType,
                                     uint32_t transNumber) {
    if (tlv == nullptr) {
        return ND_LIB_ERR_MSG;
    }
    Reader reader(tlv + pegeir::ndpi::kTlvHeadLen, pegeir::tlv::ReadHead(tlv).tlvLen);
    ND_LIB_KeyEntry key = {};
    ND_LIB_DataNode node = {};
    node.keyEntry = &key;
    if (!reader.U16(key.keyType) || !reader.U16(key.keyLen)) {
        return ND_LIB_ERR_MSG;
    }
    const uint8_t *keyBytes = reader.Bytes(key.keyLen);
    if (keyBytes == nullptr) {
        return ND_LIB_ERR_MSG;
    }
    if (key.keyLen != 0) {
        key.keyValue =
            static_cast<uint8_t *>(pegeir::ZeroAlloc(kStoreModule, instance->memHandle, key.keyLen));
        if (key.keyValue == nullptr) {
            return ND_LIB_ERR_MSG;
        }
        pegeir::store::CopyBytes(key.keyValue, keyBytes, key.keyLen);
    }
    // The data bytes themselves may be missing: they take no part in the match.
    const bool whole = reader.U16(node.dataType) && reader.U16(node.dataLen);
    if (whole) {
        ND_LIB_ProcSingleSubAndUnsub(instance, &node, msgType, transNumber);
    }
    pegeir::Free(kStoreModule, key.keyValue);
    return whole ? ND_LIB_OK : ND_LIB_ERR_MSG;
}

void ND_LIB_ProcSingleSubAndUnsub(ND_LIB_Instance *instance, const ND_LIB_DataNode *node, uint8_t /*msgType*/,
                                  uint32_t transNumber) {
    if (node == nullptr || node->keyEntry == nullptr) {
        return;
    }
    ND_LIB_DataEntry *entry = ND_LIB_FindDataEntry(ND_LIB_FindKeyEntry(node->keyEntry, instance), node);
    // The stamp 0 of an entry not sent since its latest request is no number, though one that has wrapped
    // around may equal it.
    if (entry != nullptr && entry->sendTransNumber == transNumber &&
        (transNumber != 0 || entry->sendCnt != 0)) {
        ND_LIB_DeleteDataEntry(&entry, instance);
    }
}

uint32_t ND_LIB_ParseUpdateData(ND_LIB_Instance *instance, uint8_t *tlv) {
    const pegeir::tlv::Head head = pegeir::tlv::ReadHead(tlv);
    auto *record = reinterpret_cast<ND_LIB_TlvHead *>(tlv); // packed: fit for any address
    record->tlvType = head.tlvType;
    record->tlvLen = head.tlvLen;
    PEGEIR_LOG_THEN_TRACE(instance, ND_LIB_LOG_DETAIL, ND_LIB_BLACKBOX_INFO,
                          "ParseUpdateData tlvType:%u, tlvLen:%u", head.tlvType, head.tlvLen);
    if (instance->consumer.updataInfoFunc == nullptr) {
        return ND_LIB_OK;
    }
    return instance->consumer.updataInfoFunc(instance, record);
}
