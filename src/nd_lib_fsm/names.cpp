// Display names, spelled as the reports have always shown them.

#include "nd_lib_fsm/nd_lib_fsm.h"

const char *const g_ndLibFsmStateName[ND_LIB_FSM_MAX + 1] = {
    "Init",
    "Register",
    "Collect subcribe",
    "Subscribe begin",
    "Subscribe data",
    "Subscribe end",
    "Wait smooth",
    "Wait smooth data",
    "Ready",
    "Sequence error",
    "Verify collect subscribe",
    "Verify subscribe begin",
    "Verify subscribe data",
    "Verify subscribe end",
    "Verify wait data begin",
    "Verify wait data",
    "Fsm max",
};

const char *const g_ndLibFsmEventName[ND_LIB_EVT_MAX + 1] = {
    "Component up",
    "Register ack",
    "Subscribe begin ack",
    "Subscribe data ack",
    "Subscribe end ack",
    "Smooth begin",
    "Smooth data",
    "Smooth end",
    "Real notify",
    "Sequence error ack",
    "Sequence error",
    "Unsubcribe ack",
    "Timeout",
    "Flowctrl",
    "Job",
    "Component down",
    "Verify subscribe begin ack",
    "Verify subscribe end ack",
    "Verify data begin",
    "Verify data end",
    "Max",
};

const char *const g_ndLibStatisticName[ND_LIB_STAT_MAX] = {
    "Send register",
    "Receive register ack",
    "Send subscribe begin",
    "Receive Send subscribe begin",
    "Send subscribe or verify data",
    "Receive subscribe or verify data ack",
    "Send subscribe end",
    "Receive subscribe end ack",
    "Receive smooth begin",
    "Send smooth begin ack",
    "Receive smooth end",
    "Send smooth end ack",
    "Receive smooth or verify data",
    "Send Sequece error",
    "Receive Sequece error ack",
    "Send ack failed",
    "Receive real notify",
    "Send real notify ack",
    "Send unsubscribe",
    "Receive unsubscribe ack",
    "Send verify subscribe begin",
    "Receive verify subscribe begin ack",
    "Send verify subscribe end",
    "Receive verify subscribe end ack",
    "Receive verify data begin",
    "Send verify data begin ack",
    "Receive verify data end",
    "Send verify data end ack",
};

const char *ND_LIB_GetFsmName(uint32_t state) {
    return g_ndLibFsmStateName[state < ND_LIB_FSM_MAX ? state : uint32_t{ND_LIB_FSM_MAX}];
}

const char *ND_LIB_GetEventName(uint32_t event) {
    return g_ndLibFsmEventName[event < ND_LIB_EVT_MAX ? event : uint32_t{ND_LIB_EVT_MAX}];
}
