// The liberties that a seed picks, and the chance that the platform operations draw from.

#include "state.hpp"

namespace pegeir::sim {

bool takesLiberties = false;

Liberties Liberties::Of(std::uint64_t seed, bool withTime) {
    std::mt19937_64 random(seed);
    const auto mostly = [&random] { return random() % 4 != 0; };
    Liberties taken = {.seed = seed};
    for (bool Liberties::*const liberty :
         {&Liberties::anyAnswers, &Liberties::noZeroCounts, &Liberties::oddMessages, &Liberties::otherTree,
          &Liberties::sameHandles, &Liberties::boxesStay, &Liberties::shortReads, &Liberties::countedMore}) {
        taken.*liberty = mostly();
    }
    taken.noBytes = static_cast<NoBytes>(random() % 3);
    taken.fullBox = static_cast<FullBox>(random() % 3);
    for (bool Liberties::*const liberty : {&Liberties::expiriesAtWill, &Liberties::clockAtWill}) {
        taken.*liberty = mostly() && withTime;
    }
    return taken;
}

std::uint32_t Below(State &state, std::uint32_t limit) {
    return static_cast<std::uint32_t>(state.whim() % limit);
}

std::uint32_t Anything(State &state) {
    // The values at which a comparison or a sign goes wrong come up as often as all others.
    constexpr std::array<std::uint32_t, 5> kEdges = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    return Below(state, 2) == 0 ? kEdges[Below(state, kEdges.size())] : Below(state, 0xFFFFFFFF);
}

std::uint32_t AnyAnswer(std::uint32_t expected) {
    State &state = Here();
    return state.options.liberties.anyAnswers ? Anything(state) : expected;
}

std::uint32_t AnyError(State &state, std::uint32_t code) {
    const std::uint32_t any = state.options.liberties.anyAnswers ? Anything(state) : code;
    return any == 0 ? code : any;
}

void Scribble(State &state, void *bytes, std::size_t count) {
    auto *to = static_cast<std::uint8_t *>(bytes);
    for (std::uint64_t drawn = state.whim(); count != 0; --count) {
        *to++ = static_cast<std::uint8_t>(drawn >> 56);
        drawn = drawn * 6364136223846793005U + 1;
    }
}

} // namespace pegeir::sim
