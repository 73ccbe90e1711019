// Whole stories: an instance and a component from registration on.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

// On a friendly platform (0), and on others.
class Session : public testing::TestWithParam<uint32_t> {
protected:
    ~Session() override {
        EXPECT_EQ(BrokenInvariant(d.nd), "");
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
        EXPECT_TRUE(world.Violations().empty());
        EXPECT_TRUE(world.Assertions().empty());
    }

    sim::World world{
        {.liberties = GetParam() == 0 ? sim::Liberties{} : sim::Liberties::Of(GetParam(), false)}};
    Driver d{world};
};
INSTANTIATE_TEST_SUITE_P(Platforms, Session, testing::Range(0U, 8U));

TEST_P(Session, RunsFromRegistrationToReadyAndFollowsUpdates) {
    d.onPack = [&] {
        EXPECT_EQ(d.Subscribe(NumberedItem(7)), ND_LIB_OK);
        return uint32_t{ND_LIB_PACK_DONE};
    };
    const auto upload = d.BecomeReady({Join({Tlv(100, {1, 2, 3}), Tlv(101, {})}), Tlv(102, {4})});
    EXPECT_EQ(upload.at(0).body, (Bytes{0, 18, 0, 12, 3, 232, 0, 4, 0, 0, 0, 7, 0, 1, 0, 0}));
    EXPECT_EQ(d.events, (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(d.records, (std::vector<Delivered>{{100, {1, 2, 3}}, {101, {}}, {102, {4}}}));

    // The acknowledgement of an update leaves before its records are delivered, and goes to whoever
    // sent it, with everything but the flag echoed, reserved word included.
    Bytes update = {0, 21, 5, 26, 0, 0, 0, 9, 0, 0, 0, 0x42, 0, 0, 0, 77, 0, 9, 0, 1, 1};
    d.onRecord = [&](const Delivered &record) {
        EXPECT_EQ(record, (Delivered{9, {1}}));
        const auto sent = world.TakeSent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].receiver, 0x99U);
        update[2] = 0x85;
        EXPECT_EQ(sent[0].bytes, update);
    };
    EXPECT_EQ(d.ReceiveBytes(update, NDPI_MSG_SUB_INTF, 0x99), ND_LIB_OK);
    EXPECT_EQ(d.records.size(), 4U);
}

TEST_P(Session, SetsAsideWhatFitsNoMessage) {
    const Item tooLong{1, Bytes(7000, 2), 1, Bytes(973, 2)};
    EXPECT_EQ(d.Subscribe(tooLong), ND_LIB_OK);
    EXPECT_EQ(d.Subscribe({1, Bytes(7000, 1), 1, Bytes(972, 2)}), ND_LIB_OK);
    const auto upload = d.BecomeReady(); // it holds nothing up
    EXPECT_EQ(upload.at(0).body.size(), 7984U);
    const LogLine report = {0, "send sub record too long key: 1, len: 7000, data type:1, len:973"};
    const auto log = d.TakeLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), report), 1);
    EXPECT_EQ(d.Subscribe(tooLong), ND_LIB_OK);
    d.Silently([&] { d.Run(3); });
    EXPECT_TRUE(d.Sent().empty());
    // An acknowledgement cannot settle it, a new request can.
    d.Receive({.type = NDPI_MSG_SUBSCRIBE_DATA, .trans = 0, .body = tooLong.Record(), .flags = 0x80});
    EXPECT_EQ(d.nd->consumer.subscribeTree.count, 1U);
    d.Subscribe({1, Bytes(7000, 2), 1, {}});
    d.Run(1);
    EXPECT_EQ(d.SentOne(NDPI_MSG_SUBSCRIBE_DATA).body.size(), 7012U);
}

// What would pull the instance out from under the call that runs a callback is asserted and does nothing.
TEST(Callbacks, AreNoPlaceToEndOrFeedAnInstance) {
    sim::World world;
    Driver d(world);
    uint32_t runs = 0;
    const auto misuse = [&] {
        ++runs;
        d.Down();
        EXPECT_EQ(d.Register(), ND_LIB_ERR_PARAM);
        EXPECT_EQ(d.Receive({.type = NDPI_MSG_SMOOTH_BEGIN}), ND_LIB_ERR);
        ND_LIB_Deinit(d.nd);
        return 0U;
    };
    d.onLog = [&](const LogLine &) { misuse(); };
    d.onPack = [&] { return misuse() + ND_LIB_PACK_DONE; };
    d.onEvent = [&](uint32_t) { return misuse(); };
    d.onRecord = [&](const Delivered &) { misuse(); };
    d.Subscribe(NumberedItem(1));
    d.BecomeReady({Tlv(1, {1})});
    EXPECT_EQ(d.records.size(), 1U);
    EXPECT_GT(runs, 20U);
    EXPECT_EQ(world.Assertions().size(), 4 * runs);
}

} // namespace
} // namespace pegeir::tests
