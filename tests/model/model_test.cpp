// The library beside the model under long random runs.  PEGEIR_LONG=1 runs a million steps in all;
// PEGEIR_SEED=n runs the one seed that a failure names.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "model/model.h"

namespace pegeir::tests::model {
namespace {

constexpr size_t kSteps = 2000; // of a seed

// Does the steps that next appends, until it appends none or the subjects disagree; returns how, or nothing.
std::string Run(Flaw flaw, Steps &steps, const std::function<void(const View &model)> &next) {
    const auto model = MakeModel(flaw);
    const auto library = MakeLibrary();
    for (bool going = true; going;) {
        const size_t before = steps.size();
        next(model->view);
        going = steps.size() > before;
        const Call call = Resolve(going ? steps.back() : Step{Do::kRenew}, model->view); // which finds leaks
        for (const auto &subject : {library.get(), model.get()}) {
            subject->view.happened.clear();
            subject->Apply(call);
        }
        if (library->Look() != model->Look()) {
            return "  library\n" + Difference(library->view, model->view) + "  model\n" +
                   Difference(model->view, library->view);
        }
    }
    return "";
}

std::string Replay(const Steps &steps, Flaw flaw = Flaw::kNone) {
    Steps done;
    return Run(flaw, done, [&](const View &) {
        if (done.size() < steps.size()) {
            done.push_back(steps[done.size()]);
        }
    });
}

// Makes the steps of a seed up, and returns how the subjects disagree in the end, or nothing.
std::string Explore(uint32_t seed, Flaw flaw, Steps &steps, std::array<uint32_t, 16> &visits) {
    std::mt19937 random(seed);
    steps.clear();
    return Run(flaw, steps, [&](const View &model) {
        ++visits.at(model.numbers[kState]);
        if (steps.size() < kSteps) {
            steps.push_back(MakeUp(random, std::array{8U, 8U, 40U, 400U, 4000U, 10001U}.at(seed % 6),
                                   model.numbers[kState]));
        }
    });
}

// Returns the shortest and simplest steps found on which the subjects still disagree.
Steps Shrink(Steps steps, Flaw flaw) {
    const auto keep = [&](const Steps &simpler) {
        const bool fails = !Replay(simpler, flaw).empty();
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
            for (const uint32_t divisor : {1U, 2U, 64U}) { // one less, half, and almost nothing
                Steps lower = steps;
                uint32_t &value = lower[i / 4].*number;
                value = divisor == 1 ? value - 1 : value / divisor;
                if (value < steps[i / 4].*number) {
                    keep(lower);
                }
            }
        }
    }
    return steps;
}

TEST(Model, AgreesWithTheLibrary) {
    const char *one = std::getenv("PEGEIR_SEED");
    const uint32_t first = one == nullptr ? 1 : static_cast<uint32_t>(std::strtoul(one, nullptr, 10));
    const uint32_t seeds = one != nullptr ? 1 : std::getenv("PEGEIR_LONG") != nullptr ? 500 : 12;
    std::array<uint32_t, 16> visits{};
    for (uint32_t seed = first; seed < first + seeds; ++seed) {
        Steps steps;
        const std::string difference = Explore(seed, Flaw::kNone, steps, visits);
        if (!difference.empty()) {
            const Steps least = Shrink(steps, Flaw::kNone);
            FAIL() << "PEGEIR_SEED=" << seed << ", after " << steps.size() << " steps:\n"
                   << difference << "shortened:\n"
                   << Replay(least) << Code(least);
        }
    }
    EXPECT_GT(*std::min_element(visits.begin(), visits.end()), seeds) << "a state was hardly visited";
}

TEST(Model, FindsAndShrinksMistakes) {
    for (const auto &[flaw, most] : std::map<Flaw, size_t>{{Flaw::kPacing, 6}, {Flaw::kAnyStamp, 14}}) {
        Steps steps;
        std::array<uint32_t, 16> visits{};
        for (uint32_t seed = 1; seed < 20 && Explore(seed, flaw, steps, visits).empty(); ++seed) {
        }
        steps = Shrink(steps, flaw);
        EXPECT_LE(steps.size(), most) << Code(steps);
        EXPECT_NE(Replay(steps, flaw), "") << "a mistake was not found";
        EXPECT_EQ(Replay(steps), "") << Code(steps); // the library is not to blame
    }
}

} // namespace
} // namespace pegeir::tests::model
