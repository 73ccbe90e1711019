// The one-second timer that runs while the component is available and turns each second into a timeout
// event, which drives every repetition and schedule.

#include "nd_lib/nd_lib.h"

void ND_LIB_StartBackupTimer(ND_LIB_Instance *instance) {
    uint32_t &timerId = instance->consumer.backupTimer;
    if (timerId == 0) {
        timerId = ND_LIB_StartLoopTmr(instance, ND_LIB_TimeoutBackupTimer, ND_LIB_BACKUP_TIMER_MS);
    }
}

void ND_LIB_StopBackupTimer(ND_LIB_Instance *instance) {
    if (instance->consumer.backupTimer != 0) {
        (void)ND_LIB_StopTmr(instance, &instance->consumer.backupTimer);
    }
}

void ND_LIB_TimeoutBackupTimer(void *argument) {
    auto *instance = static_cast<ND_LIB_Instance *>(argument);
    pegeir::RefreshClock(instance);
    ND_LIB_FsmStatusHandle(instance, ND_LIB_EVT_TIMEOUT, nullptr);
}
