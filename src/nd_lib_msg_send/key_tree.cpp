// Search and insertion in a tree of key entries.  Greater keys are under the first child, lesser ones
// under the second; the platform's rebalancing relies on the same layout.

#include "nd_lib_msg_send/nd_lib_msg_send.h"

namespace {

// The link below node at which a search for a key so compared goes on.
KAL_RBT_Node **ChildFor(KAL_RBT_Node *node, uint32_t order) {
    return &node->child[order == ND_LIB_KEY_CMP_LESS ? 1 : 0];
}

} // namespace

ND_LIB_KeyEntry *ND_LIB_RBT_LookupNode(KAL_RBT_Tree *tree, const ND_LIB_KeyEntry *key,
                                       ND_LIB_KeyCompare compare) {
    if (tree == nullptr || key == nullptr || compare == nullptr) {
        return nullptr;
    }
    KAL_RBT_Node *node = tree->root;
    while (node != nullptr && node != &tree->sentinel) {
        auto *entry = reinterpret_cast<ND_LIB_KeyEntry *>(node); // rbNode is its first field
        const uint32_t order = compare(entry, key);
        if (order != ND_LIB_KEY_CMP_LESS && order != ND_LIB_KEY_CMP_GREATER) {
            return entry;
        }
        node = *ChildFor(node, order);
    }
    return nullptr;
}

uint32_t ND_LIB_RBT_AddNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node, const ND_LIB_KeyEntry *key,
                            ND_LIB_KeyCompare compare) {
    if (tree == nullptr || node == nullptr || key == nullptr || compare == nullptr) {
        return 1;
    }
    KAL_RBT_Node *parent = &tree->sentinel;
    KAL_RBT_Node **link = &tree->root;
    while (*link != &tree->sentinel) {
        if (*link == nullptr) {
            return 1; // a tree never set up
        }
        parent = *link;
        const uint32_t order = compare(reinterpret_cast<const ND_LIB_KeyEntry *>(parent), key);
        if (order != ND_LIB_KEY_CMP_LESS && order != ND_LIB_KEY_CMP_GREATER) {
            return 1;
        }
        link = ChildFor(parent, order);
    }
    *node = {parent, {&tree->sentinel, &tree->sentinel}, KAL_RBT_RED};
    *link = node;
    KAL_RBT_InsertNodeFixup(tree, node);
    return 0;
}
