// Receiving: tests what arrives against the rules of its type, counts it and turns it into an event.
//
// The rules are three kinds of table rows: acknowledgements of control requests, acknowledgements of
// data messages, and messages that the component originates.

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/delivered.h"
#include "tlv/ndpi.h"

using pegeir::ndpi::Header;
using pegeir::ndpi::ReadHeader;

namespace {

// ---- Reports whose text is a field of a row ----

// Such a text is the whole log format; the trace takes what is behind its prefix.
constexpr size_t kPrefixLen = sizeof(PEGEIR_LOG_PREFIX) - 1;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

template <typename... Args>
void ReportRow(ND_LIB_Instance *instance, uint32_t level, const char *logFormat, Args... args) {
    if (instance->logFunc != nullptr) {
        instance->logFunc(instance, level, logFormat, instance->ndPid, args...);
    }
    ND_LIB_BlackBox(instance, ND_LIB_BLACKBOX_ASSERT, logFormat + kPrefixLen, args...);
}

#pragma GCC diagnostic pop

// ---- Acknowledgements ----

void Accept(ND_LIB_Instance *instance, void *message, uint32_t statistic, uint32_t event) {
    ND_LIB_Statistic(instance, statistic);
    ND_LIB_FsmStatusHandle(instance, event, message);
}

// refusal, if any, is reported after the lines of the check itself.
uint32_t RecvControlAck(ND_LIB_Instance *instance, void *message, uint32_t statistic, uint32_t event,
                        const char *refusal) {
    const uint32_t ret = ND_LIB_RecvAckCheck(instance, message);
    if (ret == ND_LIB_OK) {
        Accept(instance, message, statistic, event);
    } else if (refusal != nullptr) {
        ReportRow(instance, ND_LIB_LOG_FAILURE, refusal);
    }
    return ret;
}

void ReportNotAck(ND_LIB_Instance *instance) {
    PEGEIR_FAILURE(instance, "RecvAckCheck not ack msg");
}

// One batch may send several data messages, so the number is left to the match of the records.
uint32_t RecvDataAck(ND_LIB_Instance *instance, void *message, uint32_t statistic, uint32_t event) {
    if (!ReadHeader(message).IsAck()) {
        ReportNotAck(instance);
        return ND_LIB_ERR_MSG;
    }
    Accept(instance, message, statistic, event);
    return ND_LIB_OK;
}

// ---- Messages of the component ----

// Returns true, after a report, for a message that carries the acknowledgement flag where none may.
bool IsRefusedAck(ND_LIB_Instance *instance, const Header &header, const char *refusal) {
    if (header.IsAck()) {
        ReportRow(instance, ND_LIB_LOG_FAILURE, refusal);
    }
    return header.IsAck();
}

uint32_t RecvDownloadBegin(ND_LIB_Instance *instance, void *message, uint32_t event, const char *refusal) {
    if (IsRefusedAck(instance, ReadHeader(message), refusal)) {
        return ND_LIB_ERR_MSG;
    }
    ND_LIB_FsmStatusHandle(instance, event, message); // the handler that takes it counts it
    return ND_LIB_OK;
}

// Raises the sequence error before reporting it, so that the repair, if the present state has one, is on
// its way when the consumer reads of it.
uint32_t RaiseSequenceError(ND_LIB_Instance *instance, void *message, uint32_t received, uint32_t level,
                            const char *logFormat) {
    ND_LIB_FsmStatusHandle(instance, ND_LIB_EVT_SEQUENCE_ERROR, message);
    ReportRow(instance, level, logFormat, instance->consumer.sequenceNum, received);
    return ND_LIB_ERR_SEQUENCE;
}

struct DownloadEnd {
    uint32_t statistic;
    uint32_t event;
    const char *refusal;
    const char *sequenceError;
};

uint32_t RecvDownloadEnd(ND_LIB_Instance *instance, void *message, const DownloadEnd &row) {
    const Header header = ReadHeader(message);
    if (IsRefusedAck(instance, header, row.refusal)) {
        return ND_LIB_ERR_MSG;
    }
    ND_LIB_Statistic(instance, row.statistic);
    if (header.sequenceNum != instance->consumer.sequenceNum) {
        return RaiseSequenceError(instance, message, header.sequenceNum, ND_LIB_LOG_DETAIL,
                                  row.sequenceError);
    }
    ND_LIB_FsmStatusHandle(instance, row.event, message);
    return ND_LIB_OK;
}

const ND_LIB_NdpiMsgProc *FindRow(uint8_t msgType) {
    for (const ND_LIB_NdpiMsgProc &row : g_ndpiMsgProc) {
        if (row.msgType == msgType && row.handler != nullptr) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

#define PEGEIR_ROW_TEXT(text) PEGEIR_LOG_PREFIX text

const ND_LIB_NdpiMsgProc g_ndpiMsgProc[NDPI_MSG_PROC_NUM] = {
    {NDPI_MSG_REGISTER, ND_LIB_RecvRegisterAck},
    {NDPI_MSG_SUBSCRIBE_BEGIN, ND_LIB_RecvSubscribeBeginAck},
    {NDPI_MSG_SUBSCRIBE_DATA, ND_LIB_RecvSubscribeDataAck},
    {NDPI_MSG_SUBSCRIBE_END, ND_LIB_RecvSubscribeEndAck},
    {NDPI_MSG_UNSUBSCRIBE_DATA, ND_LIB_RecvUnSubscribeAck},
    {NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_RecvVerifySubBeginAck},
    {NDPI_MSG_VERIFY_SUBSCRIBE_END, ND_LIB_RecvVerifySubEndAck},
    {NDPI_MSG_SMOOTH_BEGIN, ND_LIB_RecvSmoothBegin},
    {NDPI_MSG_SMOOTH_DATA, ND_LIB_RecvSmoothData},
    {NDPI_MSG_SMOOTH_END, ND_LIB_RecvSmoothEnd},
    {NDPI_MSG_REAL_UPDATE, ND_LIB_RecvRealUpdate},
    {NDPI_MSG_VERIFY_DATA_BEGIN, ND_LIB_RecvVerifyBegin},
    {NDPI_MSG_VERIFY_DATA_END, ND_LIB_RecvVerifyEnd},
    {NDPI_MSG_SEQUENCE_ERROR, ND_LIB_RecvSeqErrorAck},
};

uint32_t ND_LIB_MsgRecv(ND_LIB_Instance *instance, void *message) {
    if (DMS_ZEP_MSG_GET_SUB_INTF(message) != NDPI_MSG_SUB_INTF) {
        PEGEIR_TRACE(instance, ND_LIB_BLACKBOX_ASSERT, "ND_LIB_MsgRecv not ndpi msg");
        return ND_LIB_ERR_MSG;
    }
    if (instance->ndCompState == ND_LIB_COMP_NOT_AVAILABLE) {
        PEGEIR_FAILURE(instance, "ND_LIB_MsgRecv nd component not avaliable");
        return ND_LIB_ERR;
    }
    const uint32_t delivered = pegeir::ndpi::DeliveredLen(message);
    if (delivered < NDPI_HEADER_LEN) {
        PEGEIR_FAILURE(instance, "ND_LIB_MsgRecv msg smaller than ndpi header len:%u", delivered);
        return ND_LIB_ERR_MSG;
    }
    const Header header = ReadHeader(message);
    const ND_LIB_NdpiMsgProc *row = FindRow(header.msgType);
    if (row == nullptr) {
        return ND_LIB_OK; // a type of a later protocol, whose header may mean something else
    }
    if (header.msgLen > delivered) {
        PEGEIR_FAILURE(instance, "ND_LIB_MsgRecv msgLen:%u larger than delivered len:%u", header.msgLen,
                       delivered);
        return ND_LIB_ERR_MSG;
    }
    return row->handler(instance, message);
}

uint32_t ND_LIB_RecvAckCheck(ND_LIB_Instance *instance, void *message) {
    const Header header = ReadHeader(message);
    if (!header.IsAck()) {
        ReportNotAck(instance);
        return ND_LIB_ERR_MSG;
    }
    if (header.transNumber != instance->transNumber) {
        PEGEIR_FAILURE(instance, "RecvAckCheck transnumber not equal, input trans: %u, local trans:%u",
                       header.transNumber, instance->transNumber);
        return ND_LIB_ERR_MSG;
    }
    return ND_LIB_OK;
}

uint32_t ND_LIB_RecvRegisterAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_REGISTER_ACK, ND_LIB_EVT_REGISTER_ACK, nullptr);
}

uint32_t ND_LIB_RecvSubscribeBeginAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_SUBSCRIBE_BEGIN_ACK,
                          ND_LIB_EVT_SUBSCRIBE_BEGIN_ACK,
                          PEGEIR_ROW_TEXT("RecvSubscribeBeginAck not ack msg"));
}

