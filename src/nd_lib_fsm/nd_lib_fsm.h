// The synchronisation state machine of an instance: the engine, the handlers of its transitions, the
// receive handlers that turn messages into events, and the backup timer that turns seconds into them.
//
// Exactly one function changes the state, ND_LIB_FsmStatusHandle, by way of the table
// g_ndLibFsmStateTrans.  A handler never raises an event, so the dispatcher is never re-entered.
#ifndef PEGEIR_ND_LIB_FSM_H
#define PEGEIR_ND_LIB_FSM_H

#include <pegeir/pegeir.h>

enum ND_LIB_FsmState : uint32_t {
    ND_LIB_FSM_INIT = 0,
    ND_LIB_FSM_REGISTER = 1,
    ND_LIB_FSM_COLLECT_SUBSCRIBE = 2,
    ND_LIB_FSM_SUBSCRIBE_BEGIN = 3,
    ND_LIB_FSM_SUBSCRIBE_DATA = 4,
    ND_LIB_FSM_SUBSCRIBE_END = 5,
    ND_LIB_FSM_WAIT_SMOOTH = 6,
    ND_LIB_FSM_WAIT_SMOOTH_DATA = 7,
    ND_LIB_FSM_READY = 8,
    ND_LIB_FSM_SEQUENCE_ERROR = 9,
    ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE = 10,
    ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN = 11,
    ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA = 12,
    ND_LIB_FSM_VERIFY_SUBSCRIBE_END = 13,
    ND_LIB_FSM_VERIFY_WAIT_DATA_BEGIN = 14,
    ND_LIB_FSM_VERIFY_WAIT_DATA = 15,
    ND_LIB_FSM_MAX = 16 // no state: as a handler's result, no transition
};

enum ND_LIB_FsmEvent : uint32_t {
    ND_LIB_EVT_COMPONENT_UP = 0,
    ND_LIB_EVT_REGISTER_ACK = 1,
    ND_LIB_EVT_SUBSCRIBE_BEGIN_ACK = 2,
    ND_LIB_EVT_SUBSCRIBE_DATA_ACK = 3,
    ND_LIB_EVT_SUBSCRIBE_END_ACK = 4,
    ND_LIB_EVT_SMOOTH_BEGIN = 5,
    ND_LIB_EVT_SMOOTH_DATA = 6,
    ND_LIB_EVT_SMOOTH_END = 7,
    ND_LIB_EVT_REAL_NOTIFY = 8,
    ND_LIB_EVT_SEQUENCE_ERROR_ACK = 9,
    ND_LIB_EVT_SEQUENCE_ERROR = 10,
    ND_LIB_EVT_UNSUBSCRIBE_ACK = 11,
    ND_LIB_EVT_TIMEOUT = 12,
    ND_LIB_EVT_FLOWCTRL = 13, // nothing raises it
    ND_LIB_EVT_JOB = 14,      // nothing raises it
    ND_LIB_EVT_COMPONENT_DOWN = 15,
    ND_LIB_EVT_VERIFY_SUBSCRIBE_BEGIN_ACK = 16,
    ND_LIB_EVT_VERIFY_SUBSCRIBE_END_ACK = 17,
    ND_LIB_EVT_VERIFY_DATA_BEGIN = 18,
    ND_LIB_EVT_VERIFY_DATA_END = 19,
    ND_LIB_EVT_MAX = 20 // no event
};

