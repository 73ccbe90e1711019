// The way of an entry through the work lists.
//
// Reports go to the consumer's log function, which may make requests and so move any entry to any
// list.  The walk that reports therefore takes the first entry until none is left, and looks again at
// an entry after it has been reported; the walk over waitSubAckList, which keeps a next link, must
// not report.

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"

using pegeir::store::OfWorkLink;

namespace {

// Puts an entry back to where it waits for being sent.
void MoveToBackup(ND_LIB_ConsumerInfo &consumer, ND_LIB_DataEntry *entry) {
    pegeir::list::Move(entry->subscribeState == ND_LIB_SUBSCRIBE ? &consumer.subscribingList
                                                                 : &consumer.unsubscribingList,
                       &entry->workListNode);
}

} // namespace

void ND_LIB_MovDataToTmplist(ND_LIB_DataEntry *entry, ND_LIB_Instance *instance) {
    pegeir::list::Move(&instance->consumer.subscribeTmpList, &entry->workListNode);
}

void ND_LIB_MovDataTmpToAckList(ND_LIB_Instance *instance) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    while (ND_LIB_ListNode *link = pegeir::list::First(&consumer.subscribeTmpList)) {
        ND_LIB_DataEntry *entry = OfWorkLink(link);
        pegeir::list::Move(&consumer.waitSubAckList, link);
        uint32_t &sent =
            entry->subscribeState == ND_LIB_SUBSCRIBE ? consumer.sendSubNum : consumer.sendUnSubNum;
        PEGEIR_TRACE_THEN_LOG(instance, ND_LIB_LOG_DETAIL, ND_LIB_BLACKBOX_INFO,
                              "send sub key: %u, len: %u, data type:%u, len:%u", entry->keyEntry->keyType,
                              entry->keyEntry->keyLen, entry->dataType, entry->dataLen);
        ++sent;
        if (entry->workListNode.list != &consumer.waitSubAckList) {
            continue; // requested again from the log function: what was sent no longer stands for it
        }
        entry->sendTransNumber = instance->transNumber;
        ND_LIB_SetNextSendTime(instance, &entry->nextSendTime, &entry->sendCnt);
    }
}

void ND_LIB_MovDataTmpToBackupList(ND_LIB_Instance *instance) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    while (ND_LIB_ListNode *link = pegeir::list::First(&consumer.subscribeTmpList)) {
        MoveToBackup(consumer, OfWorkLink(link));
    }
}

void ND_LIB_MovDataAckToBackupListTimeout(ND_LIB_Instance *instance) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    for (ND_LIB_ListNode *link = pegeir::list::First(&consumer.waitSubAckList); link != nullptr;) {
        ND_LIB_ListNode *next = pegeir::list::Next(&consumer.waitSubAckList, link);
        ND_LIB_DataEntry *entry = OfWorkLink(link);
        if (instance->secNow >= entry->nextSendTime) {
            MoveToBackup(consumer, entry);
        }
        link = next;
    }
}
