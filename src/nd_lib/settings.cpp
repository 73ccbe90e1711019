// What the consumer sets on an instance and reads back.

#include "nd_lib/nd_lib.h"

#include "nd_lib_debug/report.h"

using pegeir::AssertFailed;
using pegeir::kInstanceModule;

namespace {

uint32_t SetNeedVerify(ND_LIB_Instance *instance, uint8_t isNeedVerify) {
    if (instance == nullptr) {
        AssertFailed(kInstanceModule);
        return ND_LIB_ERR;
    }
    instance->isNeedVerify = isNeedVerify;
    return ND_LIB_OK;
}

} // namespace

void pegeir::ReleaseOptionData(ND_LIB_Instance *instance) {
    Free(kInstanceModule, instance->consumer.optionData);
    instance->consumer.optionData = nullptr;
}

uint32_t ND_LIB_GetAppLocal(const ND_LIB_Instance *instance) {
    return instance == nullptr ? 0 : instance->appLocal;
}

uint32_t ND_LIB_AddOptionData(ND_LIB_Instance *instance, const void *data, uint32_t length) {
    if (instance == nullptr || data == nullptr) {
        return ND_LIB_ERR;
    }
    const pegeir::Entered entered(instance);
    pegeir::ReleaseOptionData(instance);
    auto *copy = static_cast<uint8_t *>(pegeir::ZeroAlloc(kInstanceModule, instance->memHandle, length));
    if (copy == nullptr) {
        PEGEIR_LOG(instance, ND_LIB_LOG_FAILURE, "AddOptionData malloc failed");
        return ND_LIB_ERR;
    }
    if (length != 0) {
        (void)memcpy_s(copy, length, data, length); // cannot fail: the sizes are equal
    }
    instance->consumer.optionData = copy;
    return ND_LIB_OK;
}

uint32_t ND_LIB_StartVerify(ND_LIB_Instance *instance) {
    return SetNeedVerify(instance, 1);
}

uint32_t ND_LIB_StopVerify(ND_LIB_Instance *instance) {
    return SetNeedVerify(instance, 0);
}

uint32_t ND_LIB_SetVerifyCycle(ND_LIB_Instance *instance, uint16_t seconds) {
    if (instance == nullptr) {
        AssertFailed(kInstanceModule);
        return ND_LIB_ERR;
    }
    if (seconds < ND_LIB_VERIFY_CYCLE_MIN || seconds > ND_LIB_VERIFY_CYCLE_MAX) {
        return ND_LIB_ERR_PARAM;
    }
    instance->verifyCycle = seconds;
    return ND_LIB_OK;
}