// Indices of statisticCnt.  The sends of control and data messages count messages that were made,
// whether or not the platform then took them; those of acknowledgements count what it took.
// ND_LIB_Statistic counts.
enum ND_LIB_StatisticCode : uint32_t {
    ND_LIB_STAT_SEND_REGISTER = 0,
    ND_LIB_STAT_RECV_REGISTER_ACK = 1,
    ND_LIB_STAT_SEND_SUBSCRIBE_BEGIN = 2,
    ND_LIB_STAT_RECV_SUBSCRIBE_BEGIN_ACK = 3,
    ND_LIB_STAT_SEND_SUBSCRIBE_DATA = 4,
    ND_LIB_STAT_RECV_SUBSCRIBE_DATA_ACK = 5,
    ND_LIB_STAT_SEND_SUBSCRIBE_END = 6,
    ND_LIB_STAT_RECV_SUBSCRIBE_END_ACK = 7,
    ND_LIB_STAT_RECV_SMOOTH_BEGIN = 8,
    ND_LIB_STAT_SEND_SMOOTH_BEGIN_ACK = 9,
    ND_LIB_STAT_RECV_SMOOTH_END = 10,
    ND_LIB_STAT_SEND_SMOOTH_END_ACK = 11,
    ND_LIB_STAT_RECV_SMOOTH_DATA = 12,
    ND_LIB_STAT_SEND_SEQUENCE_ERROR = 13,
    ND_LIB_STAT_RECV_SEQUENCE_ERROR_ACK = 14,
    ND_LIB_STAT_SEND_ACK_FAILED = 15,
    ND_LIB_STAT_RECV_REAL_NOTIFY = 16,
    ND_LIB_STAT_SEND_REAL_NOTIFY_ACK = 17,
    ND_LIB_STAT_SEND_UNSUBSCRIBE = 18,
    ND_LIB_STAT_RECV_UNSUBSCRIBE_ACK = 19,
    ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_BEGIN = 20,
    ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_BEGIN_ACK = 21,
    ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_END = 22,
    ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_END_ACK = 23,
    ND_LIB_STAT_RECV_VERIFY_DATA_BEGIN = 24,
    ND_LIB_STAT_SEND_VERIFY_DATA_BEGIN_ACK = 25,
    ND_LIB_STAT_RECV_VERIFY_DATA_END = 26,
    ND_LIB_STAT_SEND_VERIFY_DATA_END_ACK = 27,
    ND_LIB_STAT_MAX = 28
};

// Runs one transition.  message is the received ndpi message of a message event and null for the
// others.  Returns the next state, or ND_LIB_FSM_MAX to stay without a transition.
using ND_LIB_FsmHandler = uint32_t (*)(ND_LIB_Instance *instance, void *message);

struct ND_LIB_FsmStateTrans {
    uint32_t state;
    uint32_t event;
    ND_LIB_FsmHandler handler;
};

// One past transition; ND_LIB_FSM_MAX, ND_LIB_FSM_MAX, ND_LIB_EVT_MAX while not yet written.
struct ND_LIB_FsmRecord {
    uint8_t oldState;
    uint8_t newState;
    uint8_t event;
};

// What to do with a received message of one type.
struct ND_LIB_NdpiMsgProc {
    uint8_t msgType;
    uint32_t (*handler)(ND_LIB_Instance *instance, void *message);
};

constexpr uint32_t ND_LIB_FSM_TRANS_NUM = 53;
constexpr uint32_t ND_LIB_FSM_RECORD_NUM = 20;
constexpr uint32_t NDPI_MSG_PROC_NUM = 14;
constexpr uint32_t ND_LIB_BACKUP_TIMER_MS = 1000;

