// Steps that handlers of several states share.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/tlv.h"

namespace pegeir::fsm {

bool PacedSend(ND_LIB_Instance *instance, uint32_t (*sender)(ND_LIB_Instance *)) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    if (instance->secNow < consumer.nextSendCtrlMsgTime) {
        return false;
    }
    if (sender(instance) == ND_LIB_OK) { // a failed send is tried again at the next timeout
        ND_LIB_SetNextSendTime(instance, &consumer.nextSendCtrlMsgTime, &consumer.ctrlMsgSendCnt);
    }
    return true;
}

uint32_t Collect(ND_LIB_Instance *instance, uint32_t more, uint32_t done) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    if (consumer.packSubscribeFunc == nullptr) {
        return ND_LIB_FSM_MAX; // the component is up, but the consumer has not registered yet
    }
    switch (consumer.packSubscribeFunc(instance, consumer.optionData)) {
    case ND_LIB_PACK_MORE:
        return more;
    case ND_LIB_PACK_DONE:
        ReleaseOptionData(instance);
        return done;
    default:
        return ND_LIB_FSM_MAX;
    }
}

void Acknowledge(ND_LIB_Instance *instance, const void *message, uint32_t sent) {
    const bool ok = ND_LIB_SendAckMsg(message, instance) == ND_LIB_OK;
    ND_LIB_Statistic(instance, ok ? sent : uint32_t{ND_LIB_STAT_SEND_ACK_FAILED});
}

void Notify(ND_LIB_Instance *instance, uint32_t code) {
    if (instance->consumer.notifyEventFunc != nullptr) {
        (void)instance->consumer.notifyEventFunc(instance, code, 0);
    }
}

void DeliverElements(ND_LIB_Instance *instance, void *message) {
    tlv::ForEach(message, [instance](uint8_t *element, tlv::Head) {
        (void)ND_LIB_ParseUpdateData(instance, element);
    });
}

} // namespace pegeir::fsm
