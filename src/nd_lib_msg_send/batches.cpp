// Packing the pending entries of one list into as many data messages as they need.
//
// A message is closed when the largest record ever stored might not fit into it any more; no record is
// measured for that.  An entry whose own record fits no message at all is set aside: it stays in the
// store, where the report shows it, and holds nothing up.

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"

namespace {

using pegeir::ndpi::kRecordFixedLen;
using pegeir::ndpi::kTlvHeadLen;

struct DataKind {
    NdpiMsgType msgType;
    ND_LIB_StatisticCode statistic;
    ND_LIB_List ND_LIB_ConsumerInfo::*pending;
};

constexpr DataKind kSubscribe{NDPI_MSG_SUBSCRIBE_DATA, ND_LIB_STAT_SEND_SUBSCRIBE_DATA,
                              &ND_LIB_ConsumerInfo::subscribingList};
constexpr DataKind kUnSubscribe{NDPI_MSG_UNSUBSCRIBE_DATA, ND_LIB_STAT_SEND_UNSUBSCRIBE,
                                &ND_LIB_ConsumerInfo::unsubscribingList};

void SendData(void *message, uint16_t usedLen, ND_LIB_Instance *instance, const DataKind &kind) {
    if (usedLen == NDPI_HEADER_LEN) {
        DMS_MsgFree(instance->appPid, message);
        return;
    }
    ND_LIB_Statistic(instance, kind.statistic);
    if (ND_LIB_SendMsg(instance, message, kind.msgType, usedLen) == ND_LIB_OK) {
        ND_LIB_MovDataTmpToAckList(instance);
    }
}

bool LargestRecordFits(const ND_LIB_Instance *instance, uint16_t usedLen) {
    return uint32_t{instance->consumer.maxKeyLength} + usedLen + instance->consumer.maxValueLength +
               kTlvHeadLen <=
           instance->msgMaxLen;
}

bool FitsAnyMessage(const ND_LIB_Instance *instance, const ND_LIB_DataEntry *entry) {
    return NDPI_HEADER_LEN + kRecordFixedLen + entry->keyEntry->keyLen + entry->dataLen <=
           instance->msgMaxLen;
}

void SetAside(ND_LIB_Instance *instance, ND_LIB_DataEntry *entry) {
    pegeir::list::Unlink(&entry->workListNode);
    // The log comes second: it may run a request that changes the entry.
    PEGEIR_TRACE_THEN_LOG(instance, ND_LIB_LOG_FAILURE, ND_LIB_BLACKBOX_ASSERT,
                          "send sub record too long key: %u, len: %u, data type:%u, len:%u",
                          entry->keyEntry->keyType, entry->keyEntry->keyLen, entry->dataType, entry->dataLen);
}

uint32_t SendBatch(ND_LIB_Instance *instance, const DataKind &kind) {
    ND_LIB_List *pending = &(instance->consumer.*kind.pending);
    if (pending->count == 0) {
        return ND_LIB_OK;
    }
    uint16_t usedLen = 0;
    void *message = ND_LIB_AllocMsg(instance->msgMaxLen, &usedLen, instance);
    if (message == nullptr) {
        return ND_LIB_ERR;
    }
    // A report may run consumer code that makes requests, so the next entry is looked up only after the
    // room has been made, and the batch takes no more entries than it began with.
    for (uint32_t left = pending->count; left != 0 && pending->count != 0; --left) {
        if (!LargestRecordFits(instance, usedLen)) {
            message =
                ND_LIB_SendAndReallocMsg(message, instance->msgMaxLen, &usedLen, kind.msgType, instance);
            if (message == nullptr) {
                ND_LIB_MovDataTmpToBackupList(instance);
                return ND_LIB_ERR;
            }
            if (pending->count == 0) {
                break;
            }
        }
        ND_LIB_DataEntry *entry = pegeir::store::OfWorkLink(pegeir::list::First(pending));
        if (!FitsAnyMessage(instance, entry)) {
            SetAside(instance, entry);
            continue;
        }
        const uint16_t recordLen = ND_LIB_BuildSubscribeMsg(static_cast<uint8_t *>(message) + usedLen, entry);
        ND_LIB_MovDataToTmplist(entry, instance);
        usedLen = static_cast<uint16_t>(usedLen + recordLen);
    }
    SendData(message, usedLen, instance, kind);
    ND_LIB_MovDataTmpToBackupList(instance);
    return ND_LIB_OK;
}

} // namespace

void ND_LIB_SendSubMsg(void *message, uint16_t usedLen, ND_LIB_Instance *instance) {
    SendData(message, usedLen, instance, kSubscribe);
}

void ND_LIB_SendUnSubMsg(void *message, uint16_t usedLen, ND_LIB_Instance *instance) {
    SendData(message, usedLen, instance, kUnSubscribe);
}

void *ND_LIB_SendAndReallocMsg(void *message, uint32_t size, uint16_t *usedLen, uint32_t msgType,
                               ND_LIB_Instance *instance) {
    SendData(message, *usedLen, instance, msgType == NDPI_MSG_SUBSCRIBE_DATA ? kSubscribe : kUnSubscribe);
    return ND_LIB_AllocMsg(size, usedLen, instance);
}

uint32_t ND_LIB_SendSubscribeDataMsg(ND_LIB_Instance *instance) {
    return SendBatch(instance, kSubscribe);
}

uint32_t ND_LIB_SendUnSubscribeDataMsg(ND_LIB_Instance *instance) {
    return SendBatch(instance, kUnSubscribe);
}
