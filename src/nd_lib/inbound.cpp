// The two ways in which the outside world reaches an instance: messages, and the availability of the
// component.

#include "nd_lib/nd_lib.h"

#include "nd_lib_debug/report.h"

using pegeir::AssertFailed;
using pegeir::kInstanceModule;

uint32_t ND_LIB_MsgProcess(ND_LIB_Instance *instance, void *message) {
    if (instance == nullptr || message == nullptr) {
        AssertFailed(kInstanceModule);
        return ND_LIB_ERR;
    }
    if (pegeir::IsRefusedInside(instance)) {
        return ND_LIB_ERR;
    }
    const pegeir::Entered entered(instance);
    pegeir::RefreshClock(instance);
    if (DMS_MsgRecvIidGet(message) == ND_LIB_TIMER_IID) {
        (void)ND_LIB_AppTmrProc(message, instance); // a failure there is the timer service's own
        return ND_LIB_OK;
    }
    return ND_LIB_MsgRecv(instance, message);
}

void ND_LIB_NotifyNdCompState(ND_LIB_Instance *instance, const ND_LIB_CompState *state) {
    if (instance == nullptr || state == nullptr) {
        AssertFailed(kInstanceModule);
        return;
    }
    if (pegeir::IsRefusedInside(instance)) {
        return;
    }
    const pegeir::Entered entered(instance);
    const uint32_t newState = state->newState;
    pegeir::RefreshClock(instance);
    PEGEIR_EVENT(instance, "ND_LIB_NotifyNdCompState ndCompState :%u, newState:%u", instance->ndCompState,
                 newState);
    if (newState == instance->ndCompState) {
        return;
    }
    instance->ndCompState = newState; // before the event, whose handlers may look at it
    if (newState == ND_LIB_COMP_AVAILABLE) {
        ND_LIB_FsmStatusHandle(instance, ND_LIB_EVT_COMPONENT_UP, nullptr);
        ND_LIB_StartBackupTimer(instance);
        PEGEIR_TRACE(instance, ND_LIB_BLACKBOX_INFO, "LIB_NotifyNdCompState component available");
    } else {
        ND_LIB_FsmStatusHandle(instance, ND_LIB_EVT_COMPONENT_DOWN, nullptr);
        ND_LIB_StopBackupTimer(instance);
        PEGEIR_TRACE(instance, ND_LIB_BLACKBOX_INFO, "LIB_NotifyNdCompState component unavailable");
    }
}
