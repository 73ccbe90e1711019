// The timer service of an instance over the platform's application timers.

#include "nd_lib_timer/nd_lib_timer.h"

#include "nd_lib/nd_lib.h"
#include "nd_lib_debug/report.h"

using pegeir::kTimerModule;

uint32_t ND_LIB_InitTmr(ND_LIB_Instance *instance) {
    auto *context = static_cast<ND_LIB_TmrCtx *>(
        pegeir::ZeroAlloc(kTimerModule, instance->memHandle, sizeof(ND_LIB_TmrCtx)));
    instance->tmrCtx = context;
    if (context == nullptr) {
        return ND_LIB_ERR;
    }
    context->tmrLibHandle =
        APPTMR_CreateLib2(instance->timerHandle, ND_LIB_TmrLib_Timeout, instance->memHandle);
    if (context->tmrLibHandle == 0) {
        return ND_LIB_ERR;
    }
    const uint32_t params[] = {1, 120, 500};
    context->tmrInstHandle = APPTMR_CreateInstance(context->tmrLibHandle, params, params[2], params[0]);
    return context->tmrInstHandle == 0 ? ND_LIB_ERR : ND_LIB_OK;
}

void ND_LIB_DeInitTmr(ND_LIB_Instance *instance) {
    ND_LIB_TmrCtx *context = instance->tmrCtx;
    if (context == nullptr) {
        return;
    }
    if (context->tmrInstHandle != 0) {
        APPTMR_DeleteInstance(context->tmrInstHandle);
        context->tmrInstHandle = 0;
    }
    if (context->tmrLibHandle != 0) {
        APPTMR_DeleteLib(context->tmrLibHandle);
        context->tmrLibHandle = 0;
    }
    pegeir::Free(kTimerModule, context);
    instance->tmrCtx = nullptr;
}

uint32_t ND_LIB_StartLoopTmr(ND_LIB_Instance *instance, ND_LIB_TmrCallback callback, uint32_t periodMs) {
    PEGEIR_LOG(instance, ND_LIB_LOG_DETAIL, "ND_LIB_StartLoopTmr start timevalue:%u ms", periodMs);
    if (instance->tmrCtx == nullptr) {
        return 0;
    }
    if (callback == nullptr) {
        pegeir::AssertFailed(kTimerModule); // every expiry will be reported as well
    }
    auto *param = static_cast<ND_LIB_TmrParam *>(
        pegeir::ZeroAlloc(kTimerModule, instance->memHandle, sizeof(ND_LIB_TmrParam)));
    if (param == nullptr) {
        return 0;
    }
    param->callback = callback;
    param->callbackArg = instance;
    param->timerId =
        APPTMR_CreatePeriodTimer(instance->tmrCtx->tmrInstHandle, periodMs, 0, param, APP_TIMER_FLAG_SHADOW);
    if (param->timerId == 0) {
        PEGEIR_LOG(instance, ND_LIB_LOG_FAILURE, "ND_LIB_StartLoopTmr failed TmrFlag APP_TIMER_FLAG_SHADOW");
        pegeir::Free(kTimerModule, param);
        return 0;
    }
    const uint32_t timerId = param->timerId;
    PEGEIR_LOG(instance, ND_LIB_LOG_DETAIL, "ND_LIB_StartLoopTmr end");
    return timerId;
}

uint32_t pegeir::timer::Stop(const ND_LIB_Instance *instance, uint32_t *timerId, ND_LIB_TmrParam **running) {
    *running = nullptr;
    if (*timerId == 0) {
        return ND_LIB_OK;
    }
    const ND_LIB_TmrCtx *context = instance->tmrCtx;
    if (context == nullptr || context->tmrInstHandle == 0) {
        return ND_LIB_ERR;
    }
    auto *param = static_cast<ND_LIB_TmrParam *>(APPTMR_GetTimerParam(context->tmrInstHandle, *timerId));
    if (param == nullptr || param->timerId != *timerId) {
        return ND_LIB_OK;
    }
    if (APPTMR_DeleteTimer(context->tmrInstHandle, *timerId) != 0) {
        *running = param;
        return ND_LIB_ERR;
    }
    Free(kTimerModule, param);
    *timerId = 0;
    return ND_LIB_OK;
}

uint32_t ND_LIB_StopTmr(ND_LIB_Instance *instance, uint32_t *timerId) {
    ND_LIB_TmrParam *running = nullptr;
    return pegeir::timer::Stop(instance, timerId, &running);
}

uint32_t ND_LIB_AppTmrProc(void *message, ND_LIB_Instance *instance) {
    if (instance->tmrCtx == nullptr) {
        return ND_LIB_OK;
    }
    return APPTMR_LibRcvMsg(instance->tmrCtx->tmrLibHandle, message, 0, instance);
}

uint32_t ND_LIB_TmrLib_Timeout(uint32_t timerId, uint32_t /*value*/, void *param, void *instance) {
    const auto *timer = static_cast<const ND_LIB_TmrParam *>(param);
    if (timer == nullptr || timer->timerId != timerId) {
        return 0; // stale or foreign
    }
    if (timer->callback == nullptr) {
        auto *owner = static_cast<ND_LIB_Instance *>(instance);
        pegeir::AssertFailed(kTimerModule);
        PEGEIR_FAILURE(owner, "ND get timer callback error.");
        return 0;
    }
    timer->callback(timer->callbackArg);
    return 0;
}
