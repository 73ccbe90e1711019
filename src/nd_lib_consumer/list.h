// Counted circular doubly linked lists whose links are part of the records they carry.
//
// Invariants
//  1. A head begins with the same two pointers as a link and takes its place in the ring like one.
//  2. A link on a list names that list, whose count includes it; a free link points at itself and
//     names none.
// Head pointers are only ever touched through the link view of the head, so that the compiler sees
// one type behind every pointer of the ring.
#ifndef PEGEIR_ND_LIB_CONSUMER_LIST_H
#define PEGEIR_ND_LIB_CONSUMER_LIST_H

#include <cstdint>

struct ND_LIB_List;

struct ND_LIB_ListNode {
    ND_LIB_ListNode *next;
    ND_LIB_ListNode *prev;
    ND_LIB_List *list; // null while free
};

struct ND_LIB_List {
    ND_LIB_ListNode *next;
    ND_LIB_ListNode *prev;
    uint32_t count;
};

namespace pegeir::list {

inline ND_LIB_ListNode *Ring(ND_LIB_List *list) {
    return reinterpret_cast<ND_LIB_ListNode *>(list);
}

inline void MakeEmpty(ND_LIB_List *list) {
    Ring(list)->next = Ring(list);
    Ring(list)->prev = Ring(list);
    list->count = 0;
}

inline void MakeFree(ND_LIB_ListNode *node) {
    node->next = node;
    node->prev = node;
    node->list = nullptr;
}

// The first link, or null for an empty list, which a zeroed head is as well.
inline ND_LIB_ListNode *First(ND_LIB_List *list) {
    return list->count == 0 ? nullptr : Ring(list)->next;
}

// The link behind node on list, or null behind the last one.
inline ND_LIB_ListNode *Next(ND_LIB_List *list, ND_LIB_ListNode *node) {
    return node->next == Ring(list) ? nullptr : node->next;
}

// Takes node off its list; a free node is left as it is.
inline void Unlink(ND_LIB_ListNode *node) {
    if (node->next == node || node->prev == node) {
        return;
    }
    node->prev->next = node->next;
    node->next->prev = node->prev;
    --node->list->count;
    MakeFree(node);
}

// Appends a free node.
inline void Append(ND_LIB_List *list, ND_LIB_ListNode *node) {
    node->next = Ring(list);
    node->prev = Ring(list)->prev;
    node->prev->next = node;
    Ring(list)->prev = node;
    node->list = list;
    ++list->count;
}

// Moves node from whatever list it is on to the tail of list.
inline void Move(ND_LIB_List *list, ND_LIB_ListNode *node) {
    Unlink(node);
    Append(list, node);
}

} // namespace pegeir::list

#endif
