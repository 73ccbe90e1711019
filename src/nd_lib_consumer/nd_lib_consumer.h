// The subscription store: every request of the consumer that the component has not acknowledged yet.
//
// An item is named by a key and a data type.  Key entries stand in a red-black tree; each holds the
// list of its data entries, one per data type.  Besides, a data entry is on at most one of four work
// lists, which tell where it is on its way to the component:
//
//     subscribingList / unsubscribingList   waiting to be sent
//     subscribeTmpList                      written into the message being filled
//     waitSubAckList                        sent, waiting for its acknowledgement
//
// Invariants
//  1. No two key entries have equal keys; no two data entries of a key have the same data type.
//  2. A key entry in the tree has at least one data entry.
//  3. A data entry is on the list of its key for its whole life, and on no work list only after its
//     record was found too long for any message.
//  4. An acknowledged entry is deleted, so an empty tree means that nothing is pending.
#ifndef PEGEIR_ND_LIB_CONSUMER_H
#define PEGEIR_ND_LIB_CONSUMER_H

#include <pegeir/pegeir.h>
#include <pegeir/platform.h>

#include "nd_lib_consumer/list.h"

enum ND_LIB_SubscribeState : uint8_t { ND_LIB_SUBSCRIBE = 0, ND_LIB_UNSUBSCRIBE = 1 };

struct ND_LIB_KeyEntry {
    KAL_RBT_Node rbNode; // all zero while in no tree
    uint16_t keyType;
    uint16_t keyLen;
    uint8_t *keyValue; // owned
    ND_LIB_List dataListHead;
};

struct ND_LIB_DataEntry {
    ND_LIB_ListNode dataListNode; // on keyEntry->dataListHead
    uint16_t dataType;
    uint16_t dataLen;
    uint8_t *dataValue; // owned; null when dataLen is 0
    ND_LIB_KeyEntry *keyEntry;
    uint32_t state; // always 0; shown in the report
    uint8_t subscribeState;
    uint8_t sendCnt;              // sends since the latest request, stops at 255
    uint32_t sendTransNumber;     // number it was last counted as sent with, 0 since a request
    uint32_t nextSendTime;        // when a sent entry is due again
    ND_LIB_ListNode workListNode; // on one of the work lists, or free
};

// A request, and a search key: a data entry on no list with a key entry in no tree.
using ND_LIB_DataNode = ND_LIB_DataEntry;

enum ND_LIB_KeyCmp : uint32_t {
    ND_LIB_KEY_CMP_EQUAL = 0,
    ND_LIB_KEY_CMP_GREATER = 1,
    ND_LIB_KEY_CMP_LESS = 2
};

// Tells how the searched key stands to the key of a tree node.
using ND_LIB_KeyCompare = uint32_t (*)(const ND_LIB_KeyEntry *nodeKey, const ND_LIB_KeyEntry *searchedKey);