uint32_t ND_LIB_RecvSubscribeDataAck(ND_LIB_Instance *instance, void *message) {
    return RecvDataAck(instance, message, ND_LIB_STAT_RECV_SUBSCRIBE_DATA_ACK, ND_LIB_EVT_SUBSCRIBE_DATA_ACK);
}

uint32_t ND_LIB_RecvSubscribeEndAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_SUBSCRIBE_END_ACK, ND_LIB_EVT_SUBSCRIBE_END_ACK,
                          PEGEIR_ROW_TEXT("RecvSubscribeEndAck not ack msg"));
}

uint32_t ND_LIB_RecvUnSubscribeAck(ND_LIB_Instance *instance, void *message) {
    return RecvDataAck(instance, message, ND_LIB_STAT_RECV_UNSUBSCRIBE_ACK, ND_LIB_EVT_UNSUBSCRIBE_ACK);
}

uint32_t ND_LIB_RecvVerifySubBeginAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_BEGIN_ACK,
                          ND_LIB_EVT_VERIFY_SUBSCRIBE_BEGIN_ACK,
                          PEGEIR_ROW_TEXT("RecvVerifySubBeginAck not ack msg"));
}

uint32_t ND_LIB_RecvVerifySubEndAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_END_ACK,
                          ND_LIB_EVT_VERIFY_SUBSCRIBE_END_ACK,
                          PEGEIR_ROW_TEXT("RecvVerifySubEndAck not ack msg"));
}

