// Creation, registration and destruction of an instance.

#include "nd_lib/nd_lib.h"

using pegeir::AssertFailed;
using pegeir::kInstanceModule;

uint32_t ND_LIB_FrameRegisterIsValid(const ND_LIB_FrameRegister *frame) {
    if (frame == nullptr || frame->ndPid == 0 || frame->appPid == 0 || frame->memHandle == 0 ||
        frame->timerHandle == 0 || frame->appLocal == 0 || frame->logFunc == nullptr) {
        AssertFailed(kInstanceModule);
        return 0;
    }
    return 1;
}

uint32_t ND_LIB_ConsumerRegisterIsValid(const ND_LIB_ConsumerRegister *consumer) {
    if (consumer == nullptr || consumer->funcTable == 0 || consumer->packSubscribeFunc == nullptr ||
        consumer->notifyEventFunc == nullptr || consumer->updataInfoFunc == nullptr) {
        AssertFailed(kInstanceModule);
        return 0;
    }
    return 1;
}

ND_LIB_Instance *ND_LIB_Init(const ND_LIB_FrameRegister *frame) {
    if (ND_LIB_FrameRegisterIsValid(frame) == 0) {
        AssertFailed(kInstanceModule);
        return nullptr;
    }
    auto *instance = static_cast<ND_LIB_Instance *>(
        pegeir::ZeroAlloc(kInstanceModule, frame->memHandle, sizeof(ND_LIB_Instance)));
    if (instance == nullptr) {
        AssertFailed(kInstanceModule);
        return nullptr;
    }
    instance->ndPid = frame->ndPid;
    instance->appPid = frame->appPid;
    instance->memHandle = frame->memHandle;
    instance->timerHandle = frame->timerHandle;
    instance->appLocal = frame->appLocal;
    instance->logFunc = frame->logFunc;
    instance->reserved1 = frame->reserved1;
    instance->reserved2 = frame->reserved2;
    instance->ndCompState = ND_LIB_COMP_NOT_AVAILABLE;
    instance->msgMaxLen = ND_LIB_MSG_MAX_LEN;
    instance->verifyCycle = ND_LIB_VERIFY_CYCLE_DEFAULT;
    instance->isNeedVerify = 0;
    ND_LIB_InitFsmRecord(instance);
    (void)ND_LIB_InitTmr(instance); // without timers it still answers and reports
    ND_LIB_BlackboxInit(instance);
    pegeir::RefreshClock(instance);
    return instance;
}

uint32_t ND_LIB_RegisterConsumer(ND_LIB_Instance *instance, const ND_LIB_ConsumerRegister *consumer) {
    if (instance == nullptr || ND_LIB_ConsumerRegisterIsValid(consumer) == 0) {
        return ND_LIB_ERR_PARAM;
    }
    if (pegeir::IsRefusedInside(instance)) {
        return ND_LIB_ERR_PARAM;
    }
    ND_LIB_DeleteAllKeyEntry(instance);
    pegeir::ReleaseOptionData(instance);
    instance->consumer.funcTable = consumer->funcTable;
    instance->consumer.packSubscribeFunc = consumer->packSubscribeFunc;
    instance->consumer.notifyEventFunc = consumer->notifyEventFunc;
    instance->consumer.updataInfoFunc = consumer->updataInfoFunc;
    pegeir::store::SetUp(instance);
    return ND_LIB_OK;
}

void ND_LIB_Deinit(ND_LIB_Instance *instance) {
    if (instance == nullptr || pegeir::IsRefusedInside(instance)) {
        return;
    }
    // The backup timer needs the service, which goes next.  One whose deletion is refused ends with the
    // service; only then may its record go.
    ND_LIB_TmrParam *refused = nullptr;
    (void)pegeir::timer::Stop(instance, &instance->consumer.backupTimer, &refused);
    ND_LIB_DeInitTmr(instance);
    pegeir::Free(pegeir::kTimerModule, refused);
    ND_LIB_BlackboxFree(instance); // from here on nothing traces
    pegeir::ReleaseOptionData(instance);
    ND_LIB_DeleteAllKeyEntry(instance);
    pegeir::Free(kInstanceModule, instance);
}
