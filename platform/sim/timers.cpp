// The timer service: handles, periodic timers, and their expiry messages.
//
// A timer message carries the timer's id and is only a hint: the timer is looked up again when the
// message is processed, so that one deleted in between expires no more.

#include "state.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

namespace pegeir::sim {
namespace {

constexpr std::array<std::uint32_t, 3> kInstanceParams = {1, 120, 500};
constexpr std::uint32_t kExpiryValue = 0xE7E7E7E7; // "without meaning": noticed where it is used

using Timers = std::map<std::uint32_t, Timer>;

Timers::const_iterator Earliest(const State &state) {
    return std::min_element(
        state.timers.begin(), state.timers.end(),
        [](const auto &left, const auto &right) { return left.second.dueMs < right.second.dueMs; });
}

Record ExpiryMessage(const State &state, std::uint32_t timerId, const Timer &timer) {
    Record record;
    record.receiver = state.timerLibs.at(state.timerInstances.at(timer.instance)).timerHandle;
    record.intf = record.subIntf = 0;
    record.iid = kTimerIid;
    record.bytes.resize(sizeof timerId);
    std::memcpy(record.bytes.data(), &timerId, sizeof timerId);
    return record;
}

// Returns a handle for another entry of these.
template <typename Entries>
std::uint32_t NewHandle(State &state, const Entries &entries) {
    if (!state.options.liberties.sameHandles) {
        return ++state.lastTimerId;
    }
    std::uint32_t handle = 0xFFFFFFFF;
    while (entries.contains(handle)) {
        --handle;
    }
    return handle;
}

// Returns by how much an expiry is late.
std::uint64_t Lateness(State &state) {
    constexpr std::uint32_t kMostMs = 2500;
    return Below(state, 4) == 0 ? Below(state, kMostMs) : 0;
}

// A stop looks its timer up, and then deletes it.
void DropInstance(State &state, std::uint32_t instance) {
    for (const auto &[id, timer] : state.timers) {
        if (timer.instance == instance && timer.lookedUp) {
            Violation(state, "APPTMR_GetTimerParam of a timer that was not deleted then");
        }
    }
    std::erase_if(state.timers, [instance](const auto &timer) { return timer.second.instance == instance; });
    state.timerInstances.erase(instance);
}

} // namespace

std::uint64_t NextExpiryMs(const State &state) {
    const auto next = Earliest(state);
    return next == state.timers.end() ? kForever : next->second.dueMs;
}

void ExpireTimers(State &state, std::uint64_t untilMs) {
    while (NextExpiryMs(state) <= untilMs) {
        const auto id = Earliest(state)->first;
        Timer &timer = state.timers.at(id);
        const bool atWill = state.options.liberties.expiriesAtWill;
        if (atWill && Below(state, 8) == 0) {
            Enqueue(state, ExpiryMessage(state, id, timer), true, timer.dueMs + Lateness(state));
        }
        Enqueue(state, ExpiryMessage(state, id, timer), true, timer.dueMs + (atWill ? Lateness(state) : 0));
        timer.dueMs += timer.periodMs;
    }
}

std::string TimerLeaks(const State &state) {
    std::string text;
    for (const auto &[what, number] : {std::pair{"timer library", state.timerLibs.size()},
                                       std::pair{"timer instance", state.timerInstances.size()},
                                       std::pair{"timer", state.timers.size()}}) {
        if (number > 0) {
            text += std::string(what) + ": " + std::to_string(number) + "\n";
        }
    }
    return text;
}

} // namespace pegeir::sim

using namespace pegeir::sim;

uint32_t APPTMR_CreateLib2(uint32_t timerHandle, APPTMR_ExpiryFunc expiry, uint32_t) {
    State &state = Here();
    if (CountCall(state, Op::kTimerCreateLib)) {
        return 0;
    }
    if (expiry == nullptr) {
        Violation(state, "APPTMR_CreateLib2 without an expiry callback");
        return 0;
    }
    const uint32_t handle = NewHandle(state, state.timerLibs);
    state.timerLibs[handle] = {timerHandle, expiry};
    return handle;
}

