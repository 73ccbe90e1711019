// One event through the state machine beside a switch statement with the same rows and the same handlers.
// The handlers that are measured find nothing to do, so that the way to them is what counts.

#include "consumer.hpp"

#include <benchmark/benchmark.h>

namespace pegeir::bench {
namespace {

// Keeps to what it stands for: one switch, as a hand-written machine has it.
uint32_t Dispatch(ND_LIB_Instance *instance, uint32_t event, void *message) {
    switch (instance->consumer.compFsmState) {
    case ND_LIB_FSM_INIT:
        switch (event) {
        case ND_LIB_EVT_COMPONENT_UP:
            return ND_LIB_SendRegister(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_REGISTER:
        switch (event) {
        case ND_LIB_EVT_REGISTER_ACK:
            return ND_LIB_CollectSubscribe(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_SendRegister(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_COLLECT_SUBSCRIBE:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_CollectSubscribe(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_SUBSCRIBE_BEGIN:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_SendSubscribeBegin(instance, message);
        case ND_LIB_EVT_SUBSCRIBE_BEGIN_ACK:
            return ND_LIB_SendSubcribeData(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_SUBSCRIBE_DATA:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_SendSubcribeData(instance, message);
        case ND_LIB_EVT_SUBSCRIBE_DATA_ACK:
            return ND_LIB_ProcSubAndUnsubAck(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_SUBSCRIBE_END:
        switch (event) {
        case ND_LIB_EVT_SUBSCRIBE_END_ACK:
            return ND_LIB_ProcSubEndAck(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_SendSubcribeEnd(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_WAIT_SMOOTH:
        switch (event) {
        case ND_LIB_EVT_SMOOTH_BEGIN:
            return ND_LIB_ProcSmoothBegin(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_WAIT_SMOOTH_DATA:
        switch (event) {
        case ND_LIB_EVT_SMOOTH_BEGIN:
            return ND_LIB_ProcSmoothBegin(instance, message);
        case ND_LIB_EVT_SMOOTH_DATA:
            return ND_LIB_ProcSmoothData(instance, message);
        case ND_LIB_EVT_SMOOTH_END:
            return ND_LIB_ProcSmoothEnd(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_SEQUENCE_ERROR:
            return ND_LIB_SendSeqError(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_READY:
        switch (event) {
        case ND_LIB_EVT_SMOOTH_END:
            return ND_LIB_ProcSmoothEnd(instance, message);
        case ND_LIB_EVT_REAL_NOTIFY:
            return ND_LIB_ProcRealNotify(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_ReadyTimeout(instance, message);
        case ND_LIB_EVT_SUBSCRIBE_DATA_ACK:
            return ND_LIB_ProcSubAndUnsubAck(instance, message);
        case ND_LIB_EVT_UNSUBSCRIBE_ACK:
            return ND_LIB_ProcSubAndUnsubAck(instance, message);
        case ND_LIB_EVT_VERIFY_DATA_END:
            return ND_LIB_VerifyDataEnd(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_VerifyCollectSubscribe(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_REAL_NOTIFY:
            return ND_LIB_ProcRealNotify(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_VerifySendSubscribeBegin(instance, message);
        case ND_LIB_EVT_VERIFY_SUBSCRIBE_BEGIN_ACK:
            return ND_LIB_VerifySendSubcribeData(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_REAL_NOTIFY:
            return ND_LIB_ProcRealNotify(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA:
        switch (event) {
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_VerifySendSubcribeData(instance, message);
        case ND_LIB_EVT_SUBSCRIBE_DATA_ACK:
            return ND_LIB_ProcSubAndUnsubAck(instance, message);
        case ND_LIB_EVT_UNSUBSCRIBE_ACK:
            return ND_LIB_ProcSubAndUnsubAck(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_SUBSCRIBE_END:
        switch (event) {
        case ND_LIB_EVT_VERIFY_SUBSCRIBE_END_ACK:
            return ND_LIB_VerifyProcSubEndAck(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_VerifySendSubcribeEnd(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_WAIT_DATA_BEGIN:
        switch (event) {
        case ND_LIB_EVT_VERIFY_DATA_BEGIN:
            return ND_LIB_VerifyProcSmoothBegin(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_VERIFY_WAIT_DATA:
        switch (event) {
        case ND_LIB_EVT_VERIFY_DATA_BEGIN:
            return ND_LIB_VerifyProcSmoothBegin(instance, message);
        case ND_LIB_EVT_SMOOTH_DATA:
            return ND_LIB_VerifyProcData(instance, message);
        case ND_LIB_EVT_VERIFY_DATA_END:
            return ND_LIB_VerifyDataEnd(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_SEQUENCE_ERROR:
            return ND_LIB_SendSeqError(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    case ND_LIB_FSM_SEQUENCE_ERROR:
        switch (event) {
        case ND_LIB_EVT_SEQUENCE_ERROR_ACK:
            return ND_LIB_ProcSeqErrAck(instance, message);
        case ND_LIB_EVT_COMPONENT_DOWN:
            return ND_LIB_Reinit(instance, message);
        case ND_LIB_EVT_TIMEOUT:
            return ND_LIB_SendSeqErrorTimeout(instance, message);
        default:
            return ND_LIB_FSM_MAX;
        }
    default:
        return ND_LIB_FSM_MAX;
    }
}

__attribute__((noinline)) void SwitchHandle(ND_LIB_Instance *instance, uint32_t event, void *message) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    const uint32_t oldState = consumer.compFsmState;
    const uint32_t newState = Dispatch(instance, event, message);
    if (newState == ND_LIB_FSM_MAX) {
        return;
    }
    consumer.compFsmState = newState;
    consumer.nextSendCtrlMsgTime = 0;
    consumer.ctrlMsgSendCnt = 0;
    ND_LIB_AddFsmRecord(instance, static_cast<uint8_t>(oldState), static_cast<uint8_t>(newState),
                        static_cast<uint8_t>(event));
    ND_LIB_BlackBox(instance, ND_LIB_BLACKBOX_INFO, "oldState: %s->newState: %s, event: %s",
                    ND_LIB_GetFsmName(oldState), ND_LIB_GetFsmName(newState), ND_LIB_GetEventName(event));
}

struct Case {
    uint32_t state;
    uint32_t event;
};
// The second one's row is the last of the table.
constexpr Case kMatched[] = {{ND_LIB_FSM_SUBSCRIBE_BEGIN, ND_LIB_EVT_TIMEOUT},
                             {ND_LIB_FSM_SEQUENCE_ERROR, ND_LIB_EVT_TIMEOUT}};
constexpr Case kUnmatched[] = {{ND_LIB_FSM_READY, ND_LIB_EVT_COMPONENT_UP},
                               {ND_LIB_FSM_WAIT_SMOOTH, ND_LIB_EVT_TIMEOUT}};

template <class Handle>
void Run(benchmark::State &state, Handle handle, const Case (&cases)[2]) {
    Consumer consumer;
    consumer.nd->consumer.nextSendCtrlMsgTime = ~uint32_t{0}; // nothing is due
    for (auto _ : state) {
        for (const Case &c : cases) {
            consumer.Stand(c.state);
            handle(consumer.nd, c.event, nullptr);
        }
    }
    state.SetItemsProcessed(state.iterations() * 2);
}

BENCHMARK_CAPTURE(Run, a, ND_LIB_FsmStatusHandle, kMatched)->Name("event_matched/ours");
BENCHMARK_CAPTURE(Run, b, SwitchHandle, kMatched)->Name("event_matched/peer");
BENCHMARK_CAPTURE(Run, c, ND_LIB_FsmStatusHandle, kUnmatched)->Name("event_unmatched/ours");
BENCHMARK_CAPTURE(Run, d, SwitchHandle, kUnmatched)->Name("event_unmatched/peer");

} // namespace
} // namespace pegeir::bench
