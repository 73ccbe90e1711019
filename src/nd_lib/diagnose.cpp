// The consumer's way through the diagnose reports, one page a call.

#include "nd_lib/nd_lib.h"

uint32_t ND_LIB_GetDiagnoseInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                uint32_t *pageLen, uint32_t restart) {
    if (instance == nullptr || buffer == nullptr) {
        pegeir::AssertFailed(pegeir::kInstanceModule);
        return ND_LIB_ERR_DIAG_END;
    }
    if (bufferLen < ND_LIB_DIAG_MIN_BUFFER) {
        return ND_LIB_ERR_BUFLEN;
    }
    if (pageLen == nullptr) {
        pegeir::AssertFailed(pegeir::kInstanceModule);
        return ND_LIB_ERR_DIAG_END;
    }
    if (restart == 1) {
        ND_LIB_ClearDiagnosePosion(instance);
    }
    if (ND_LIB_ShowDiagnoseInfoByType(instance, buffer, bufferLen, pageLen) == ND_LIB_DIAG_MORE) {
        return ND_LIB_OK;
    }
    ++instance->diagnoseType;
    if (instance->diagnoseType > ND_LIB_DIAG_BLACKBOX_INFO) {
        ND_LIB_ClearDiagnosePosion(instance);
        return ND_LIB_ERR_DIAG_END;
    }
    return ND_LIB_OK;
}
