// The library beside the model under long random runs, on a friendly platform and, with every other seed, on
// one that takes the liberties of that seed.  PEGEIR_LONG=1 runs a million steps in all; PEGEIR_SEED=n runs
// the one seed that a failure names.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "model/model.h"

namespace pegeir::tests::model {
namespace {

std::array<uint32_t, 16> g_visits; // of each state

sim::Liberties LibertiesOf(uint32_t seed) {
    return seed % 2 == 0 ? sim::Liberties{} : sim::Liberties::Of(seed, false);
}

// Does steps, or count steps made up from seed and put there, on the platform of seed, until the subjects
// disagree.  Returns how, or nothing.
std::string RunBoth(Flaw flaw, Steps &steps, uint32_t seed, size_t count) {
    constexpr std::array kLongest = {8U, 8U, 40U, 400U, 4000U, 10001U};
    std::mt19937 random(seed);
    const auto upto = [&](uint32_t most) { return static_cast<uint32_t>(random() % (most + 1ULL)); };
    const auto model = MakeModel(flaw, LibertiesOf(seed));
    const auto library = MakeLibrary(LibertiesOf(seed));
    for (size_t i = 0; i <= count; ++i) {
        const uint32_t state = model->view.numbers[kState];
        ++g_visits.at(state);
        if (i == steps.size() && i < count) {
            steps.push_back(MakeUp(upto, kLongest.at(seed % kLongest.size()), state));
        }
        const Call call = Resolve(i < count ? steps[i] : Step{Do::kRenew}, model->view); // which finds leaks
        for (Subject *subject : {library.get(), model.get()}) {
            subject->view.happened.clear();
            subject->Apply(call);
        }
        if (library->Look() != model->Look()) {
            return "  after step " + std::to_string(i + 1) + ":\n" + Difference(library->view, model->view);
        }
    }
    return "";
}

// With the seed, for its platform, of the run that they are from.
std::string Replay(Steps steps, uint32_t seed, Flaw flaw = Flaw::kNone) {
    return RunBoth(flaw, steps, seed, steps.size());
}

// Returns the shortest and simplest steps found on which the subjects still disagree.
Steps Shrink(Steps steps, uint32_t seed, Flaw flaw) {
    const auto keep = [&](const Steps &simpler) {
        const bool fails = !Replay(simpler, seed, flaw).empty();
        steps = fails ? simpler : steps;
        return fails;
    };
    for (Steps before; before != steps;) {
        before = steps;
        for (size_t chunk = steps.size(); chunk > 0; chunk /= 2) {
            for (size_t at = 0; at < steps.size();) {
                Steps fewer = steps;
                const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
                fewer.erase(first, first + static_cast<std::ptrdiff_t>(std::min(chunk, steps.size() - at)));
                at += keep(fewer) ? 0 : chunk;
            }
        }
        for (size_t i = 0; i < steps.size() * 4; ++i) {
            uint32_t Step::*const number = std::array{&Step::a, &Step::b, &Step::c, &Step::d}.at(i % 4);
            const uint32_t now = steps[i / 4].*number;
            for (const uint32_t lower : {now - 1, now / 2, now / 64}) {
                Steps simpler = steps;
                simpler[i / 4].*number = std::min(lower, now);
                (void)(simpler != steps && keep(simpler));
            }
        }
    }
    return steps;
}

TEST(Model, AgreesWithTheLibrary) {
    const char *one = std::getenv("PEGEIR_SEED");
    const uint32_t first = one == nullptr ? 1 : static_cast<uint32_t>(std::strtoul(one, nullptr, 10));
    const uint32_t seeds = one != nullptr ? 1 : std::getenv("PEGEIR_LONG") != nullptr ? 500 : 8;
    g_visits = {};
    for (uint32_t seed = first; seed < first + seeds; ++seed) {
        Steps steps;
        if (const std::string difference = RunBoth(Flaw::kNone, steps, seed, 2000); !difference.empty()) {
            const Steps least = Shrink(steps, seed, Flaw::kNone);
            FAIL() << "PEGEIR_SEED=" << seed << " disagrees\n"
                   << difference << "and so does, shortened,\n"
                   << Replay(least, seed) << Code(least, seed);
        }
    }
    EXPECT_GT(*std::min_element(g_visits.begin(), g_visits.end()), seeds) << "a state was hardly visited";
}

TEST(Model, FindsAndShrinksMistakes) {
    for (const auto &[flaw, most] : std::map<Flaw, size_t>{{Flaw::kPacing, 6}, {Flaw::kAnyStamp, 14}}) {
        Steps steps;
        uint32_t seed = 1;
        for (; seed < 20 && RunBoth(flaw, steps, seed, 2000).empty(); ++seed) {
            steps.clear();
        }
        steps = Shrink(steps, seed, flaw);
        EXPECT_LE(steps.size(), most) << Code(steps, seed);
        EXPECT_NE(Replay(steps, seed, flaw), "") << "a mistake was not found";
        EXPECT_EQ(Replay(steps, seed), "") << Code(steps, seed); // the library is not to blame
    }
}

} // namespace
} // namespace pegeir::tests::model
