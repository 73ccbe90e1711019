// Allocating, stamping and sending one message, and returning one as its acknowledgement.

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/delivered.h"
#include "tlv/ndpi.h"

using namespace pegeir::ndpi;

namespace {

constexpr char kSource[] = "nd_lib_msg_send";

// Fixed arguments of every send.
constexpr uint32_t kSendArg1 = 6;
constexpr uint32_t kSendArg2 = 932;

void SetEnvelope(void *message) {
    DMS_ZEP_MSG_SET_INTF(message, NDPI_MSG_INTF);
    DMS_ZEP_MSG_SET_SUB_INTF(message, NDPI_MSG_SUB_INTF);
}

} // namespace

void *ND_LIB_AllocMsg(uint32_t size, uint16_t *usedLen, ND_LIB_Instance *instance) {
    void *message = ZEP_MsgFlowCtrlAlloc_F(instance->appPid, instance->ndPid, size, kSource, __LINE__);
    if (message != nullptr && memset_s(message, size, 0, size) != 0) {
        DMS_MsgFree(instance->appPid, message); // what was not cleared must not go out
        message = nullptr;
    }
    if (message == nullptr) {
        PEGEIR_TRACE_THEN_LOG(instance, ND_LIB_LOG_FAILURE, ND_LIB_BLACKBOX_ASSERT,
                              "ND_LIB_AllocMsg alloc fail");
        ND_LIB_FlowCtlStart(instance);
        return nullptr;
    }
    *usedLen = NDPI_HEADER_LEN;
    return message;
}

void ND_LIB_FlowCtlStart(ND_LIB_Instance *instance) {
    if (instance->flowCtrlState == 0) {
        uint32_t unused = 0; // the instance's own time is left as it is: this is no entry point
        KAL_SecondNow(&instance->flowCtlStartTime, &unused);
        instance->flowCtrlState = 1;
    }
    ++instance->flowCnt;
}

uint32_t ND_LIB_SendMsg(ND_LIB_Instance *instance, void *message, uint32_t msgType, uint32_t msgLen) {
    auto *bytes = static_cast<uint8_t *>(message);
    pegeir::wire::StoreU16(bytes + kMsgLenOffset, static_cast<uint16_t>(msgLen));
    bytes[kMsgTypeOffset] = static_cast<uint8_t>(msgType);
    SetEnvelope(message);
    ++instance->transNumber;
    pegeir::wire::StoreU32(bytes + kTransNumberOffset, instance->transNumber);
    const uint32_t ret = ZEP_SEND_MSG(instance->ndPid, kSendArg1, kSendArg2, message, msgLen);
    if (ret != 0) {
        PEGEIR_TRACE_THEN_LOG(instance, ND_LIB_LOG_FAILURE, ND_LIB_BLACKBOX_ASSERT,
                              "ND_LIB_SendMsg failed msgType:%u, msgLen:%u, ret:%u", msgType, msgLen, ret);
        return ND_LIB_ERR;
    }
    PEGEIR_TRACE_THEN_LOG(instance, ND_LIB_LOG_DETAIL, ND_LIB_BLACKBOX_INFO,
                          "ND_LIB_SendMsg msgType:%u, msgLen:%u", msgType, msgLen);
    return ND_LIB_OK;
}

uint32_t ND_LIB_SendAckMsg(const void *message, ND_LIB_Instance *instance) {
    const uint32_t delivered = DeliveredLen(message);
    if (delivered < NDPI_HEADER_LEN) {
        PEGEIR_FAILURE(instance, "LIB_SendAckMsg msg smaller than ndpi header len:%u", delivered);
        return ND_LIB_ERR;
    }
    const uint32_t len = ReadHeader(message).msgLen;
    if (len < NDPI_HEADER_LEN) {
        PEGEIR_FAILURE(instance, "LIB_SendAckMsg msgLen smaller than ndpi header len:%u", len);
        return ND_LIB_ERR;
    }
    const uint32_t cid = DMS_MsgSendCidGet(message);
    void *ack = ZEP_MsgFlowCtrlAlloc_F(instance->appPid, cid, len, kSource, __LINE__);
    if (ack == nullptr) {
        PEGEIR_FAILURE(instance, "LIB_SendAckMsg alloc fail");
        return ND_LIB_ERR;
    }
    // A header may promise more than was delivered; the rest of its acknowledgement is zeros.
    const uint32_t copied = len < delivered ? len : delivered;
    auto *bytes = static_cast<uint8_t *>(ack);
    (void)memcpy_s(bytes, len, message, copied);
    if (copied < len) {
        (void)memset_s(bytes + copied, len - copied, 0, len - copied);
    }
    bytes[kFlagsOffset] |= NDPI_ACK_FLAG;
    DMS_MsgRecvCidSet(ack, cid);
    SetEnvelope(ack);
    const uint32_t ret = ZEP_SEND_MSG(cid, kSendArg1, kSendArg2, ack, len);
    if (ret != 0) {
        PEGEIR_LOG(instance, ND_LIB_LOG_FAILURE, "LIB_SendAckMsg send failed ret: %u", ret);
        return ND_LIB_ERR;
    }
    return ND_LIB_OK;
}
