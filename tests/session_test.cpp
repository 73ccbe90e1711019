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

TEST_F(Session, PacingStopsGrowing) {
    uint32_t time = 0;
    uint8_t count = 0;
    for (uint32_t send = 1; send <= 300; ++send) {
        ND_LIB_SetNextSendTime(d.nd, &time, &count);
        EXPECT_EQ(time - d.nd->secNow, send < 60 ? 2 * send : 120);
        EXPECT_EQ(count, send < 255 ? send : 255);
    }
}

TEST_F(Session, CollectsOverSeveralRounds) {
    const Bytes option = {1, 2, 3};
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, option.data(), 3), ND_LIB_OK);
    uint32_t round = 0;
    d.onPack = [&] {
        d.Subscribe(NumberedItem(round));
        return ++round == 4 ? uint32_t{ND_LIB_PACK_DONE} : round == 3 ? 9U : uint32_t{ND_LIB_PACK_MORE};
    };
    d.Up();
    d.Ack(d.SentOne(NDPI_MSG_REGISTER));
    EXPECT_EQ(d.State(), ND_LIB_FSM_COLLECT_SUBSCRIBE);
    d.Run(2); // the third answer is odd and changes nothing
    EXPECT_EQ(d.State(), ND_LIB_FSM_COLLECT_SUBSCRIBE);
    EXPECT_NE(d.nd->consumer.optionData, nullptr);
    EXPECT_EQ(d.nd->consumer.fsmRecordNum, 3U); // up, collect, collect to itself
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_SUBSCRIBE_BEGIN);
    EXPECT_EQ(d.nd->consumer.optionData, nullptr);
    ASSERT_EQ(d.optionDataSeen.size(), 4U);
    EXPECT_NE(d.optionDataSeen[3], nullptr);
    EXPECT_EQ(d.nd->consumer.subscribingList.count, 4U);
}

TEST_F(Session, VerifiesWhenDueAndAgreed) {
    d.ToState(ND_LIB_FSM_READY);
    d.onPack = [&] {
        d.Subscribe(NumberedItem(1));
        d.UnSubscribe(NumberedItem(2));
        return uint32_t{ND_LIB_PACK_DONE};
    };
    EXPECT_EQ(ND_LIB_SetVerifyCycle(d.nd, 600), ND_LIB_OK);
    d.Run(5);
    EXPECT_EQ(d.events, (Codes{0, 1})); // not asked before it is enabled
    ND_LIB_StartVerify(d.nd);
    d.events.clear();
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN);

    // Updates are still served while the pass has not begun.
    EXPECT_EQ(d.Receive({.type = NDPI_MSG_REAL_UPDATE, .body = Tlv(1, {})}), ND_LIB_OK);
    EXPECT_EQ(d.records.size(), 1U);
    EXPECT_TRUE(d.SentOne(NDPI_MSG_REAL_UPDATE).IsAck());
    d.AckNext(NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN);
    auto sent = d.Sent();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1].type, NDPI_MSG_UNSUBSCRIBE_DATA);
    d.Receive({.type = NDPI_MSG_REAL_UPDATE, .body = Tlv(1, {})}); // and no more from here on
    EXPECT_EQ(d.records.size(), 1U);
    d.Ack(sent[0]);
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_VERIFY_SUBSCRIBE_DATA);
    d.Ack(sent[1]);
    d.Run(1);
    EXPECT_EQ(d.State(), ND_LIB_FSM_VERIFY_SUBSCRIBE_END);
    d.AckNext(NDPI_MSG_VERIFY_SUBSCRIBE_END);
    d.records.clear();
    ND_LIB_StopVerify(d.nd); // lets a pass that runs finish
    EXPECT_EQ(d.Receive({.type = NDPI_MSG_VERIFY_DATA_BEGIN, .seq = 10}), ND_LIB_OK);
    d.Receive({.type = NDPI_MSG_SMOOTH_DATA, .seq = 10, .body = Tlv(1, {1})});
    d.Receive({.type = NDPI_MSG_SMOOTH_DATA, .seq = 11, .body = Tlv(1, {2})});
    EXPECT_EQ(d.Receive({.type = NDPI_MSG_VERIFY_DATA_END, .seq = 12}), ND_LIB_OK);
    EXPECT_EQ(d.records, (std::vector<Delivered>{{1, {1}}, {1, {2}}}));
    EXPECT_EQ(d.State(), ND_LIB_FSM_READY);
    EXPECT_EQ(d.events, (Codes{2, 3})); // the consumer is told of the end alone
    EXPECT_EQ(d.nd->nextVerifyTime, d.nd->secNow + 600);

    ND_LIB_StartVerify(d.nd);
    d.Run(599);
    EXPECT_EQ(d.State(), ND_LIB_FSM_READY);
    // A repeated end in the ready state counts as the end of a pass.
    EXPECT_EQ(d.Receive({.type = NDPI_MSG_VERIFY_DATA_END, .seq = 12}), ND_LIB_OK);
    EXPECT_EQ(d.nd->nextVerifyTime, d.nd->secNow + 600);
    d.Run(600);
    EXPECT_EQ(d.State(), ND_LIB_FSM_VERIFY_SUBSCRIBE_BEGIN);
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
