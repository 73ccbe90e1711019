// The rules of the machine: what each state does on each event.  A pair that is not here is dropped.
//
// "Component down" is legal wherever the component was up, and
// the states that wait for a download have no timeout: only the component can end them.

#include "nd_lib_fsm/nd_lib_fsm.h"

constexpr ND_LIB_FsmStateTrans g_ndLibFsmStateTrans[ND_LIB_FSM_TRANS_NUM] = {
    {ND_LIB_FSM_INIT, ND_LIB_EVT_COMPONENT_UP, ND_LIB_SendRegister},
    {ND_LIB_FSM_REGISTER, ND_LIB_EVT_REGISTER_ACK, ND_LIB_CollectSubscribe},
    {ND_LIB_FSM_REGISTER, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_REGISTER, ND_LIB_EVT_TIMEOUT, ND_LIB_SendRegister},
    {ND_LIB_FSM_COLLECT_SUBSCRIBE, ND_LIB_EVT_TIMEOUT, ND_LIB_CollectSubscribe},
    {ND_LIB_FSM_COLLECT_SUBSCRIBE, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_SUBSCRIBE_BEGIN, ND_LIB_EVT_TIMEOUT, ND_LIB_SendSubscribeBegin},
    {ND_LIB_FSM_SUBSCRIBE_BEGIN, ND_LIB_EVT_SUBSCRIBE_BEGIN_ACK, ND_LIB_SendSubcribeData},
    {ND_LIB_FSM_SUBSCRIBE_BEGIN, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_SUBSCRIBE_DATA, ND_LIB_EVT_TIMEOUT, ND_LIB_SendSubcribeData},
    {ND_LIB_FSM_SUBSCRIBE_DATA, ND_LIB_EVT_SUBSCRIBE_DATA_ACK, ND_LIB_ProcSubAndUnsubAck},
    {ND_LIB_FSM_SUBSCRIBE_DATA, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_SUBSCRIBE_END, ND_LIB_EVT_SUBSCRIBE_END_ACK, ND_LIB_ProcSubEndAck},
    {ND_LIB_FSM_SUBSCRIBE_END, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_SUBSCRIBE_END, ND_LIB_EVT_TIMEOUT, ND_LIB_SendSubcribeEnd},
    {ND_LIB_FSM_WAIT_SMOOTH, ND_LIB_EVT_SMOOTH_BEGIN, ND_LIB_ProcSmoothBegin},
    {ND_LIB_FSM_WAIT_SMOOTH, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_WAIT_SMOOTH_DATA, ND_LIB_EVT_SMOOTH_BEGIN, ND_LIB_ProcSmoothBegin},
    {ND_LIB_FSM_WAIT_SMOOTH_DATA, ND_LIB_EVT_SMOOTH_DATA, ND_LIB_ProcSmoothData},
    {ND_LIB_FSM_WAIT_SMOOTH_DATA, ND_LIB_EVT_SMOOTH_END, ND_LIB_ProcSmoothEnd},
    {ND_LIB_FSM_WAIT_SMOOTH_DATA, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_WAIT_SMOOTH_DATA, ND_LIB_EVT_SEQUENCE_ERROR, ND_LIB_SendSeqError},
    {ND_LIB_FSM_READY, ND_LIB_EVT_SMOOTH_END, ND_LIB_ProcSmoothEnd},
    {ND_LIB_FSM_READY, ND_LIB_EVT_REAL_NOTIFY, ND_LIB_ProcRealNotify},
    {ND_LIB_FSM_READY, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_READY, ND_LIB_EVT_TIMEOUT, ND_LIB_ReadyTimeout},
    {ND_LIB_FSM_READY, ND_LIB_EVT_SUBSCRIBE_DATA_ACK, ND_LIB_ProcSubAndUnsubAck},
    {ND_LIB_FSM_READY, ND_LIB_EVT_UNSUBSCRIBE_ACK, ND_LIB_ProcSubAndUnsubAck},
    {ND_LIB_FSM_READY, ND_LIB_EVT_VERIFY_DATA_END, ND_LIB_VerifyDataEnd},
    {ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE, ND_LIB_EVT_TIMEOUT, ND_LIB_VerifyCollectSubscribe},
    {ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE, ND_LIB_EVT_REAL_NOTIFY, ND_LIB_ProcRealNotify},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_EVT_TIMEOUT, ND_LIB_VerifySendSubscribeBegin},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_EVT_VERIFY_SUBSCRIBE_BEGIN_ACK, ND_LIB_VerifySendSubcribeData},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_EVT_REAL_NOTIFY, ND_LIB_ProcRealNotify},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA, ND_LIB_EVT_TIMEOUT, ND_LIB_VerifySendSubcribeData},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA, ND_LIB_EVT_SUBSCRIBE_DATA_ACK, ND_LIB_ProcSubAndUnsubAck},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA, ND_LIB_EVT_UNSUBSCRIBE_ACK, ND_LIB_ProcSubAndUnsubAck},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_END, ND_LIB_EVT_VERIFY_SUBSCRIBE_END_ACK, ND_LIB_VerifyProcSubEndAck},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_END, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_SUBSCRIBE_END, ND_LIB_EVT_TIMEOUT, ND_LIB_VerifySendSubcribeEnd},
    {ND_LIB_FSM_VERIFY_WAIT_DATA_BEGIN, ND_LIB_EVT_VERIFY_DATA_BEGIN, ND_LIB_VerifyProcSmoothBegin},
    {ND_LIB_FSM_VERIFY_WAIT_DATA_BEGIN, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_WAIT_DATA, ND_LIB_EVT_VERIFY_DATA_BEGIN, ND_LIB_VerifyProcSmoothBegin},
    {ND_LIB_FSM_VERIFY_WAIT_DATA, ND_LIB_EVT_SMOOTH_DATA, ND_LIB_VerifyProcData},
    {ND_LIB_FSM_VERIFY_WAIT_DATA, ND_LIB_EVT_VERIFY_DATA_END, ND_LIB_VerifyDataEnd},
    {ND_LIB_FSM_VERIFY_WAIT_DATA, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_VERIFY_WAIT_DATA, ND_LIB_EVT_SEQUENCE_ERROR, ND_LIB_SendSeqError},
    {ND_LIB_FSM_SEQUENCE_ERROR, ND_LIB_EVT_SEQUENCE_ERROR_ACK, ND_LIB_ProcSeqErrAck},
    {ND_LIB_FSM_SEQUENCE_ERROR, ND_LIB_EVT_COMPONENT_DOWN, ND_LIB_Reinit},
    {ND_LIB_FSM_SEQUENCE_ERROR, ND_LIB_EVT_TIMEOUT, ND_LIB_SendSeqErrorTimeout},
};

namespace {

// The number of the row of each state and event, so that finding it takes no search.
struct RowIndex {
    static constexpr uint8_t kNone = UINT8_MAX;

    constexpr RowIndex() {
        for (uint32_t state = 0; state < ND_LIB_FSM_MAX; ++state) {
            for (uint32_t event = 0; event < ND_LIB_EVT_MAX; ++event) {
                row[state][event] = kNone;
            }
        }
        for (uint32_t i = ND_LIB_FSM_TRANS_NUM; i-- != 0;) { // of equal pairs the first row counts
            row[g_ndLibFsmStateTrans[i].state][g_ndLibFsmStateTrans[i].event] = static_cast<uint8_t>(i);
        }
    }

    uint8_t row[ND_LIB_FSM_MAX][ND_LIB_EVT_MAX] = {};
};

constexpr RowIndex kRows;

} // namespace

const ND_LIB_FsmStateTrans *pegeir::fsm::RowOf(uint32_t state, uint32_t event) {
    if (state >= ND_LIB_FSM_MAX || event >= ND_LIB_EVT_MAX || kRows.row[state][event] == RowIndex::kNone) {
        return nullptr;
    }
    return &g_ndLibFsmStateTrans[kRows.row[state][event]];
}
