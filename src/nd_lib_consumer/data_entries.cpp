// Data entries: one request each, changed in place by every later request for the same item.

#include "nd_lib_consumer/entries.h"

using pegeir::kStoreModule;
using pegeir::store::CopyBytes;
using pegeir::store::RaiseTo;

namespace {

// Gives the entry its own copy of the node's bytes.  Returns false, with no bytes, without memory.
bool CopyValue(ND_LIB_DataEntry *entry, const ND_LIB_DataNode *node, const ND_LIB_Instance *instance) {
    entry->dataLen = 0;
    if (node->dataLen == 0) {
        return true;
    }
    entry->dataValue =
        static_cast<uint8_t *>(pegeir::ZeroAlloc(kStoreModule, instance->memHandle, node->dataLen));
    if (entry->dataValue == nullptr) {
        return false;
    }
    CopyBytes(entry->dataValue, node->dataValue, node->dataLen);
    entry->dataLen = node->dataLen;
    return true;
}

} // namespace

ND_LIB_DataEntry *ND_LIB_FindDataEntry(ND_LIB_KeyEntry *keyEntry, const ND_LIB_DataNode *node) {
    if (keyEntry == nullptr || node == nullptr) {
        return nullptr;
    }
    ND_LIB_List *entries = &keyEntry->dataListHead;
    for (ND_LIB_ListNode *link = pegeir::list::First(entries); link != nullptr;
         link = pegeir::list::Next(entries, link)) {
        ND_LIB_DataEntry *entry = pegeir::store::OfDataLink(link);
        if (entry->dataType == node->dataType) {
            return entry;
        }
    }
    return nullptr;
}

ND_LIB_DataEntry *ND_LIB_CreateDataEntry(ND_LIB_KeyEntry *keyEntry, const ND_LIB_DataNode *node,
                                         ND_LIB_Instance *instance) {
    auto *entry = static_cast<ND_LIB_DataEntry *>(
        pegeir::ZeroAlloc(kStoreModule, instance->memHandle, sizeof(ND_LIB_DataEntry)));
    if (entry == nullptr) {
        return nullptr;
    }
    entry->dataType = node->dataType;
    entry->subscribeState = node->subscribeState;
    entry->keyEntry = keyEntry;
    RaiseTo(instance->consumer.maxValueLength, node->dataLen);
    pegeir::list::MakeFree(&entry->dataListNode);
    pegeir::list::MakeFree(&entry->workListNode);
    if (!CopyValue(entry, node, instance)) {
        pegeir::Free(kStoreModule, entry);
        return nullptr;
    }
    pegeir::list::Append(&keyEntry->dataListHead, &entry->dataListNode);
    return entry;
}

void ND_LIB_UpdateDataEntry(ND_LIB_DataEntry *entry, const ND_LIB_DataNode *node, ND_LIB_Instance *instance) {
    if (entry == nullptr || node == nullptr) {
        return;
    }
    pegeir::Free(kStoreModule, entry->dataValue);
    entry->dataValue = nullptr;
    if (!CopyValue(entry, node, instance)) {
        return;
    }
    if (node->dataLen != 0) {
        RaiseTo(instance->consumer.maxValueLength, node->dataLen);
    }
    entry->subscribeState = node->subscribeState;
    entry->sendCnt = 0;
    entry->sendTransNumber = 0;
    entry->nextSendTime = 0;
}

ND_LIB_DataEntry *ND_LIB_SerchOrCreateDataEntry(const ND_LIB_DataNode *node, ND_LIB_Instance *instance) {
    if (node == nullptr) {
        return nullptr;
    }
    ND_LIB_KeyEntry *keyEntry = ND_LIB_SearchOrCreateKeyEntry(node->keyEntry, instance);
    if (keyEntry == nullptr) {
        return nullptr;
    }
    ND_LIB_DataEntry *entry = ND_LIB_FindDataEntry(keyEntry, node);
    if (entry == nullptr) {
        entry = ND_LIB_CreateDataEntry(keyEntry, node, instance);
    }
    if (entry == nullptr) {
        if (keyEntry->dataListHead.count == 0) {
            ND_LIB_DeleteKeyEntry(&keyEntry, instance); // it was made for this request
        }
        return nullptr;
    }
    ND_LIB_UpdateDataEntry(entry, node, instance);
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    pegeir::list::Move(entry->subscribeState == ND_LIB_SUBSCRIBE ? &consumer.subscribingList
                                                                 : &consumer.unsubscribingList,
                       &entry->workListNode);
    return entry;
}

void ND_LIB_DeleteDataEntry(ND_LIB_DataEntry **entry, ND_LIB_Instance *instance) {
    if (entry == nullptr || *entry == nullptr) {
        return;
    }
    ND_LIB_DataEntry *doomed = *entry;
    pegeir::list::Unlink(&doomed->dataListNode);
    pegeir::list::Unlink(&doomed->workListNode);
    pegeir::Free(kStoreModule, doomed->dataValue);
    if (doomed->keyEntry != nullptr && doomed->keyEntry->dataListHead.count == 0) {
        ND_LIB_DeleteKeyEntry(&doomed->keyEntry, instance);
    }
    pegeir::Free(kStoreModule, doomed);
    *entry = nullptr;
}

void ND_LIB_DeleteAllDataEntry(ND_LIB_KeyEntry *keyEntry, ND_LIB_Instance *instance) {
    if (keyEntry == nullptr) {
        return;
    }
    while (ND_LIB_ListNode *link = pegeir::list::First(&keyEntry->dataListHead)) {
        ND_LIB_DataEntry *entry = pegeir::store::OfDataLink(link);
        entry->keyEntry = nullptr; // so that the last one does not take the key entry along
        ND_LIB_DeleteDataEntry(&entry, instance);
    }
}
