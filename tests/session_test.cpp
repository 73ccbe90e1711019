// Whole stories: an instance and a component from registration on.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Codes = std::vector<uint32_t>;

class Session : public testing::Test {
protected:
    ~Session() override {
        EXPECT_EQ(BrokenInvariant(d.nd), "");
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
        EXPECT_TRUE(world.Violations().empty());
        EXPECT_TRUE(world.Assertions().empty());
    }

    sim::World world;
    Driver d{world};
};

TEST_F(Session, RunsFromRegistrationToReadyAndFollowsUpdates) {
    d.onPack = [&] {
        EXPECT_EQ(d.Subscribe(NumberedItem(7)), ND_LIB_OK);
        EXPECT_EQ(d.Subscribe({1, {10, 0, 0, 1}, 7, {}}), ND_LIB_OK);
        return uint32_t{ND_LIB_PACK_DONE};
    };
    d.Up();
    const Ndpi registration = d.SentOne(NDPI_MSG_REGISTER);
    EXPECT_EQ(registration.trans, 1U);
    EXPECT_EQ(registration.receiver, Driver::kNd);
    EXPECT_TRUE(registration.body.empty());
    EXPECT_EQ(d.Ack(registration), ND_LIB_OK);
    EXPECT_EQ(d.State(), ND_LIB_FSM_SUBSCRIBE_BEGIN);

    d.AckNext(NDPI_MSG_SUBSCRIBE_BEGIN);
    const Ndpi data = d.SentOne(NDPI_MSG_SUBSCRIBE_DATA);
    EXPECT_EQ(data.body, Join({NumberedItem(7).Record(), Item{1, {10, 0, 0, 1}, 7, {}}.Record()}));
    EXPECT_EQ(Bytes(data.body.end() - 16, data.body.end()),
              (Bytes{0, 18, 0, 12, 0, 1, 0, 4, 10, 0, 0, 1, 0, 7, 0, 0}));
    EXPECT_EQ(d.Ack(data), ND_LIB_OK);
    EXPECT_EQ(d.nd->consumer.subscribeTree.count, 0U);
    EXPECT_EQ(d.State(), ND_LIB_FSM_SUBSCRIBE_DATA);
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_SUBSCRIBE_END);
    d.AckNext(NDPI_MSG_SUBSCRIBE_END);
    EXPECT_EQ(d.State(), ND_LIB_FSM_WAIT_SMOOTH);
    d.Run(300); // however long it takes
    EXPECT_TRUE(d.Sent().empty());

    const Bytes one = Join({Tlv(100, {1, 2, 3}), Tlv(101, {})});
    d.Download(5, {one, Tlv(102, {4}), Tlv(103, {5})});
    EXPECT_EQ(d.State(), ND_LIB_FSM_READY);
    EXPECT_EQ(d.nd->consumer.sequenceNum, 8U);
    EXPECT_EQ(d.events, (Codes{0, 1}));
    EXPECT_EQ(d.records, (std::vector<Delivered>{{100, {1, 2, 3}}, {101, {}}, {102, {4}}, {103, {5}}}));

    // The acknowledgement of an update leaves before its records are delivered, and goes to whoever
    // sent it, with everything but the flag echoed, reserved word included.
    d.records.clear();
    Bytes update =
        Ndpi{.type = NDPI_MSG_REAL_UPDATE, .trans = 9, .seq = 77, .body = Tlv(9, Bytes(20, 1)), .flags = 5}
            .Wire();
    update[11] = 0x42;
    d.onRecord = [&](const Delivered &) {
        auto sent = world.TakeSent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].receiver, 0x99U);
        EXPECT_EQ(sent[0].cid, 0x99U);
        Bytes expected = update;
        expected[2] = 0x85;
        EXPECT_EQ(sent[0].bytes, expected);
    };
    EXPECT_EQ(d.ReceiveBytes(update, NDPI_MSG_SUB_INTF, 0x99), ND_LIB_OK);
    EXPECT_EQ(d.records, (std::vector<Delivered>{{9, Bytes(20, 1)}}));
    EXPECT_EQ(d.nd->transNumber, 4U);
}

TEST_F(Session, SetsAsideWhatFitsNoMessage) {
    const Item fits{1, Bytes(7000, 1), 1, Bytes(972, 2)};
    const Item tooLong{1, Bytes(7000, 2), 1, Bytes(973, 2)};
    EXPECT_EQ(d.Subscribe(tooLong), ND_LIB_OK);
    EXPECT_EQ(d.Subscribe(fits), ND_LIB_OK);
    EXPECT_EQ(d.UnSubscribe({2, Bytes(10000, 3), 4, Bytes(10000, 3)}), ND_LIB_OK);
    d.ToState(ND_LIB_FSM_SUBSCRIBE_BEGIN);
    (void)d.TakeLog();
    d.AckNext(NDPI_MSG_SUBSCRIBE_BEGIN);
    const Ndpi data = d.SentOne(NDPI_MSG_SUBSCRIBE_DATA);
    EXPECT_EQ(data.body.size(), 7984U);
    const LogLine report = {0, "send sub record too long key: 1, len: 7000, data type:1, len:973"};
    const auto log = d.TakeLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), report), 1);
    d.Ack(data);
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_SUBSCRIBE_END); // it holds nothing up
    d.AckNext(NDPI_MSG_SUBSCRIBE_END);
    d.Download(1, {});
    d.Run(3);
    EXPECT_TRUE(d.Sent().empty());
    EXPECT_EQ(d.nd->consumer.subscribeTree.count, 2U);
    ND_LIB_StartVerify(d.nd);
    d.Run(2);
    d.Ack(d.SentOne(NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN));
    EXPECT_EQ(d.State(), ND_LIB_FSM_VERIFY_SUBSCRIBE_END);
    // An acknowledgement cannot settle it, a new request can.
    d.Receive({.type = NDPI_MSG_SUBSCRIBE_DATA, .trans = 0, .body = tooLong.Record(), .flags = 0x80});
    EXPECT_EQ(d.nd->consumer.subscribeTree.count, 2U);
    d.Subscribe({1, Bytes(7000, 2), 1, {}});
    EXPECT_EQ(d.nd->consumer.subscribingList.count, 1U);
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
    d.ToState(ND_LIB_FSM_WAIT_SMOOTH);
    d.Download(1, {Tlv(1, {1})});
    EXPECT_EQ(d.State(), ND_LIB_FSM_READY);
    EXPECT_EQ(d.records.size(), 1U);
    EXPECT_GT(runs, 20U);
    EXPECT_EQ(world.Assertions().size(), 4 * runs);
}

} // namespace
} // namespace pegeir::tests
