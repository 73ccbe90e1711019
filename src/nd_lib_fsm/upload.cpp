// Registration and the first upload: "Init" to "Wait smooth".

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/tlv.h"

using pegeir::fsm::Collect;
using pegeir::fsm::PacedSend;

uint32_t ND_LIB_SendRegister(ND_LIB_Instance *instance, void * /*message*/) {
    if (!PacedSend(instance, ND_LIB_SendRegisterMsg)) {
        return ND_LIB_FSM_MAX;
    }
    // Repeating the request must not count as a transition, which would clear its pacing.
    return instance->consumer.compFsmState == ND_LIB_FSM_REGISTER ? ND_LIB_FSM_MAX : ND_LIB_FSM_REGISTER;
}

uint32_t ND_LIB_CollectSubscribe(ND_LIB_Instance *instance, void * /*message*/) {
    return Collect(instance, ND_LIB_FSM_COLLECT_SUBSCRIBE, ND_LIB_FSM_SUBSCRIBE_BEGIN);
}

uint32_t ND_LIB_SendSubscribeBegin(ND_LIB_Instance *instance, void * /*message*/) {
    (void)PacedSend(instance, ND_LIB_SendSubscribeBeginMsg);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_SendSubcribeData(ND_LIB_Instance *instance, void * /*message*/) {
    const ND_LIB_ConsumerInfo &consumer = instance->consumer;
    ND_LIB_MovDataAckToBackupListTimeout(instance);
    // Requests to unsubscribe wait for the ready state or a verification pass: this state has no row for
    // their acknowledgements.
    if (consumer.subscribingList.count == 0 && consumer.subscribeTmpList.count == 0 &&
        consumer.waitSubAckList.count == 0) {
        return ND_LIB_FSM_SUBSCRIBE_END;
    }
    (void)ND_LIB_SendSubscribeDataMsg(instance); // what could not be sent waits for the next timeout
    return ND_LIB_FSM_SUBSCRIBE_DATA;
}

uint32_t ND_LIB_ProcSubAndUnsubAck(ND_LIB_Instance *instance, void *message) {
    const pegeir::ndpi::Header header = pegeir::ndpi::ReadHeader(message);
    PEGEIR_EVENT(instance, "ProcSubAndUnsubAck msgType=%u, msgLen=%u", header.msgType, header.msgLen);
    if (header.msgLen < NDPI_HEADER_LEN) {
        PEGEIR_FAILURE(instance, "ProcSubAndUnsubAck msgLen len error :%u", header.msgLen);
        return ND_LIB_FSM_MAX;
    }
    pegeir::tlv::ForEach(message, [&](const uint8_t *element, pegeir::tlv::Head head) {
        PEGEIR_LOG_THEN_TRACE(instance, ND_LIB_LOG_FAILURE, ND_LIB_BLACKBOX_INFO,
                              "ProcSubAndUnsubAck tlvType=%u, tlvLen=%u", head.tlvType, head.tlvLen);
        (void)ND_LIB_ParseSubAndUnsubData(instance, element, header.msgType, header.transNumber);
    });
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_SendSubcribeEnd(ND_LIB_Instance *instance, void * /*message*/) {
    (void)PacedSend(instance, ND_LIB_SubscribeEndMsg);
    return ND_LIB_FSM_MAX;
}

uint32_t ND_LIB_ProcSubEndAck(ND_LIB_Instance * /*instance*/, void * /*message*/) {
    return ND_LIB_FSM_WAIT_SMOOTH;
}

uint32_t ND_LIB_Reinit(ND_LIB_Instance *instance, void * /*message*/) {
    ND_LIB_DeleteAllKeyEntry(instance);
    return ND_LIB_FSM_INIT;
}
