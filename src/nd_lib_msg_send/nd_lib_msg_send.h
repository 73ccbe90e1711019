// Putting messages on the wire, and the small services that go with it: retry pacing, statistics, and
// the tree search that the store is built on.
//
// An outgoing message belongs to the library from ND_LIB_AllocMsg until ZEP_SEND_MSG, which takes it
// whether or not it accepts the send.
#ifndef PEGEIR_ND_LIB_MSG_SEND_H
#define PEGEIR_ND_LIB_MSG_SEND_H

#include <pegeir/pegeir.h>
#include <pegeir/platform.h>

#include "nd_lib_consumer/nd_lib_consumer.h"

extern "C" {

// ---- Messages ----

// Returns a zero-filled message of size bytes to the component and sets *usedLen to the header's 16, or
// reports, records the failure and returns null.
ND_LIB_API void *ND_LIB_AllocMsg(uint32_t size, uint16_t *usedLen, ND_LIB_Instance *instance);

// Stamps message with its type, its length and the next transaction number, and sends it.  Returns
// ND_LIB_OK or ND_LIB_ERR; the number is spent either way.
ND_LIB_API uint32_t ND_LIB_SendMsg(ND_LIB_Instance *instance, void *message, uint32_t msgType,
                                   uint32_t msgLen);

// Returns a received message to its sender as its own acknowledgement: msgLen bytes, zeros where fewer
// were delivered.  Returns ND_LIB_OK, or ND_LIB_ERR, reported, also for a message that is shorter than
// its header.
ND_LIB_API uint32_t ND_LIB_SendAckMsg(const void *message, ND_LIB_Instance *instance);

// Records that a message could not be had: the time of the first failure and the number of all.
// Nothing but the report reads the record, and nothing ends it.
ND_LIB_API void ND_LIB_FlowCtlStart(ND_LIB_Instance *instance);

// ---- Control requests: a header without a body ----

ND_LIB_API uint32_t ND_LIB_SendRegisterMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_SendSubscribeBeginMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_SubscribeEndMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_SendSeqErrorMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_VerifySendSubBeginMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_VerifySendSubEndMsg(ND_LIB_Instance *instance);

// ---- Subscription records ----

// Writes the record of entry at destination, which has room for 12 + keyLen + dataLen bytes.  Returns the
// bytes written, 0 for a null argument.
ND_LIB_API uint16_t ND_LIB_BuildSubscribeMsg(uint8_t *destination, const ND_LIB_DataEntry *entry);

// Send a filled data message, or release one that holds only the header.  Entries of a sent message go
// on to waitSubAckList, those of a failed one stay on subscribeTmpList.
ND_LIB_API void ND_LIB_SendSubMsg(void *message, uint16_t usedLen, ND_LIB_Instance *instance);
ND_LIB_API void ND_LIB_SendUnSubMsg(void *message, uint16_t usedLen, ND_LIB_Instance *instance);

// Sends message, filled up to *usedLen, by the sender of its type (18 or 20); it is gone in any case.
// Returns a fresh one of size bytes with *usedLen 16, or null with *usedLen as it was.
ND_LIB_API void *ND_LIB_SendAndReallocMsg(void *message, uint32_t size, uint16_t *usedLen, uint32_t msgType,
                                          ND_LIB_Instance *instance);

// Send everything on subscribingList, and on unsubscribingList, in as many messages as it takes.  What a
// refused send held goes on as if sent with the next message of the batch, and comes back when its
// acknowledgement is overdue; what no later message took is back on its list afterwards.  An entry that
// fits no message is reported and taken off its list, until it is requested again.  Return ND_LIB_OK,
// whether or not the sends succeeded, or ND_LIB_ERR when a message could not be had.
ND_LIB_API uint32_t ND_LIB_SendSubscribeDataMsg(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_SendUnSubscribeDataMsg(ND_LIB_Instance *instance);

// ---- Pacing and statistics ----

// Counts one more send and sets *time to secNow + 2 * *count seconds, at most 120; *count stops at 255.
ND_LIB_API void ND_LIB_SetNextSendTime(ND_LIB_Instance *instance, uint32_t *time, uint8_t *count);

// Counts one event of an ND_LIB_StatisticCode; a code beyond the table is ignored.
ND_LIB_API void ND_LIB_Statistic(ND_LIB_Instance *instance, uint32_t code);

// ---- Tree search ----

// Returns the entry of tree whose key equals key, or null.
ND_LIB_API ND_LIB_KeyEntry *ND_LIB_RBT_LookupNode(KAL_RBT_Tree *tree, const ND_LIB_KeyEntry *key,
                                                  ND_LIB_KeyCompare compare);

// Inserts node under key.  Returns 0, or 1 when an argument is null, an equal key is there
// already, or the tree was never set up.
ND_LIB_API uint32_t ND_LIB_RBT_AddNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node, const ND_LIB_KeyEntry *key,
                                       ND_LIB_KeyCompare compare);

} // extern "C"

#endif
