// Pages: the appender that every report writes through, the choice of the report, and the black-box
// reports, which are read page by page.

#include "nd_lib/nd_lib.h"

#include <cstdarg>

namespace {

uint32_t ShowBlackbox(ND_LIB_Instance *instance, uint32_t box, const char *title, char *buffer,
                      uint32_t bufferLen, uint32_t *pageLen) {
    uint32_t position = 0;
    if (instance->diagnoseReadLen == 0) {
        ND_LIB_Printf(&position, buffer, bufferLen, "%s", title);
    }
    ND_LIB_ReadBlackBox(instance, box, buffer, bufferLen, &position);
    const bool isLast = instance->diagnoseReadLen == 0;
    if (isLast) {
        ND_LIB_Printf(&position, buffer, bufferLen, "\n");
    }
    *pageLen = position;
    return isLast ? uint32_t{ND_LIB_ERR_DIAG_END} : ND_LIB_DIAG_MORE;
}

} // namespace

void ND_LIB_Printf(uint32_t *position, char *buffer, uint32_t bufferLen, const char *format, ...) {
    if (bufferLen == 0 || *position >= bufferLen - 1) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const int count = vsnprintf_truncated_s(buffer + *position, bufferLen - 1 - *position, format, arguments);
    va_end(arguments);
    if (count > 0) {
        *position += static_cast<uint32_t>(count);
    }
}

uint32_t ND_LIB_ShowDiagnoseInfoByType(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                       uint32_t *pageLen) {
    uint32_t ret = 0;
    switch (instance->diagnoseType) {
    case ND_LIB_DIAG_LOCAL_INFO:
        ND_LIB_Show_LocalInfo(instance, buffer, bufferLen, pageLen);
        break;
    case ND_LIB_DIAG_FSM_INFO:
        ND_LIB_ShowFsmInfo(instance, buffer, bufferLen, pageLen);
        break;
    case ND_LIB_DIAG_STATISTIC:
        ND_LIB_ShowStatisticInfo(instance, buffer, bufferLen, pageLen);
        break;
    case ND_LIB_DIAG_BLACKBOX_ASSERT:
        ret = ND_LIB_ShowBlackboxAssert(instance, buffer, bufferLen, pageLen);
        break;
    case ND_LIB_DIAG_BLACKBOX_INFO:
        ret = ND_LIB_ShowBlackboxInfo(instance, buffer, bufferLen, pageLen);
        break;
    default:
        break;
    }
    return ret == ND_LIB_DIAG_MORE ? ND_LIB_DIAG_MORE : 0;
}

uint32_t ND_LIB_ShowBlackboxAssert(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                   uint32_t *pageLen) {
    return ShowBlackbox(instance, ND_LIB_BLACKBOX_ASSERT, "  FSM blackbox assert:\n", buffer, bufferLen,
                        pageLen);
}

uint32_t ND_LIB_ShowBlackboxInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                 uint32_t *pageLen) {
    return ShowBlackbox(instance, ND_LIB_BLACKBOX_INFO, "  FSM blackbox info:\n", buffer, bufferLen, pageLen);
}

void ND_LIB_ClearDiagnosePosion(ND_LIB_Instance *instance) {
    instance->diagnoseType = ND_LIB_DIAG_LOCAL_INFO;
    instance->diagnoseReadLen = 0;
}
