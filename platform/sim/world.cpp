// The World itself: its life, its passing of time, and what it has noticed.

#include "state.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace pegeir::sim {
namespace {

State *current = nullptr;

constexpr SysTime kBeginning = {2024, 1, 1, 0, 0, 0, 1, 0};

} // namespace

State &Here() {
    if (current == nullptr) {
        std::fputs("pegeir-sim: a platform operation was called while no pegeir::sim::World exists\n",
                   stderr);
        std::abort();
    }
    return *current;
}

void Violation(State &state, std::string text) {
    state.violations.push_back(std::move(text));
}

std::string At(const Place &place) {
    return std::string(place.source == nullptr ? "?" : place.source) + ":" + std::to_string(place.line);
}

World::World(Options options) : state(std::make_unique<State>()) {
    if (current != nullptr) {
        throw std::logic_error("there is a pegeir::sim::World already: end its life first");
    }
    state->world = this;
    state->options = options;
    state->whim.seed(options.liberties.seed);
    SetGmt(kBeginning);
    current = state.get();
    takesLiberties =
        options.liberties.anyAnswers || options.liberties.noZeroCounts || options.liberties.otherTree;
}

World::~World() {
    takesLiberties = false;
    ReleaseAll(*state);
    current = nullptr;
}

void World::Advance(std::uint64_t ms) {
    ExpireTimers(*state, state->uptimeMs + ms);
    state->uptimeMs += ms;
}

void World::Run(std::uint64_t ms) {
    RunUntil([] { return false; }, ms);
}

bool World::RunUntil(const std::function<bool()> &done, std::uint64_t ms) {
    const std::uint64_t end = state->uptimeMs + ms;
    for (std::uint64_t delivered = 0; !done();) {
        if (Step()) {
            if (++delivered > state->options.mostAtOnce) {
                throw std::runtime_error("messages answer each other without end at uptime " +
                                         std::to_string(state->uptimeMs) + " ms");
            }
            continue;
        }
        std::uint64_t next = NextExpiryMs(*state);
        if (!state->queue.empty()) {
            next = std::min(next, state->queue.begin()->first);
        }
        if (next > end || state->uptimeMs == end) {
            Advance(end - state->uptimeMs);
            return false;
        }
        Advance(next - state->uptimeMs);
        delivered = 0;
    }
    return true;
}

const std::vector<Assertion> &World::Assertions() const {
    return state->assertions;
}
void World::ClearAssertions() {
    state->assertions.clear();
}
const std::vector<std::string> &World::Violations() const {
    return state->violations;
}
void World::ClearViolations() {
    state->violations.clear();
}

} // namespace pegeir::sim

void ZEP_Assert(const char *source, uint32_t line, uint32_t value) {
    pegeir::sim::Here().assertions.push_back({source == nullptr ? "?" : source, line, value});
}
