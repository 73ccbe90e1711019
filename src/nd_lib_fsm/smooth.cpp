// The download ("smooth"), what the ready state does with updates and time, and the repair of a
// download that arrived with a gap.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"

using pegeir::fsm::Acknowledge;
using pegeir::fsm::DeliverElements;
using pegeir::fsm::Notify;
using pegeir::fsm::PacedSend;

namespace {

constexpr uint32_t kPostponeSeconds = 10;

} // namespace

uint32_t ND_LIB_ProcSmoothBegin(ND_LIB_Instance *instance, void *message) {
    Notify(instance, ND_LIB_NOTIFY_SMOOTH_BEGIN);
    Acknowledge(instance, message, ND_LIB_STAT_SEND_SMOOTH_BEGIN_ACK);
    ND_LIB_Statistic(instance, ND_LIB_STAT_RECV_SMOOTH_BEGIN);
    instance->consumer.sequenceNum = pegeir::ndpi::ReadHeader(message).sequenceNum;
    return ND_LIB_FSM_WAIT_SMOOTH_DATA;
}

uint32_t ND_LIB_ProcSmoothData(ND_LIB_Instance *instance, void *message) {
    DeliverElements(instance, message);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_ProcSmoothEnd(ND_LIB_Instance *instance, void *message) {
    Acknowledge(instance, message, ND_LIB_STAT_SEND_SMOOTH_END_ACK);
    Notify(instance, ND_LIB_NOTIFY_SMOOTH_END);
    return ND_LIB_FSM_READY;
}

uint32_t ND_LIB_ProcRealNotify(ND_LIB_Instance *instance, void *message) {
    // First of all, because the delivery rewrites the message that the acknowledgement echoes.
    Acknowledge(instance, message, ND_LIB_STAT_SEND_REAL_NOTIFY_ACK);
    DeliverElements(instance, message);
    return ND_LIB_FSM_MAX;
}

void ND_LIB_SendSubcribeTimeout(ND_LIB_Instance *instance) {
    ND_LIB_MovDataAckToBackupListTimeout(instance);
    (void)ND_LIB_SendSubscribeDataMsg(instance);
    (void)ND_LIB_SendUnSubscribeDataMsg(instance);
}

uint32_t ND_LIB_ReadyTimeout(ND_LIB_Instance *instance, void *message) {
    ND_LIB_SendSubcribeTimeout(instance);
    if (instance->isNeedVerify != 1 || instance->secNow < instance->nextVerifyTime ||
        instance->consumer.notifyEventFunc == nullptr) {
        return ND_LIB_FSM_MAX;
    }
    if (instance->consumer.notifyEventFunc(instance, ND_LIB_NOTIFY_VERIFY_REQUEST, 0) == 0) {
        return ND_LIB_VerifyCollectSubscribe(instance, message);
    }
    // Counted from when the pass was due, not from now.
    instance->nextVerifyTime += kPostponeSeconds;
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_SendSeqError(ND_LIB_Instance *instance, void * /*message*/) {
    return PacedSend(instance, ND_LIB_SendSeqErrorMsg) ? ND_LIB_FSM_SEQUENCE_ERROR : ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_SendSeqErrorTimeout(ND_LIB_Instance *instance, void * /*message*/) {
    (void)PacedSend(instance, ND_LIB_SendSeqErrorMsg);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_ProcSeqErrAck(ND_LIB_Instance * /*instance*/, void * /*message*/) {
    return ND_LIB_FSM_WAIT_SMOOTH;
}
