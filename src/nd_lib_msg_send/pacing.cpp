// How long to wait before the same thing is sent again: 2, 4, 6 ... seconds, 120 from the 60th on.

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"

void ND_LIB_SetNextSendTime(ND_LIB_Instance *instance, uint32_t *time, uint8_t *count) {
    constexpr uint32_t kStepSeconds = 2;
    constexpr uint32_t kMaxSeconds = 120;
    if (*count < UINT8_MAX) {
        ++*count;
    }
    const uint32_t delay = kStepSeconds * *count;
    *time = instance->secNow + (delay < kMaxSeconds ? delay : kMaxSeconds);
}
