// Reporting one thing to the consumer's log function and to a trace box, from one text, so that the
// two cannot drift apart.
#ifndef PEGEIR_ND_LIB_DEBUG_REPORT_H
#define PEGEIR_ND_LIB_DEBUG_REPORT_H

#include "nd_lib/nd_lib.h"

// The text must be a literal: the log's copy begins with the prefix, and the compiler checks the
// arguments against it.
#define PEGEIR_LOG_PREFIX "[ND_LIB] NdPid=0X%X, "

#define PEGEIR_LOG(instance, level, text, ...)                                                               \
    do {                                                                                                     \
        if ((instance)->logFunc != nullptr) {                                                                \
            (instance)->logFunc((instance), (level), PEGEIR_LOG_PREFIX text,                                 \
                                (instance)->ndPid __VA_OPT__(, ) __VA_ARGS__);                               \
        }                                                                                                    \
    } while (0)

#define PEGEIR_TRACE(instance, box, text, ...)                                                               \
    ND_LIB_BlackBox((instance), (box), text __VA_OPT__(, ) __VA_ARGS__)

#define PEGEIR_LOG_THEN_TRACE(instance, level, box, text, ...)                                               \
    do {                                                                                                     \
        PEGEIR_LOG(instance, level, text __VA_OPT__(, ) __VA_ARGS__);                                        \
        PEGEIR_TRACE(instance, box, text __VA_OPT__(, ) __VA_ARGS__);                                        \
    } while (0)

#define PEGEIR_TRACE_THEN_LOG(instance, level, box, text, ...)                                               \
    do {                                                                                                     \
        PEGEIR_TRACE(instance, box, text __VA_OPT__(, ) __VA_ARGS__);                                        \
        PEGEIR_LOG(instance, level, text __VA_OPT__(, ) __VA_ARGS__);                                        \
    } while (0)

// A failure, and an event, as most of the library reports them.
#define PEGEIR_FAILURE(instance, text, ...)                                                                  \
    PEGEIR_LOG_THEN_TRACE(instance, ND_LIB_LOG_FAILURE, ND_LIB_BLACKBOX_ASSERT,                              \
                          text __VA_OPT__(, ) __VA_ARGS__)
#define PEGEIR_EVENT(instance, text, ...)                                                                    \
    PEGEIR_LOG_THEN_TRACE(instance, ND_LIB_LOG_EVENT, ND_LIB_BLACKBOX_INFO, text __VA_OPT__(, ) __VA_ARGS__)

#endif
