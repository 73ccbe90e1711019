// The statistic counters, which wrap around.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"

void ND_LIB_Statistic(ND_LIB_Instance *instance, uint32_t code) {
    if (instance != nullptr && code < ND_LIB_STAT_MAX) {
        ++instance->statisticCnt[code];
    }
}
