// The consumer's requests: each becomes a node with copies of its bytes, which the store takes over.

#include "nd_lib/nd_lib.h"

#include "nd_lib_debug/report.h"

using pegeir::AssertFailed;
using pegeir::kInstanceModule;

namespace {

const uint8_t *ItemBytes(const ND_LIB_ItemHead *head) {
    return reinterpret_cast<const uint8_t *>(head + 1);
}

// Returns a copy of the item's bytes, or null.
uint8_t *CopyItem(const ND_LIB_Instance *instance, const ND_LIB_ItemHead *head,
                  uint32_t line = __builtin_LINE()) {
    auto *copy =
        static_cast<uint8_t *>(pegeir::ZeroAlloc(kInstanceModule, instance->memHandle, head->len, line));
    if (copy != nullptr) {
        (void)memcpy_s(copy, head->len, ItemBytes(head), head->len); // cannot fail: the sizes are equal
    }
    return copy;
}

// Copies data and key into the node.  Returns false without memory; the node can be freed either way.
bool FillDataNode(ND_LIB_DataNode *node, const ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                  const ND_LIB_ItemHead *dataHead) {
    node->dataType = dataHead->type;
    node->dataLen = dataHead->len;
    if (dataHead->len != 0) {
        node->dataValue = CopyItem(instance, dataHead);
        if (node->dataValue == nullptr) {
            return false;
        }
    }
    auto *key = static_cast<ND_LIB_KeyEntry *>(
        pegeir::ZeroAlloc(kInstanceModule, instance->memHandle, sizeof(ND_LIB_KeyEntry)));
    if (key == nullptr) {
        return false;
    }
    node->keyEntry = key;
    key->keyType = keyHead->type;
    key->keyLen = keyHead->len;
    key->keyValue = CopyItem(instance, keyHead);
    return key->keyValue != nullptr;
}

// Asserts that a request has its arguments and that there is a store to put it into.
bool RequestIsAllowed(const ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                      const ND_LIB_ItemHead *dataHead) {
    if (instance == nullptr || keyHead == nullptr || dataHead == nullptr ||
        instance->consumer.packSubscribeFunc == nullptr) {
        AssertFailed(kInstanceModule);
        return false;
    }
    return true;
}

} // namespace

ND_LIB_DataNode *ND_LIB_GetDataNode(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                                    const ND_LIB_ItemHead *dataHead) {
    if (keyHead->len == 0) {
        PEGEIR_FAILURE(instance, "GetDataNode keyHead len error");
        return nullptr;
    }
    auto *node = static_cast<ND_LIB_DataNode *>(
        pegeir::ZeroAlloc(kInstanceModule, instance->memHandle, sizeof(ND_LIB_DataNode)));
    if (node != nullptr && !FillDataNode(node, instance, keyHead, dataHead)) {
        ND_LIB_FreeDataNode(node);
        node = nullptr;
    }
    return node;
}

void ND_LIB_FreeDataNode(ND_LIB_DataNode *node) {
    if (node == nullptr) {
        return;
    }
    if (node->keyEntry != nullptr) {
        pegeir::Free(kInstanceModule, node->keyEntry->keyValue);
        pegeir::Free(kInstanceModule, node->keyEntry);
    }
    pegeir::Free(kInstanceModule, node->dataValue);
    pegeir::Free(kInstanceModule, node);
}

uint32_t ND_LIB_Subscribe(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                          const ND_LIB_ItemHead *dataHead) {
    if (!RequestIsAllowed(instance, keyHead, dataHead)) {
        return ND_LIB_ERR;
    }
    const pegeir::Entered entered(instance);
    PEGEIR_EVENT(instance, "ND_LIB_Subscribe start");
    ND_LIB_DataNode *node = ND_LIB_GetDataNode(instance, keyHead, dataHead);
    if (node == nullptr) {
        PEGEIR_FAILURE(instance, "ND_LIB_Subscribe GetDataNode failed");
        return ND_LIB_ERR_SUBSCRIBE;
    }
    node->subscribeState = ND_LIB_SUBSCRIBE;
    const bool stored = ND_LIB_SerchOrCreateDataEntry(node, instance) != nullptr;
    if (!stored) {
        PEGEIR_FAILURE(instance, "ND_LIB_Subscribe GetDataNode failed");
    }
    ND_LIB_FreeDataNode(node);
    if (!stored) {
        return ND_LIB_ERR_SUBSCRIBE;
    }
    PEGEIR_EVENT(instance, "ND_LIB_Subscribe end success");
    return ND_LIB_OK;
}

uint32_t ND_LIB_UnSubscribe(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                            const ND_LIB_ItemHead *dataHead) {
    if (!RequestIsAllowed(instance, keyHead, dataHead)) {
        return ND_LIB_ERR;
    }
    const pegeir::Entered entered(instance);
    PEGEIR_EVENT(instance, "ND_LIB_UnSubscribe start");
    ND_LIB_DataNode *node = ND_LIB_GetDataNode(instance, keyHead, dataHead);
    if (node == nullptr) {
        PEGEIR_FAILURE(instance, "ND_LIB_GetDataNode failed");
        return ND_LIB_ERR_SUBSCRIBE;
    }
    node->subscribeState = ND_LIB_UNSUBSCRIBE;
    const bool stored = ND_LIB_SerchOrCreateDataEntry(node, instance) != nullptr;
    ND_LIB_FreeDataNode(node);
    if (!stored) {
        return ND_LIB_ERR_SUBSCRIBE; // what failed, the store has reported
    }
    PEGEIR_EVENT(instance, "ND_LIB_UnSubscribe end success");
    return ND_LIB_OK;
}