uint32_t ND_LIB_RecvSeqErrorAck(ND_LIB_Instance *instance, void *message) {
    return RecvControlAck(instance, message, ND_LIB_STAT_RECV_SEQUENCE_ERROR_ACK,
                          ND_LIB_EVT_SEQUENCE_ERROR_ACK, PEGEIR_ROW_TEXT("RecvSeqErrorAck not ack msg"));
}

uint32_t ND_LIB_RecvSmoothBegin(ND_LIB_Instance *instance, void *message) {
    return RecvDownloadBegin(instance, message, ND_LIB_EVT_SMOOTH_BEGIN,
                             PEGEIR_ROW_TEXT("RecvSmoothBegin ack msg"));
}

uint32_t ND_LIB_RecvVerifyBegin(ND_LIB_Instance *instance, void *message) {
    return RecvDownloadBegin(instance, message, ND_LIB_EVT_VERIFY_DATA_BEGIN,
                             PEGEIR_ROW_TEXT("RecvVerifyBegin ack msg"));
}

uint32_t ND_LIB_RecvSmoothData(ND_LIB_Instance *instance, void *message) {
    const Header header = ReadHeader(message);
    if (IsRefusedAck(instance, header, PEGEIR_ROW_TEXT("RecvSmoothData ack msg"))) {
        return ND_LIB_ERR_MSG;
    }
    PEGEIR_LOG(instance, ND_LIB_LOG_DETAIL, "RecvSmoothData, msgLen:%d", header.msgLen);
    if (header.msgLen <= NDPI_HEADER_LEN) {
        PEGEIR_TRACE(instance, ND_LIB_BLACKBOX_ASSERT,
                     "RecvSmoothData, msgLen smaller than ndpi header len:%u", header.msgLen);
        return ND_LIB_ERR_MSG;
    }
    if (header.sequenceNum != instance->consumer.sequenceNum) {
        return RaiseSequenceError(instance, message, header.sequenceNum, ND_LIB_LOG_EVENT,
                                  PEGEIR_ROW_TEXT("RecvSmoothData, sequence error local seq:%u, msg seq:%u"));
    }
    ++instance->consumer.sequenceNum;
    Accept(instance, message, ND_LIB_STAT_RECV_SMOOTH_DATA, ND_LIB_EVT_SMOOTH_DATA);
    return ND_LIB_OK;
}

uint32_t ND_LIB_RecvSmoothEnd(ND_LIB_Instance *instance, void *message) {
    static constexpr DownloadEnd kRow = {
        ND_LIB_STAT_RECV_SMOOTH_END, ND_LIB_EVT_SMOOTH_END, PEGEIR_ROW_TEXT("RecvSmoothEnd ack msg"),
        PEGEIR_ROW_TEXT("ND_LIB_RecvSmoothEnd, sequence error local seq:%u, msg seq:%u")};
    return RecvDownloadEnd(instance, message, kRow);
}

uint32_t ND_LIB_RecvVerifyEnd(ND_LIB_Instance *instance, void *message) {
    static constexpr DownloadEnd kRow = {
        ND_LIB_STAT_RECV_VERIFY_DATA_END, ND_LIB_EVT_VERIFY_DATA_END,
        PEGEIR_ROW_TEXT("RecvVerifyEnd ack msg"),
        PEGEIR_ROW_TEXT("RecvVerifyEnd, sequence error local seq:%u, msg seq:%u")};
    return RecvDownloadEnd(instance, message, kRow);
}

uint32_t ND_LIB_RecvRealUpdate(ND_LIB_Instance *instance, void *message) {
    const Header header = ReadHeader(message);
    if (IsRefusedAck(instance, header, PEGEIR_ROW_TEXT("RecvRealUpdate ack msg"))) {
        return ND_LIB_ERR_MSG;
    }
    if (header.msgLen <= NDPI_HEADER_LEN) {
        PEGEIR_TRACE(instance, ND_LIB_BLACKBOX_ASSERT,
                     "RecvRealUpdate, msgLen smaller than ndpi header len:%u", header.msgLen);
        return ND_LIB_ERR_MSG;
    }
    Accept(instance, message, ND_LIB_STAT_RECV_REAL_NOTIFY, ND_LIB_EVT_REAL_NOTIFY);
    return ND_LIB_OK;
}
