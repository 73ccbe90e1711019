// Which calls fail.  Every fallible operation asks CountCall once, before it does anything.

#include "state.hpp"

#include <stdexcept>

namespace pegeir::sim {
namespace {

constexpr std::array<std::string_view, kOps> kNames = {
    "Malloc",      "MsgAlloc",    "Send",           "TimerCreateLib", "TimerCreateInstance",
    "TimerCreate", "TimerDelete", "CreateBlackBox", "WriteBlackBox",  "ReadBlackBox",
    "GmtGet",      "GmtToLocal"};

bool Hits(const State &state, Rule &rule, Op op) {
    const Fault &fault = rule.fault;
    if (rule.lifted || (fault.op && *fault.op != op)) {
        return false;
    }
    const std::uint64_t number = fault.op ? state.calls[static_cast<std::size_t>(op)] : state.allCalls;
    if (number < fault.from || number - fault.from >= fault.count) {
        return false;
    }
    if (state.uptimeMs < fault.fromMs || state.uptimeMs >= fault.untilMs) {
        return false;
    }
    if (rule.firstFailureMs != kForever && state.uptimeMs - rule.firstFailureMs >= fault.lastingMs) {
        return false;
    }
    return fault.probability >= 1.0 || Chance(rule.random, fault.probability);
}

} // namespace

// std::uniform_real_distribution may differ between standard libraries; seeds must not.
bool Chance(std::mt19937_64 &random, double probability) {
    constexpr double kRange = 0x1p-53;
    return static_cast<double>(random() >> 11) * kRange < probability;
}

std::string_view Name(Op op) {
    return kNames.at(static_cast<std::size_t>(op));
}

std::optional<Op> OpByName(std::string_view name) {
    for (std::size_t i = 0; i < kOps; ++i) {
        if (kNames[i] == name) {
            return static_cast<Op>(i);
        }
    }
    return std::nullopt;
}

std::optional<Failure> CountCall(State &state, Op op) {
    ++state.calls[static_cast<std::size_t>(op)];
    ++state.allCalls;
    if (state.options.checks) {
        state.callLog.push_back(op);
    }
    for (Rule &rule : state.rules) {
        if (Hits(state, rule, op)) {
            if (rule.firstFailureMs == kForever) {
                rule.firstFailureMs = state.uptimeMs;
            }
            ++state.failures;
            return Failure{AnyError(state, rule.fault.code), rule.fault.shorten};
        }
    }
    return std::nullopt;
}

FaultId World::Fail(const Fault &fault) {
    if (fault.shorten && fault.op != Op::kReadBlackBox) {
        throw std::invalid_argument("Fault::shorten needs op = kReadBlackBox: only a read can come short");
    }
    if (fault.code == 0) {
        throw std::invalid_argument("Fault::code is 0, which means success: give an error code");
    }
    state->rules.push_back(Rule{.fault = fault, .random = std::mt19937_64(fault.seed)});
    return state->rules.size() - 1;
}

FaultId World::FailNext(Op op, std::uint64_t count) {
    return Fail({.op = op, .from = Calls(op) + 1, .count = count});
}

void World::Lift(FaultId id) {
    state->rules.at(id).lifted = true;
}

void World::LiftAll() {
    for (Rule &rule : state->rules) {
        rule.lifted = true;
    }
}

std::uint64_t World::Calls(Op op) const {
    return state->calls.at(static_cast<std::size_t>(op));
}
std::uint64_t World::Calls() const {
    return state->allCalls;
}
std::uint64_t World::Failures() const {
    return state->failures;
}
const std::vector<Op> &World::CallLog() const {
    return state->callLog;
}

} // namespace pegeir::sim
