/*
 * The timer service.  A timer is a timerfd in the event loop; each expiry becomes a message whose data
 * is the timer's id, and runs the callback only when the consumer hands that message to
 * APPTMR_LibRcvMsg.  A timer deleted in between is not found any more, so its expiry comes to nothing.
 * Expiries that were missed are not made up for: one message tells of them all.
 *
 * Handles and ids are never given twice, or an expiry under way could meet a new timer.
 */
#include "capture.h"
#include "linux_platform.h"

#include <cstring>
#include <sys/epoll.h>

namespace pegeir::linux_platform {
namespace {

struct Timer {
    uint32_t instance;
    void *param;
    Fd fd;
};

struct TimerService {
    std::map<uint32_t, APPTMR_ExpiryFunc> libs;
    std::map<uint32_t, uint32_t> instances; /* the library of each */
    std::map<uint32_t, Timer> timers;
    uint32_t lastHandle = 0;
};

TimerService g_service;

void Expire(uint32_t timerId) {
    const auto runtime = CurrentRuntime();
    const auto timer = g_service.timers.find(timerId);
    if (!runtime || timer == g_service.timers.end() || ReadTimer(timer->second.fd.Get()) == 0)
        return;
    const uint32_t self = runtime->config.pid;
    uint8_t *const message = NewMessage(self, self, sizeof timerId);
    if (message == nullptr)
        return; /* the next expiry comes anyway */
    EnvelopeOf(message).head.receiverIid = kTimerServiceIid;
    std::memcpy(message, &timerId, sizeof timerId);
    runtime->Deliver(message);
}

void DeleteTimers(const std::function<bool(const Timer &)> &match) {
    const auto runtime = CurrentRuntime();
    std::erase_if(g_service.timers, [&](const auto &entry) {
        if (!match(entry.second))
            return false;
        if (runtime)
            runtime->loop.Remove(entry.second.fd.Get());
        return true;
    });
}

/* As APPTMR_CreatePeriodTimer. */
uint32_t CreateTimer(uint32_t instance, uint32_t periodMs, void *param) {
    const auto runtime = CurrentRuntime();
    if (!runtime || !g_service.instances.contains(instance) || periodMs == 0)
        return 0;
    Timer timer{instance, param, MakeTimer(std::chrono::milliseconds(periodMs))};
    const uint32_t id = ++g_service.lastHandle;
    if (!timer.fd.Valid() || !runtime->loop.Add(timer.fd.Get(), EPOLLIN, [id] { Expire(id); }))
        return 0;
    g_service.timers.emplace(id, std::move(timer));
    return id;
}

/* Returns the timer if instance knows it, else the end. */
auto FindTimer(uint32_t instance, uint32_t timerId) {
    const auto found = g_service.timers.find(timerId);
    return found != g_service.timers.end() && found->second.instance == instance ? found
                                                                                 : g_service.timers.end();
}

} // namespace

void DeleteAllTimers() {
    DeleteTimers([](const Timer &) { return true; });
}

} // namespace pegeir::linux_platform

using namespace pegeir::linux_platform;

uint32_t APPTMR_CreateLib2(uint32_t, APPTMR_ExpiryFunc expiry, uint32_t) {
    if (expiry == nullptr)
        return 0;
    g_service.libs[++g_service.lastHandle] = expiry;
    return g_service.lastHandle;
}

uint32_t APPTMR_CreateInstance(uint32_t lib, const uint32_t *, uint32_t, uint32_t) {
    if (!g_service.libs.contains(lib))
        return 0;
    g_service.instances[++g_service.lastHandle] = lib;
    return g_service.lastHandle;
}

uint32_t APPTMR_CreatePeriodTimer(uint32_t instance, uint32_t periodMs, uint32_t, void *param, uint32_t) {
    const uint32_t id = CreateTimer(instance, periodMs, param);
    if (Capturing())
        CaptureTimer(PEGEIR_CAPTURE_TIMER_CREATE, id, periodMs, id == 0 ? 1 : 0);
    return id;
}

void *APPTMR_GetTimerParam(uint32_t instance, uint32_t timerId) {
    const auto timer = FindTimer(instance, timerId);
    return timer != g_service.timers.end() ? timer->second.param : nullptr;
}

uint32_t APPTMR_DeleteTimer(uint32_t instance, uint32_t timerId) {
    const auto timer = FindTimer(instance, timerId);
    const bool known = timer != g_service.timers.end();
    if (Capturing())
        CaptureTimer(PEGEIR_CAPTURE_TIMER_DELETE, timerId, 0, known ? 0 : 1);
    if (!known)
        return 1;
    if (const auto runtime = CurrentRuntime())
        runtime->loop.Remove(timer->second.fd.Get());
    g_service.timers.erase(timer);
    return 0;
}

uint32_t APPTMR_LibRcvMsg(uint32_t lib, void *message, uint32_t, void *arg) {
    const auto found = g_service.libs.find(lib);
    const Envelope &envelope = EnvelopeOf(message);
    uint32_t timerId = 0;
    if (found == g_service.libs.end() || envelope.head.receiverIid != kTimerServiceIid ||
        envelope.length != sizeof timerId)
        return 1;
    std::memcpy(&timerId, message, sizeof timerId);
    const auto timer = g_service.timers.find(timerId);
    if (timer == g_service.timers.end() || g_service.instances.at(timer->second.instance) != lib)
        return 0; /* deleted meanwhile, or the business of another library */
    found->second(timerId, 0, timer->second.param, arg);
    return 0;
}

void APPTMR_DeleteInstance(uint32_t instance) {
    DeleteTimers([instance](const Timer &timer) { return timer.instance == instance; });
    g_service.instances.erase(instance);
}

void APPTMR_DeleteLib(uint32_t lib) {
    DeleteTimers([lib](const Timer &timer) { return g_service.instances.at(timer.instance) == lib; });
    std::erase_if(g_service.instances, [lib](const auto &entry) { return entry.second == lib; });
    g_service.libs.erase(lib);
}