extern "C" {

ND_LIB_API extern const char *const g_ndLibFsmStateName[ND_LIB_FSM_MAX + 1];
ND_LIB_API extern const char *const g_ndLibFsmEventName[ND_LIB_EVT_MAX + 1];
ND_LIB_API extern const char *const g_ndLibStatisticName[ND_LIB_STAT_MAX];
ND_LIB_API extern const ND_LIB_FsmStateTrans g_ndLibFsmStateTrans[ND_LIB_FSM_TRANS_NUM];
ND_LIB_API extern const ND_LIB_NdpiMsgProc g_ndpiMsgProc[NDPI_MSG_PROC_NUM];

// ---- Engine ----

// Runs event in the current state; an event without a row there is dropped.  message is a whole ndpi
// message, writable, for the events of messages, and null for the others.  A transition, also to the
// same state, clears the pacing of control messages, is recorded and reported; a handler that answers
// ND_LIB_FSM_MAX leaves all that alone.
ND_LIB_API void ND_LIB_FsmStatusHandle(ND_LIB_Instance *instance, uint32_t event, void *message);

// Returns 1 when row of the table is that of state and event, else 0, also for a row beyond the table.
ND_LIB_API uint32_t ND_LIB_FsmStateCheck(uint32_t event, uint32_t state, uint32_t row);

// Empties the history, and appends to it; "Ready" to itself is not recorded, and a full history starts
// again from its first entry.
ND_LIB_API void ND_LIB_InitFsmRecord(ND_LIB_Instance *instance);
ND_LIB_API void ND_LIB_AddFsmRecord(ND_LIB_Instance *instance, uint8_t oldState, uint8_t newState,
                                    uint8_t event);

// Return the display name; "Fsm max" and "Max" for a number beyond the table.
ND_LIB_API const char *ND_LIB_GetFsmName(uint32_t state);
ND_LIB_API const char *ND_LIB_GetEventName(uint32_t event);

// ---- Registration and upload ----

ND_LIB_API uint32_t ND_LIB_SendRegister(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_CollectSubscribe(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_SendSubscribeBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_SendSubcribeData(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcSubAndUnsubAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_SendSubcribeEnd(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcSubEndAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_Reinit(ND_LIB_Instance *instance, void *message);

// ---- Download, ready state, sequence errors ----

ND_LIB_API uint32_t ND_LIB_ProcSmoothBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcSmoothData(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcSmoothEnd(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcRealNotify(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ReadyTimeout(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_SendSeqError(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_SendSeqErrorTimeout(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_ProcSeqErrAck(ND_LIB_Instance *instance, void *message);

// Sends what is new and what is overdue: requests to subscribe first, then those to unsubscribe.
ND_LIB_API void ND_LIB_SendSubcribeTimeout(ND_LIB_Instance *instance);

// ---- Verification ----

ND_LIB_API uint32_t ND_LIB_VerifyCollectSubscribe(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifySendSubscribeBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifySendSubcribeData(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifySendSubcribeEnd(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifyProcSubEndAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifyProcSmoothBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifyProcData(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_VerifyDataEnd(ND_LIB_Instance *instance, void *message);

// ---- Receiving ----

// Checks a received platform message and runs the receive handler of its type.  Returns the handler's code,
// or ND_LIB_ERR_MSG for what is not a whole ndpi message, ND_LIB_ERR while the component is not
// available, ND_LIB_OK for an unknown type.
ND_LIB_API uint32_t ND_LIB_MsgRecv(ND_LIB_Instance *instance, void *message);

// Returns ND_LIB_OK for an acknowledgement with the number given out last, else reports and returns
// ND_LIB_ERR_MSG.
ND_LIB_API uint32_t ND_LIB_RecvAckCheck(ND_LIB_Instance *instance, void *message);

// The receive handlers of the fourteen types, in the order of g_ndpiMsgProc.
ND_LIB_API uint32_t ND_LIB_RecvRegisterAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSubscribeBeginAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSubscribeDataAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSubscribeEndAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvUnSubscribeAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvVerifySubBeginAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvVerifySubEndAck(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSmoothBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSmoothData(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSmoothEnd(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvRealUpdate(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvVerifyBegin(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvVerifyEnd(ND_LIB_Instance *instance, void *message);
ND_LIB_API uint32_t ND_LIB_RecvSeqErrorAck(ND_LIB_Instance *instance, void *message);

// ---- Backup timer ----

// Start and stop the one-second timer that drives repetitions and schedules; at most one runs.
ND_LIB_API void ND_LIB_StartBackupTimer(ND_LIB_Instance *instance);
ND_LIB_API void ND_LIB_StopBackupTimer(ND_LIB_Instance *instance);

// Its callback; argument is the instance.
ND_LIB_API void ND_LIB_TimeoutBackupTimer(void *argument);

} // extern "C"

namespace pegeir::fsm {

// Returns the row of event in state, or null; in constant time, whatever the numbers are.
const ND_LIB_FsmStateTrans *RowOf(uint32_t state, uint32_t event);

// Steps that several handlers share; steps.cpp says why each is as it is.

// Sends the control message of the current state unless it is held back by its pacing.  Returns false
// when held back, true also when the send failed.
bool PacedSend(ND_LIB_Instance *instance, uint32_t (*sender)(ND_LIB_Instance *));

// Asks the consumer for its subscriptions.  Returns more, done, or ND_LIB_FSM_MAX by the answer.
uint32_t Collect(ND_LIB_Instance *instance, uint32_t more, uint32_t done);

// Acknowledges message and counts either sent or "Send ack failed".
void Acknowledge(ND_LIB_Instance *instance, const void *message, uint32_t sent);

// Tells the consumer one code whose answer does not matter.
void Notify(ND_LIB_Instance *instance, uint32_t code);

// Hands every element of a data message to the consumer.
void DeliverElements(ND_LIB_Instance *instance, void *message);

} // namespace pegeir::fsm

#endif
