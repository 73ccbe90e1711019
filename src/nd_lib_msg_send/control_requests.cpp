// The six control requests: a header, a type, a statistic.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"

namespace {

uint32_t SendControlRequest(ND_LIB_Instance *instance, NdpiMsgType msgType, ND_LIB_StatisticCode statistic) {
    uint16_t usedLen = 0;
    void *message = ND_LIB_AllocMsg(NDPI_HEADER_LEN, &usedLen, instance);
    if (message == nullptr) {
        return ND_LIB_ERR;
    }
    ND_LIB_Statistic(instance, statistic);
    return ND_LIB_SendMsg(instance, message, msgType, usedLen);
}

} // namespace

uint32_t ND_LIB_SendRegisterMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_REGISTER, ND_LIB_STAT_SEND_REGISTER);
}

uint32_t ND_LIB_SendSubscribeBeginMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_SUBSCRIBE_BEGIN, ND_LIB_STAT_SEND_SUBSCRIBE_BEGIN);
}

uint32_t ND_LIB_SubscribeEndMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_SUBSCRIBE_END, ND_LIB_STAT_SEND_SUBSCRIBE_END);
}

uint32_t ND_LIB_SendSeqErrorMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_SEQUENCE_ERROR, ND_LIB_STAT_SEND_SEQUENCE_ERROR);
}

uint32_t ND_LIB_VerifySendSubBeginMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN,
                              ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_BEGIN);
}

uint32_t ND_LIB_VerifySendSubEndMsg(ND_LIB_Instance *instance) {
    return SendControlRequest(instance, NDPI_MSG_VERIFY_SUBSCRIBE_END, ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_END);
}