extern "C" {

// ---- Keys ----

// Compares by key type, then key length, then bytes.  Returns an ND_LIB_KeyCmp.
ND_LIB_API uint32_t ND_LIB_Key_RB_KeyCmp(const ND_LIB_KeyEntry *nodeKey, const ND_LIB_KeyEntry *searchedKey);

// Returns the key entry equal to key, or null.
ND_LIB_API ND_LIB_KeyEntry *ND_LIB_FindKeyEntry(const ND_LIB_KeyEntry *key, ND_LIB_Instance *instance);

// As ND_LIB_FindKeyEntry, but makes the entry, with its own copy of the bytes, when there is none.
// Null without memory (reported); the store is then unchanged.
ND_LIB_API ND_LIB_KeyEntry *ND_LIB_SearchOrCreateKeyEntry(const ND_LIB_KeyEntry *key,
                                                          ND_LIB_Instance *instance);

// Deletes *keyEntry with its data entries and sets *keyEntry to null.
ND_LIB_API void ND_LIB_DeleteKeyEntry(ND_LIB_KeyEntry **keyEntry, ND_LIB_Instance *instance);

// Deletes every key entry; all four work lists are empty afterwards.
ND_LIB_API void ND_LIB_DeleteAllKeyEntry(ND_LIB_Instance *instance);

// ---- Data entries ----

// Returns the key's entry of the node's data type, or null.
ND_LIB_API ND_LIB_DataEntry *ND_LIB_FindDataEntry(ND_LIB_KeyEntry *keyEntry, const ND_LIB_DataNode *node);

// Returns a new entry for the node, on the key's list and on no work list, or null without memory.
ND_LIB_API ND_LIB_DataEntry *ND_LIB_CreateDataEntry(ND_LIB_KeyEntry *keyEntry, const ND_LIB_DataNode *node,
                                                    ND_LIB_Instance *instance);

// Gives the entry the node's bytes and kind and starts its pacing afresh.  Without memory for the bytes
// the entry is left without any, and its kind and pacing stay.
ND_LIB_API void ND_LIB_UpdateDataEntry(ND_LIB_DataEntry *entry, const ND_LIB_DataNode *node,
                                       ND_LIB_Instance *instance);

// Stores a request: the item's entry takes it over, as ND_LIB_UpdateDataEntry does, and moves to the tail
// of the list of its kind.  Returns the entry, or null when it could not be made; no entry is left of
// the request then, though maxKeyLength and maxValueLength may stay raised.
ND_LIB_API ND_LIB_DataEntry *ND_LIB_SerchOrCreateDataEntry(const ND_LIB_DataNode *node,
                                                           ND_LIB_Instance *instance);

// Deletes *entry, and its key entry when it was the last one, and sets *entry to null.
ND_LIB_API void ND_LIB_DeleteDataEntry(ND_LIB_DataEntry **entry, ND_LIB_Instance *instance);

// Deletes the key's data entries, but not the key entry.
ND_LIB_API void ND_LIB_DeleteAllDataEntry(ND_LIB_KeyEntry *keyEntry, ND_LIB_Instance *instance);

// ---- Work lists ----

// The entry's record has been written into the message being filled.
ND_LIB_API void ND_LIB_MovDataToTmplist(ND_LIB_DataEntry *entry, ND_LIB_Instance *instance);

// The message was sent: its entries, and those of refused messages before it in the batch, now wait for
// their acknowledgement, stamped with the number of the message and due again at their paced time.
// Each is counted and reported; one that the consumer has requested again since the send, from the log
// function, is no longer among them.
ND_LIB_API void ND_LIB_MovDataTmpToAckList(ND_LIB_Instance *instance);

// The batch is over: what could not be sent waits again, unchanged.
ND_LIB_API void ND_LIB_MovDataTmpToBackupList(ND_LIB_Instance *instance);

// Entries whose acknowledgement is overdue wait again, with stamp and count kept.
ND_LIB_API void ND_LIB_MovDataAckToBackupListTimeout(ND_LIB_Instance *instance);

// ---- Received records ----

// Reads one record of an acknowledgement, an element that the walk has returned, and settles the entry it
// names.  Returns ND_LIB_OK, or ND_LIB_ERR_MSG for a malformed record or without memory.
ND_LIB_API uint32_t ND_LIB_ParseSubAndUnsubData(ND_LIB_Instance *instance, const uint8_t *tlv,
                                                uint8_t msgType, uint32_t transNumber);

// Deletes the entry that node names if it was last sent under transNumber and not requested again since.
ND_LIB_API void ND_LIB_ProcSingleSubAndUnsub(ND_LIB_Instance *instance, const ND_LIB_DataNode *node,
                                             uint8_t msgType, uint32_t transNumber);

// Turns the element's head into host byte order, in place, and hands it to updataInfoFunc.  Returns the
// answer, or ND_LIB_OK when no function is registered.
ND_LIB_API uint32_t ND_LIB_ParseUpdateData(ND_LIB_Instance *instance, uint8_t *tlv);

} // extern "C"

namespace pegeir::store {

// The records that links and nodes belong to.
ND_LIB_DataEntry *OfDataLink(ND_LIB_ListNode *link);
ND_LIB_DataEntry *OfWorkLink(ND_LIB_ListNode *link);

// The tree in the platform's order; null at the end, and at once for a store never set up.
ND_LIB_KeyEntry *FirstKey(ND_LIB_Instance *instance);
ND_LIB_KeyEntry *NextKey(ND_LIB_Instance *instance, ND_LIB_KeyEntry *entry);

// Makes the store of an instance empty without releasing anything.
void SetUp(ND_LIB_Instance *instance);

} // namespace pegeir::store

#endif
