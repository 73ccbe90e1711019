// Key entries: the tree of what is asked for.

#include "nd_lib_consumer/entries.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/wire.h"

using pegeir::kStoreModule;

namespace {

// As KAL_MemCmp, which is left out where the first bytes, an interface's number mostly, tell the keys
// apart: a search compares a key on every level.
int CompareBytes(const uint8_t *left, const uint8_t *right, size_t count) {
    if (count >= sizeof(uint32_t)) {
        const uint32_t first = pegeir::wire::LoadU32(left);
        const uint32_t second = pegeir::wire::LoadU32(right);
        if (first != second) {
            return first < second ? -1 : 1;
        }
    }
    return count == 0 ? 0 : KAL_MemCmp(left, right, count);
}

} // namespace

uint32_t ND_LIB_Key_RB_KeyCmp(const ND_LIB_KeyEntry *nodeKey, const ND_LIB_KeyEntry *searchedKey) {
    if (searchedKey->keyType != nodeKey->keyType) {
        return searchedKey->keyType > nodeKey->keyType ? ND_LIB_KEY_CMP_GREATER : ND_LIB_KEY_CMP_LESS;
    }
    if (searchedKey->keyLen != nodeKey->keyLen) {
        return searchedKey->keyLen > nodeKey->keyLen ? ND_LIB_KEY_CMP_GREATER : ND_LIB_KEY_CMP_LESS;
    }
    const int order = CompareBytes(searchedKey->keyValue, nodeKey->keyValue, searchedKey->keyLen);
    if (order == 0) {
        return ND_LIB_KEY_CMP_EQUAL;
    }
    return order > 0 ? ND_LIB_KEY_CMP_GREATER : ND_LIB_KEY_CMP_LESS;
}

ND_LIB_KeyEntry *ND_LIB_FindKeyEntry(const ND_LIB_KeyEntry *key, ND_LIB_Instance *instance) {
    return ND_LIB_RBT_LookupNode(&instance->consumer.subscribeTree, key, ND_LIB_Key_RB_KeyCmp);
}

ND_LIB_KeyEntry *ND_LIB_SearchOrCreateKeyEntry(const ND_LIB_KeyEntry *key, ND_LIB_Instance *instance) {
    if (key == nullptr) {
        return nullptr;
    }
    if (ND_LIB_KeyEntry *found = ND_LIB_FindKeyEntry(key, instance)) {
        return found;
    }
    auto *entry = static_cast<ND_LIB_KeyEntry *>(
        pegeir::ZeroAlloc(kStoreModule, instance->memHandle, sizeof(ND_LIB_KeyEntry)));
    if (entry == nullptr) {
        PEGEIR_FAILURE(instance, "ND_LIB_SearchOrCreateKeyEntry malloc failed");
        return nullptr;
    }
    entry->keyValue =
        static_cast<uint8_t *>(pegeir::ZeroAlloc(kStoreModule, instance->memHandle, key->keyLen));
    if (entry->keyValue == nullptr) {
        PEGEIR_FAILURE(instance, "ND_LIB_SearchOrCreateKeyEntry malloc keyValue failed");
        pegeir::Free(kStoreModule, entry);
        return nullptr;
    }
    entry->keyType = key->keyType;
    entry->keyLen = key->keyLen;
    pegeir::store::RaiseTo(instance->consumer.maxKeyLength, key->keyLen);
    pegeir::store::CopyBytes(entry->keyValue, key->keyValue, key->keyLen);
    entry->rbNode = {};
    pegeir::list::MakeEmpty(&entry->dataListHead);
    // No equal key can be there: the search above has just looked.
    (void)ND_LIB_RBT_AddNode(&instance->consumer.subscribeTree, &entry->rbNode, entry, ND_LIB_Key_RB_KeyCmp);
    return entry;
}

void ND_LIB_DeleteKeyEntry(ND_LIB_KeyEntry **keyEntry, ND_LIB_Instance *instance) {
    if (keyEntry == nullptr || *keyEntry == nullptr) {
        return;
    }
    ND_LIB_KeyEntry *entry = *keyEntry;
    ND_LIB_DeleteAllDataEntry(entry, instance);
    if (entry->rbNode.child[0] != nullptr || entry->rbNode.child[1] != nullptr) {
        KAL_RBT_RemoveNode(&instance->consumer.subscribeTree, &entry->rbNode);
        entry->rbNode = {};
    }
    pegeir::Free(kStoreModule, entry->keyValue);
    pegeir::Free(kStoreModule, entry);
    *keyEntry = nullptr;
}

void ND_LIB_DeleteAllKeyEntry(ND_LIB_Instance *instance) {
    // The order of a walk is the platform's and may follow the shape of the tree, which each removal changes:
    // what one walk then misses, another one takes.
    do {
        for (ND_LIB_KeyEntry *entry = pegeir::store::FirstKey(instance); entry != nullptr;) {
            ND_LIB_KeyEntry *next = pegeir::store::NextKey(instance, entry);
            ND_LIB_DeleteKeyEntry(&entry, instance);
            entry = next;
        }
    } while (instance->consumer.subscribeTree.count != 0 && pegeir::store::FirstKey(instance) != nullptr);
}
