// The verification pass: from the ready state through a second upload and download back to it.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"

using pegeir::fsm::Acknowledge;
using pegeir::fsm::Collect;
using pegeir::fsm::PacedSend;

uint32_t ND_LIB_VerifyCollectSubscribe(ND_LIB_Instance *instance, void * /*message*/) {
    return Collect(instance, ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE, ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN);
}

uint32_t ND_LIB_VerifySendSubscribeBegin(ND_LIB_Instance *instance, void * /*message*/) {
    (void)PacedSend(instance, ND_LIB_VerifySendSubBeginMsg);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_VerifySendSubcribeData(ND_LIB_Instance *instance, void * /*message*/) {
    const ND_LIB_ConsumerInfo &consumer = instance->consumer;
    ND_LIB_MovDataAckToBackupListTimeout(instance);
    if (consumer.subscribingList.count == 0 && consumer.unsubscribingList.count == 0 &&
        consumer.subscribeTmpList.count == 0 && consumer.waitSubAckList.count == 0) {
        return ND_LIB_FSM_VERIFY_SUBSCRIBE_END;
    }
    (void)ND_LIB_SendSubscribeDataMsg(instance); // what could not be sent waits for the next timeout
    (void)ND_LIB_SendUnSubscribeDataMsg(instance);
    return ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA;
}

uint32_t ND_LIB_VerifySendSubcribeEnd(ND_LIB_Instance *instance, void * /*message*/) {
    (void)PacedSend(instance, ND_LIB_VerifySendSubEndMsg);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_VerifyProcSubEndAck(ND_LIB_Instance * /*instance*/, void * /*message*/) {
    return ND_LIB_FSM_VERIFY_WAIT_DATA_BEGIN;
}

uint32_t ND_LIB_VerifyProcSmoothBegin(ND_LIB_Instance *instance, void *message) {
    Acknowledge(instance, message, ND_LIB_STAT_SEND_VERIFY_DATA_BEGIN_ACK);
    ND_LIB_Statistic(instance, ND_LIB_STAT_RECV_VERIFY_DATA_BEGIN);
    instance->consumer.sequenceNum = pegeir::ndpi::ReadHeader(message).sequenceNum;
    return ND_LIB_FSM_VERIFY_WAIT_DATA;
}

uint32_t ND_LIB_VerifyProcData(ND_LIB_Instance *instance, void *message) {
    pegeir::fsm::DeliverElements(instance, message);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_VerifyDataEnd(ND_LIB_Instance *instance, void *message) {
    Acknowledge(instance, message, ND_LIB_STAT_SEND_VERIFY_DATA_END_ACK);
    pegeir::fsm::Notify(instance, ND_LIB_NOTIFY_VERIFY_END);
    instance->nextVerifyTime = instance->secNow + instance->verifyCycle;
    return ND_LIB_FSM_READY;
}
