// The store as a whole: setting it up, and the way from links and tree nodes to the records they are
// part of.

#include "nd_lib_consumer/nd_lib_consumer.h"

#include <cstddef>

#include "nd_lib/nd_lib.h"

namespace {

// The record that a link lies in, at offset.
ND_LIB_DataEntry *EntryOf(ND_LIB_ListNode *link, size_t offset) {
    void *record = reinterpret_cast<char *>(link) - offset;
    return static_cast<ND_LIB_DataEntry *>(record);
}

// A tree node is the first field of its key entry.
static_assert(offsetof(ND_LIB_KeyEntry, rbNode) == 0);
ND_LIB_KeyEntry *EntryOf(KAL_RBT_Node *node) {
    return reinterpret_cast<ND_LIB_KeyEntry *>(node);
}

} // namespace

namespace pegeir::store {

ND_LIB_DataEntry *OfDataLink(ND_LIB_ListNode *link) {
    return EntryOf(link, offsetof(ND_LIB_DataEntry, dataListNode));
}

ND_LIB_DataEntry *OfWorkLink(ND_LIB_ListNode *link) {
    return EntryOf(link, offsetof(ND_LIB_DataEntry, workListNode));
}

ND_LIB_KeyEntry *FirstKey(ND_LIB_Instance *instance) {
    KAL_RBT_Tree &tree = instance->consumer.subscribeTree;
    return tree.root == nullptr ? nullptr : EntryOf(KAL_RBT_FirstNode(&tree));
}

ND_LIB_KeyEntry *NextKey(ND_LIB_Instance *instance, ND_LIB_KeyEntry *entry) {
    return EntryOf(KAL_RBT_NextNode(&instance->consumer.subscribeTree, &entry->rbNode));
}

void SetUp(ND_LIB_Instance *instance) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    KAL_RBT_Tree &tree = consumer.subscribeTree;
    tree.root = &tree.sentinel;
    tree.sentinel = {nullptr, {nullptr, nullptr}, KAL_RBT_BLACK};
    tree.reserved = 0;
    tree.count = 0;
    list::MakeEmpty(&consumer.subscribingList);
    list::MakeEmpty(&consumer.unsubscribingList);
    list::MakeEmpty(&consumer.waitSubAckList);
    list::MakeEmpty(&consumer.subscribeTmpList);
}

} // namespace pegeir::store
