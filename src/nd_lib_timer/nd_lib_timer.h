// The timer service of an instance: a thin layer over the platform's application timers, which post a
// message to the consumer's task for every expiry.  Timers are named by the id that the start
// returned; the caller keeps it in a field of its own and passes the field's address to stop it.
#ifndef PEGEIR_ND_LIB_TIMER_H
#define PEGEIR_ND_LIB_TIMER_H

#include <pegeir/pegeir.h>

using ND_LIB_TmrCallback = void (*)(void *argument);

// One per instance; a handle is 0 while it does not exist.
struct ND_LIB_TmrCtx {
    uint32_t tmrLibHandle;
    uint32_t tmrInstHandle;
};

// One per running timer; the platform hands its address back on each expiry.
struct ND_LIB_TmrParam {
    uint32_t timerId; // 0 until the timer has been created
    ND_LIB_TmrCallback callback;
    void *callbackArg;
};

extern "C" {

// Sets up the context with its two platform handles.  Returns ND_LIB_OK, or ND_LIB_ERR when a step failed;
// what was made until then stays for ND_LIB_DeInitTmr.
ND_LIB_API uint32_t ND_LIB_InitTmr(ND_LIB_Instance *instance);

// Removes whatever ND_LIB_InitTmr made.  Timers must have been stopped: the records of running ones
// are not released.
ND_LIB_API void ND_LIB_DeInitTmr(ND_LIB_Instance *instance);

// Starts a timer that calls callback(instance) every periodMs milliseconds.  Returns its id, or 0.
// A null callback is asserted; the timer runs all the same, and each expiry is reported instead.
ND_LIB_API uint32_t ND_LIB_StartLoopTmr(ND_LIB_Instance *instance, ND_LIB_TmrCallback callback,
                                        uint32_t periodMs);

// Stops the timer whose id is in *timerId and clears *timerId.  Returns ND_LIB_OK, also when there is
// nothing to stop or the platform has no timer of that id, or ND_LIB_ERR when there is no timer service or
// the platform refused; in the last three cases *timerId stays as it is.
ND_LIB_API uint32_t ND_LIB_StopTmr(ND_LIB_Instance *instance, uint32_t *timerId);

// Hands a timer message to the platform, which runs the expired timers.  Returns the platform's answer;
// without a context the message is ignored and the answer ND_LIB_OK.
ND_LIB_API uint32_t ND_LIB_AppTmrProc(void *message, ND_LIB_Instance *instance);

// The expiry callback of every timer.  Ignores an expiry whose record is missing or of another id.
// instance is where a missing callback is reported.  Returns 0.
ND_LIB_API uint32_t ND_LIB_TmrLib_Timeout(uint32_t timerId, uint32_t value, void *param, void *instance);

} // extern "C"

namespace pegeir::timer {

// ND_LIB_StopTmr, which also tells of a timer that goes on: *running is the record of one whose deletion was
// refused, else null.
uint32_t Stop(const ND_LIB_Instance *instance, uint32_t *timerId, ND_LIB_TmrParam **running);

} // namespace pegeir::timer

#endif
