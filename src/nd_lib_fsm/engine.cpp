// The engine: finds the row of an event, runs its handler and applies the verdict.

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"

uint32_t ND_LIB_FsmStateCheck(uint32_t event, uint32_t state, uint32_t row) {
    return row < ND_LIB_FSM_TRANS_NUM && g_ndLibFsmStateTrans[row].state == state &&
                   g_ndLibFsmStateTrans[row].event == event
               ? 1
               : 0;
}

void ND_LIB_FsmStatusHandle(ND_LIB_Instance *instance, uint32_t event, void *message) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    const uint32_t oldState = consumer.compFsmState;
    const ND_LIB_FsmStateTrans *row = pegeir::fsm::RowOf(oldState, event);
    if (row == nullptr || row->handler == nullptr) {
        return;
    }
    const uint32_t newState = row->handler(instance, message);
    if (newState == ND_LIB_FSM_MAX) {
        return;
    }
    // A state that leads to itself is a transition too: its pacing begins anew.
    consumer.compFsmState = newState;
    consumer.nextSendCtrlMsgTime = 0;
    consumer.ctrlMsgSendCnt = 0;
    ND_LIB_AddFsmRecord(instance, static_cast<uint8_t>(oldState), static_cast<uint8_t>(newState),
                        static_cast<uint8_t>(event));
    PEGEIR_EVENT(instance, "ND_LIB_FsmStatusHandle oldState: %s->newState: %s, event: %s",
                 ND_LIB_GetFsmName(oldState), ND_LIB_GetFsmName(newState), ND_LIB_GetEventName(event));
}

void ND_LIB_InitFsmRecord(ND_LIB_Instance *instance) {
    for (ND_LIB_FsmRecord &record : instance->consumer.fsmRecord) {
        record = {ND_LIB_FSM_MAX, ND_LIB_FSM_MAX, ND_LIB_EVT_MAX};
    }
    instance->consumer.fsmRecordNum = 0;
}

void ND_LIB_AddFsmRecord(ND_LIB_Instance *instance, uint8_t oldState, uint8_t newState, uint8_t event) {
    if (oldState == ND_LIB_FSM_READY && newState == ND_LIB_FSM_READY) {
        return; // repeated ends of downloads would push out what led here
    }
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    const uint8_t slot = consumer.fsmRecordNum < ND_LIB_FSM_RECORD_NUM ? consumer.fsmRecordNum : uint8_t{0};
    consumer.fsmRecord[slot] = {oldState, newState, event};
    consumer.fsmRecordNum = static_cast<uint8_t>(slot + 1);
}
