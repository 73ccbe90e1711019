// Torture: one life that touches everything, lived once for each call that can fail in it, with that
// call failing.  However it fails, nothing is lost, leaked or broken, and when the failing is over both
// sides agree.
//
// A failure prints the command that repeats its run.  PEGEIR_LONG=1 runs what the quick run picks from,
// PEGEIR_SHORT=1 a tenth of the quick run, for emulators.

#include <gtest/gtest.h>

#include <chrono>

#include "support/play.hpp"

namespace pegeir::tests {
namespace {

struct Mode {
    const char *name;
    sim::Fault (*fault)(sim::Op op, uint64_t number, uint64_t call); // number: among those of its kind
};

using sim::Fault;
constexpr Mode kModes[] = {
    {"Once",
     [](sim::Op op, uint64_t number, uint64_t) { return Fault{.op = op, .from = number, .count = 1}; }},
    {"HalfAMinute", [](sim::Op op, uint64_t number,
                       uint64_t) { return Fault{.op = op, .from = number, .lastingMs = 30000}; }},
    {"TheFirst", [](sim::Op op, uint64_t number,
                    uint64_t) { return Fault{.op = op, .count = std::min<uint64_t>(number, 1000)}; }},
    {"Everything", [](sim::Op, uint64_t, uint64_t call) { return Fault{.from = call, .lastingMs = 30000}; }},
};

struct Life {
    const char *name;
    PlayOptions options;
    uint32_t stride; // the quick run takes every so many calls, the long run ten times as many
};

const Life kLives[] = {
    {"Plain", {}, 1},
    {"Hostile", {.hostile = true}, 10},
    {"Silent", {.silent = true}, 10},
    {"Wrapping", {.hostile = true, .seed = 2, .firstNumber = 0xFFFFFFF0, .firstSecond = 0xFFFFFFF0}, 10},
    {"Large", {.items = 3000, .keyLen = 8}, 40000},
    {"Unfriendly", {.hostile = true, .liberties = sim::Liberties::Of(7)}, 10},
    {"Unfriendlier", {.hostile = true, .seed = 3, .liberties = sim::Liberties::Of(13)}, 10},
};

constexpr uint32_t kShards = 4;

class Torture : public testing::TestWithParam<std::tuple<size_t, size_t, uint32_t>> {};

// The fallible calls of a life without faults, in their order.
const std::vector<sim::Op> &CallsOf(const Life &life) {
    static std::map<const Life *, std::vector<sim::Op>> known;
    std::vector<sim::Op> &calls = known[&life];
    if (calls.empty()) {
        Play play(life.options);
        play.Story();
        // It is worth its name: every kind of message went both ways, and every kind of call was made.
        for (uint32_t code = 0; code < ND_LIB_STAT_MAX; ++code) {
            EXPECT_EQ(play.d->nd->statisticCnt[code] == 0, code == ND_LIB_STAT_SEND_ACK_FAILED) << code;
        }
        EXPECT_EQ(play.Finish(100, false), "");
        EXPECT_EQ(play.remedies, 0U);
        calls = play.world.CallLog();
        EXPECT_EQ(std::set(calls.begin(), calls.end()).size(), sim::kOps);
    }
    return calls;
}

TEST_P(Torture, EveryCallFails) {
    const auto [lifeIndex, modeIndex, shard] = GetParam();
    const Life &life = kLives[lifeIndex];
    const Mode &mode = kModes[modeIndex];
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<sim::Op> &calls = CallsOf(life);
    const uint32_t only = FromEnvironment("PEGEIR_CALL");
    uint32_t stride = FromEnvironment("PEGEIR_LONG") != 0 ? (life.stride + 9) / 10 : life.stride;
    if (FromEnvironment("PEGEIR_SHORT") != 0) { // but something is left for each shard
        stride = std::min(10 * stride, static_cast<uint32_t>(calls.size()) / (kShards + 1));
    }
    std::array<uint64_t, sim::kOps> numbers{};
    uint32_t runs = 0;
    uint32_t slowest = 0;
    for (uint64_t call = 1; call <= calls.size(); ++call) {
        const sim::Op op = calls[static_cast<size_t>(call - 1)];
        const uint64_t number = ++numbers[static_cast<size_t>(op)];
        if (only != 0 ? call != only : call % stride != 0 || call / stride % kShards != shard) {
            continue;
        }
        Play play(life.options);
        play.world.Fail(mode.fault(op, number, call));
        const bool everything = !mode.fault(op, number, call).op;
        play.mayLackData = everything || op == sim::Op::kMalloc;
        const bool mayNeedRemedy = everything || op == sim::Op::kMalloc || op == sim::Op::kTimerCreate ||
                                   op == sim::Op::kTimerCreateLib || op == sim::Op::kTimerCreateInstance;
        play.Story();
        const auto *test = testing::UnitTest::GetInstance()->current_test_info();
        EXPECT_EQ(play.Finish(3000, false), "")
            << "call " << call << ", " << sim::Name(op) << " number " << number
            << "; to repeat it: PEGEIR_CALL=" << call
            << " torture_test --gtest_filter=" << test->test_suite_name() << "." << test->name();
        EXPECT_GT(play.world.Failures(), 0U);
        EXPECT_TRUE(play.remedies == 0 || mayNeedRemedy) << "the consumer had to help";
        ++runs;
        slowest = std::max(slowest, play.slowest);
    }
    std::printf("figures: life=%s mode=%s calls=%zu runs=%u slowest_s=%u ms=%u\n", life.name, mode.name,
                calls.size(), runs, slowest, MillisecondsSince(begin));
    EXPECT_GT(runs, 0U);
}

INSTANTIATE_TEST_SUITE_P(, Torture,
                         testing::Combine(testing::Range<size_t>(0, std::size(kLives)),
                                          testing::Range<size_t>(0, std::size(kModes)),
                                          testing::Range(0U, kShards)),
                         [](const auto &param) {
                             return std::string(kLives[std::get<0>(param.param)].name) +
                                    kModes[std::get<1>(param.param)].name +
                                    std::to_string(std::get<2>(param.param));
                         });

} // namespace
} // namespace pegeir::tests