uint32_t APPTMR_CreateInstance(uint32_t lib, const uint32_t *params, uint32_t word3, uint32_t word1) {
    State &state = Here();
    if (CountCall(state, Op::kTimerCreateInstance)) {
        return 0;
    }
    if (!state.timerLibs.contains(lib) || params == nullptr ||
        !std::equal(kInstanceParams.begin(), kInstanceParams.end(), params) || word3 != params[2] ||
        word1 != params[0]) {
        Violation(state, "APPTMR_CreateInstance in an unknown library, or without 1, 120, 500");
        return 0;
    }
    const uint32_t handle = NewHandle(state, state.timerInstances);
    state.timerInstances[handle] = lib;
    return handle;
}

uint32_t APPTMR_CreatePeriodTimer(uint32_t instance, uint32_t periodMs, uint32_t zero, void *param,
                                  uint32_t) {
    State &state = Here();
    if (CountCall(state, Op::kTimerCreate) || instance == 0) {
        return 0;
    }
    if (!state.timerInstances.contains(instance) || periodMs == 0 || zero != 0) {
        Violation(state, "APPTMR_CreatePeriodTimer in an unknown instance, or with a bad argument");
        return 0;
    }
    const uint32_t id = NewHandle(state, state.timers);
    state.timers[id] = {instance, periodMs, state.uptimeMs + periodMs, param};
    return id;
}

void *APPTMR_GetTimerParam(uint32_t instance, uint32_t timerId) {
    State &state = Here();
    const auto found = state.timers.find(timerId);
    if (found == state.timers.end() || found->second.instance != instance) {
        return nullptr;
    }
    found->second.lookedUp = true;
    return found->second.param;
}

uint32_t APPTMR_DeleteTimer(uint32_t instance, uint32_t timerId) {
    State &state = Here();
    const auto found = state.timers.find(timerId);
    if (found != state.timers.end()) {
        found->second.lookedUp = false;
    }
    if (const auto failure = CountCall(state, Op::kTimerDelete)) {
        return failure->code;
    }
    if (found == state.timers.end() || found->second.instance != instance) {
        return kRefused;
    }
    state.timers.erase(found);
    return 0;
}

uint32_t APPTMR_LibRcvMsg(uint32_t lib, void *message, uint32_t zero, void *arg) {
    State &state = Here();
    if (zero != 0) {
        Violation(state, "APPTMR_LibRcvMsg with a third argument other than 0");
    }
    const LiveMessage *live = FindMessage(state, message, "APPTMR_LibRcvMsg");
    uint32_t timerId = 0;
    if (live == nullptr || live->envelope.iid != kTimerIid || live->size != sizeof timerId ||
        !state.timerLibs.contains(lib)) {
        return kRefused;
    }
    std::memcpy(&timerId, message, sizeof timerId);
    const auto found = state.timers.find(timerId);
    if (found == state.timers.end()) {
        if (state.options.liberties.expiriesAtWill) {
            state.timerLibs.at(lib).expiry(timerId, kExpiryValue, nullptr, arg);
        }
        return AnyAnswer(0);
    }
    if (state.timerInstances.at(found->second.instance) != lib) {
        return kRefused;
    }
    state.timerLibs.at(lib).expiry(timerId, AnyAnswer(kExpiryValue), found->second.param, arg);
    return AnyAnswer(0);
}

void APPTMR_DeleteInstance(uint32_t instance) {
    State &state = Here();
    if (!state.timerInstances.contains(instance)) {
        Violation(state, "APPTMR_DeleteInstance of an unknown instance");
        return;
    }
    DropInstance(state, instance);
}

void APPTMR_DeleteLib(uint32_t lib) {
    State &state = Here();
    if (state.timerLibs.erase(lib) == 0) {
        Violation(state, "APPTMR_DeleteLib of an unknown library");
        return;
    }
    std::vector<uint32_t> left;
    for (const auto &[instance, owner] : state.timerInstances) {
        if (owner == lib) {
            left.push_back(instance);
        }
    }
    for (const uint32_t instance : left) {
        Violation(state, "APPTMR_DeleteLib of a library that still has an instance");
        DropInstance(state, instance);
    }
}
