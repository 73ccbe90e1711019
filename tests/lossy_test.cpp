// Lossy links: the component and an instance over a link that mistreats messages of both directions, with
// a component that starts over now and then, a consumer that changes its mind and clocks that err; then
// the link is clean, and all must be well again.
//
// What is promised.  A link that drops, doubles, delays, reorders and cuts messages can make nothing go
// wrong for good: once it is clean both sides agree by themselves.  A link that changes bytes can: no
// message carries a checksum, so a changed one may be a valid other one, which neither side can tell from
// a true one.  It can put an item into the component that nobody wants, or have the instance wait for a
// download that the component does not know of.  All that is repaired when the component starts over,
// which is therefore done once for such seeds before the comparison; the figures tell how many had
// settled without.
//
// A failure prints the command that repeats its run.  PEGEIR_LONG=1 runs 1000 seeds in place of 50.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "support/play.hpp"

namespace pegeir::tests {
namespace {

constexpr uint32_t kShards = 5;

class LossyLink : public testing::TestWithParam<uint32_t> {};

void Meddle(Play &play, bool clockJumps) {
    const uint32_t number = 1 + play.Random(2 * play.options.items);
    switch (play.Random(clockJumps ? 16 : 14)) {
    case 0:
    case 1:
        play.Want(number);
        break;
    case 2:
    case 3:
        play.GiveUp(number);
        break;
    case 4:
        play.component.Update(Tlv(300, U32(number)));
        break;
    case 5:
        if (play.Random(3) == 0) {
            play.StartOver(play.Random(4));
        }
        break;
    case 6:
        play.agrees = play.Random(4) != 0;
        (void)ND_LIB_StartVerify(play.d->nd);
        break;
    case 7:
        play.ReadPage(20 + play.Random(500));
        break;
    case 8:
        play.component.LeaveGap();
        break;
    case 14:
        play.world.SetSeconds(play.world.Seconds() + play.Random(3 * 3600));
        break;
    case 15:
        play.world.SetSeconds(play.world.Seconds() - play.Random(3 * 3600));
        break;
    default:
        break;
    }
}

TEST_P(LossyLink, SettlesOnceItIsClean) {
    const bool isLong = FromEnvironment("PEGEIR_LONG") != 0;
    const uint32_t only = FromEnvironment("PEGEIR_SEED");
    const auto begin = std::chrono::steady_clock::now();
    uint32_t runs = 0;
    uint32_t changed = 0;     // seeds whose link changes bytes
    uint32_t unaided = 0;     // those of them that settled without help
    uint32_t slowest[2] = {}; // to settle, in seconds: with a clock that goes on, and with one that jumps
    uint32_t slowestSeed[2] = {};
    for (uint32_t seed = 1 + GetParam(); seed <= (isLong ? 1000 : 50); seed += kShards) {
        if (only != 0 && seed != only) {
            continue;
        }
        const bool flips = seed % 2 == 0;
        const bool wraps = seed % 3 == 0;
        const bool clockJumps = seed % 7 == 0 && !wraps;
        const uint32_t first = wraps ? 0U - 64 : 1000000;
        const bool unfriendly = seed % 11 < 4;
        Play play({.items = 10 + seed % 50,
                   .keyLen = 4 + seed * 37 % 300,
                   .hostile = seed % 5 == 0,
                   .seed = seed,
                   .firstNumber = first,
                   .firstSecond = first,
                   .liberties = unfriendly ? sim::Liberties::Of(seed, !wraps) : sim::Liberties{}});
        const auto some = [&play] { return play.Random(31) / 100.0; };
        play.world.SetLink(sim::BadLink({.drop = some(),
                                         .duplicate = some(),
                                         .delay = some(),
                                         .reorder = some(),
                                         .truncate = some(),
                                         .flip = flips ? some() : 0,
                                         .seed = seed}));
        for (uint32_t second = 0; second < 100; ++second) {
            play.Second();
            Meddle(play, clockJumps);
        }
        play.world.SetLink({});
        const uint32_t limit = clockJumps ? 100000 : 400;
        if (flips) {
            ++changed;
            unaided += play.Settle(100).empty() ? 1U : 0U;
            play.slowest = 0;
            play.StartOver(1);
        }
        EXPECT_EQ(play.Finish(limit), "") << "seed " << seed << "; to repeat it: PEGEIR_SEED=" << seed
                                          << " PEGEIR_LONG=1 lossy_test --gtest_filter=*Settles*";
        EXPECT_EQ(play.remedies, 0U);
        ++runs;
        if (play.slowest > slowest[clockJumps]) {
            slowest[clockJumps] = play.slowest;
            slowestSeed[clockJumps] = seed;
        }
    }
    std::printf("figures: seeds=%u changed=%u unaided=%u slowest_seed=%u slowest_s=%u "
                "slowest_seed_with_clock_jumps=%u slowest_with_clock_jumps_s=%u ms=%u\n",
                runs, changed, unaided, slowestSeed[0], slowest[0], slowestSeed[1], slowest[1],
                MillisecondsSince(begin));
}

INSTANTIATE_TEST_SUITE_P(Seeds, LossyLink, testing::Range(0U, kShards));

TEST(BadLink, DoesWhatItIsToldTo) {
    const Bytes message(8);
    const struct {
        sim::LinkFaults faults;
        size_t atOnce;
        size_t later;
    } rows[] = {{{}, 1, 0},
                {{.drop = 1}, 0, 0},
                {{.duplicate = 1}, 2, 0},
                {{.delay = 1}, 0, 1},
                {{.reorder = 1}, 0, 1},
                {{.flip = 1}, 1, 0},
                {{.truncate = 1}, 1, 0}};
    for (const auto &row : rows) {
        sim::World world;
        world.SetLink(sim::BadLink(row.faults));
        world.Send({.bytes = message});
        const auto atOnce = world.TakeSent();
        world.Advance(row.faults.mostDelayMs);
        EXPECT_TRUE(atOnce.size() == row.atOnce && world.TakeSent().size() == row.later);
        for (const sim::Record &record : atOnce) {
            EXPECT_EQ(record.bytes.size() < 8, row.faults.truncate > 0);
            EXPECT_EQ(record.bytes == message, row.faults.truncate + row.faults.flip == 0);
        }
    }
}

// The whole story once for each message in it, with the component starting over just before it arrives.
TEST(ComponentRestart, SettlesFromEveryMessage) {
    uint32_t runs = 0;
    for (uint32_t boundary = 1, last = 1; boundary <= last; ++boundary, ++runs) {
        Play play({.keyLen = 1000, .hostile = boundary % 2 == 0});
        play.startOverAt = boundary;
        play.Story();
        EXPECT_EQ(play.Finish(200), "") << "before message " << boundary;
        last = std::max(last, play.boundaries - 10); // those of the last registration are no news
    }
    std::printf("figures: boundaries=%u\n", runs);
    EXPECT_GT(runs, 50U);
}

// Acknowledgements that never come, until the counts of sends have long stopped growing.
TEST(DeadLink, IsTriedAgainWithinTwoMinutesHoweverLongItWasDead) {
    for (const uint8_t type : Bytes{NDPI_MSG_REGISTER, NDPI_MSG_SUBSCRIBE_DATA, NDPI_MSG_SEQUENCE_ERROR}) {
        Play play({.keyLen = 8, .firstNumber = 0U - 100, .firstSecond = 0U - 100});
        play.component.LeaveGap();
        play.world.SetLink([type](sim::World &world, sim::Record record) {
            if (record.receiver != Driver::kApp || record.bytes[3] != type) {
                world.Post(std::move(record));
            }
        });
        for (uint32_t second = 0; second < 30000; ++second) {
            play.Second();
        }
        const uint32_t sent = play.d->nd->transNumber + 100;
        EXPECT_TRUE(sent > 250 && sent < 320) << sent; // sends at 2, 6, 12 ... seconds, then every 120
        play.world.SetLink({});
        EXPECT_EQ(play.Finish(140), "") << "type " << int{type};
    }
}

} // namespace
} // namespace pegeir::tests
