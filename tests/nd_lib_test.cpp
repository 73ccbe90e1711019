// Creating, configuring and destroying an instance, its timer service, and the two ways into it.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

uint32_t SomeLog(ND_LIB_Instance *, uint32_t, const char *, ...) {
    return 0;
}
uint32_t SomePack(ND_LIB_Instance *, void *) {
    return 2;
}
uint32_t SomeEvent(ND_LIB_Instance *, uint32_t, uint32_t) {
    return 0;
}
uint32_t SomeRecord(ND_LIB_Instance *, const ND_LIB_TlvHead *) {
    return 0;
}

TEST(Instance, TheFirstSixWordsOfTheFrameAreNeeded) {
    sim::World world;
    const ND_LIB_FrameRegister whole = {1, 2, 3, 4, 5, SomeLog, 0, 0};
    const ND_LIB_FrameRegister broken[] = {
        {0, 2, 3, 4, 5, SomeLog, 6, 7}, {1, 0, 3, 4, 5, SomeLog, 6, 7}, {1, 2, 0, 4, 5, SomeLog, 6, 7},
        {1, 2, 3, 0, 5, SomeLog, 6, 7}, {1, 2, 3, 4, 0, SomeLog, 6, 7}, {1, 2, 3, 4, 5, nullptr, 6, 7},
    };
    EXPECT_EQ(ND_LIB_Init(nullptr), nullptr);
    for (const ND_LIB_FrameRegister &frame : broken) {
        EXPECT_EQ(ND_LIB_Init(&frame), nullptr);
    }
    EXPECT_EQ(world.Assertions().size(), 14U); // the test of the table and the creation report each
    EXPECT_EQ(world.Assertions()[0].source, "nd_lib");
    EXPECT_EQ(world.Calls(), 0U);

    world.FailNext(sim::Op::kMalloc);
    EXPECT_EQ(ND_LIB_Init(&whole), nullptr);
    EXPECT_EQ(world.Assertions().size(), 15U);

    world.SetSeconds(4711);
    ND_LIB_Instance *nd = ND_LIB_Init(&whole);
    ASSERT_NE(nd, nullptr);
    EXPECT_EQ(nd->ndCompState, 1U);
    EXPECT_EQ(nd->msgMaxLen, 8000U);
    EXPECT_EQ(nd->verifyCycle, 60U);
    EXPECT_EQ(nd->isNeedVerify, 0U);
    EXPECT_EQ(nd->secNow, 4711U);
    EXPECT_EQ(nd->consumer.compFsmState, ND_LIB_FSM_INIT);
    EXPECT_EQ(nd->consumer.backupTimer, 0U);
    EXPECT_EQ(nd->blackBox[0].bbHandle, nullptr);
    EXPECT_EQ(nd->consumer.fsmRecord[19].event, ND_LIB_EVT_MAX);
    EXPECT_EQ(ND_LIB_GetAppLocal(nd), 5U);
    EXPECT_EQ(ND_LIB_GetAppLocal(nullptr), 0U);
    for (const sim::Allocation &block : world.Allocations()) {
        EXPECT_EQ(block.memHandle, 3U);
    }

    const ND_LIB_ConsumerRegister incomplete[] = {{0, SomePack, SomeEvent, SomeRecord},
                                                  {1, nullptr, SomeEvent, SomeRecord},
                                                  {1, SomePack, nullptr, SomeRecord},
                                                  {1, SomePack, SomeEvent, nullptr}};
    world.ClearAssertions();
    EXPECT_EQ(ND_LIB_RegisterConsumer(nullptr, &incomplete[0]), ND_LIB_ERR_PARAM);
    EXPECT_TRUE(world.Assertions().empty());
    EXPECT_EQ(ND_LIB_RegisterConsumer(nd, nullptr), ND_LIB_ERR_PARAM);
    for (const ND_LIB_ConsumerRegister &consumer : incomplete) {
        EXPECT_EQ(ND_LIB_RegisterConsumer(nd, &consumer), ND_LIB_ERR_PARAM);
    }
    EXPECT_EQ(world.Assertions().size(), 5U);
    EXPECT_EQ(nd->consumer.subscribeTree.root, nullptr);
    ND_LIB_Deinit(nd);
    ND_LIB_Deinit(nullptr);
    EXPECT_EQ(world.Leaks(), "");
}

class Lifecycle : public testing::Test {
protected:
    sim::World world;
    Driver d{world};
};

TEST_F(Lifecycle, SettingsHaveTheirBounds) {
    struct Case {
        uint16_t cycle;
        uint32_t ret;
        uint16_t kept;
    };
    const Case cases[] = {{59, ND_LIB_ERR_PARAM, 60},
                          {3600, ND_LIB_OK, 3600},
                          {3601, ND_LIB_ERR_PARAM, 3600},
                          {0, ND_LIB_ERR_PARAM, 3600},
                          {60, ND_LIB_OK, 60}};
    for (const Case &c : cases) {
        EXPECT_EQ(ND_LIB_SetVerifyCycle(d.nd, c.cycle), c.ret);
        EXPECT_EQ(d.nd->verifyCycle, c.kept);
    }
    EXPECT_EQ(ND_LIB_StartVerify(d.nd), ND_LIB_OK);
    EXPECT_EQ(d.nd->isNeedVerify, 1U);
    EXPECT_EQ(ND_LIB_StopVerify(d.nd), ND_LIB_OK);
    EXPECT_EQ(d.nd->isNeedVerify, 0U);
    EXPECT_TRUE(world.Assertions().empty());
    EXPECT_EQ(ND_LIB_StartVerify(nullptr), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_StopVerify(nullptr), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_SetVerifyCycle(nullptr, 60), ND_LIB_ERR);
    EXPECT_EQ(world.Assertions().size(), 3U);
}

TEST_F(Lifecycle, OptionDataIsACopyThatIsReplaced) {
    Bytes data(10001, 3);
    EXPECT_EQ(ND_LIB_AddOptionData(nullptr, data.data(), 1), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, data.data(), 10000), ND_LIB_OK);
    data[9999] = 4;
    EXPECT_EQ(d.nd->consumer.optionData[9999], 3);
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, nullptr, 1), ND_LIB_ERR);
    EXPECT_NE(d.nd->consumer.optionData, nullptr);
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, data.data(), 0), ND_LIB_OK);
    EXPECT_NE(d.nd->consumer.optionData, nullptr);
    EXPECT_TRUE(d.TakeLog().empty());
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, data.data(), 10001), ND_LIB_ERR);
    EXPECT_EQ(d.nd->consumer.optionData, nullptr); // what was held is gone as well
    EXPECT_EQ(d.TakeLog(), (std::vector<LogLine>{{0, "AddOptionData malloc failed"}}));
    EXPECT_EQ(d.nd->blackBox[0].bbHandle, nullptr); // log only
    EXPECT_TRUE(world.Assertions().empty());
}

TEST_F(Lifecycle, ALaterRegistrationReleasesWhatIsHeldAndNothingElse) {
    d.ToState(ND_LIB_FSM_READY);
    d.Subscribe(NumberedItem(1));
    d.Run(1);
    d.Subscribe(NumberedItem(2));
    d.UnSubscribe(NumberedItem(3));
    ND_LIB_AddOptionData(d.nd, "x", 1);
    EXPECT_EQ(d.Register(), ND_LIB_OK);
    EXPECT_EQ(d.nd->consumer.subscribeTree.count, 0U);
    EXPECT_EQ(d.nd->consumer.waitSubAckList.count, 0U);
    EXPECT_EQ(d.nd->consumer.optionData, nullptr);
    EXPECT_EQ(d.State(), ND_LIB_FSM_READY);
    EXPECT_EQ(d.nd->consumer.sendSubNum, 1U);
    EXPECT_EQ(BrokenInvariant(d.nd), "");
    d.Subscribe(NumberedItem(2));
    ND_LIB_AddOptionData(d.nd, "x", 1);
    d.Deinit(); // with everything held, boxes and running timer included
    EXPECT_EQ(world.Leaks(), "");
    EXPECT_TRUE(world.Violations().empty());
}

TEST(Unregistered, CopesWithEverything) {
    sim::World world;
    Driver d(world, false);
    EXPECT_EQ(d.Subscribe(NumberedItem(1)), ND_LIB_ERR);
    EXPECT_EQ(d.UnSubscribe(NumberedItem(1)), ND_LIB_ERR);
    EXPECT_EQ(world.Assertions().size(), 2U);
    EXPECT_EQ(d.nd->consumer.subscribeTree.root, nullptr);
    EXPECT_NE(d.Pages()[0].find("subscribeTree num    : 0"), std::string::npos);
    d.Up();
    EXPECT_EQ(d.Ack(d.SentOne(NDPI_MSG_REGISTER)), ND_LIB_OK); // nobody to ask
    EXPECT_EQ(d.State(), ND_LIB_FSM_REGISTER);
    EXPECT_EQ(ND_LIB_AddOptionData(d.nd, "x", 1), ND_LIB_OK);
    for (uint32_t state = ND_LIB_FSM_REGISTER; state < ND_LIB_FSM_MAX; ++state) {
        d.nd->consumer.compFsmState = state;
        d.nd->isNeedVerify = 1;
        d.Run(3);
        for (uint8_t type = 16; type < 30; ++type) {
            for (const uint8_t flags : Bytes{0, 0x80}) {
                d.Receive({.type = type,
                           .trans = d.nd->transNumber,
                           .seq = d.nd->consumer.sequenceNum,
                           .body = NumberedItem(1).Record(),
                           .flags = flags});
            }
        }
        d.Down();
        EXPECT_EQ(d.State(), ND_LIB_FSM_INIT);
        d.Up();
    }
    EXPECT_EQ(d.nd->consumer.subscribeTree.root, nullptr);
    d.Deinit();
    (void)world.TakeSent();
    EXPECT_EQ(world.Leaks(), "");
}

TEST_F(Lifecycle, RepeatedNotificationsAreOnlyReported) {
    const std::vector<LogLine> known = {{3, "ND_LIB_NotifyNdCompState ndCompState :1, newState:1"}};
    d.Down();
    EXPECT_EQ(d.TakeLog(), known);
    EXPECT_EQ(d.TakeTrace(1), std::vector<std::string>{known[0].text});
    d.Up();
    const uint32_t timer = d.nd->consumer.backupTimer;
    EXPECT_NE(timer, 0U);
    EXPECT_EQ(d.TakeLog(),
              (std::vector<LogLine>{
                  {3, "ND_LIB_NotifyNdCompState ndCompState :1, newState:0"},
                  {2, "ND_LIB_SendMsg msgType:16, msgLen:16"},
                  {3, "ND_LIB_FsmStatusHandle oldState: Init->newState: Register, event: Component up"},
                  {2, "ND_LIB_StartLoopTmr start timevalue:1000 ms"},
                  {2, "ND_LIB_StartLoopTmr end"}}));
    d.Up();
    EXPECT_EQ(d.TakeLog(),
              (std::vector<LogLine>{{3, "ND_LIB_NotifyNdCompState ndCompState :0, newState:0"}}));
    EXPECT_EQ(d.nd->consumer.backupTimer, timer);
    EXPECT_EQ(d.Sent().size(), 1U);
    const auto trace = d.TakeTrace(1);
    EXPECT_EQ(trace[trace.size() - 2], "LIB_NotifyNdCompState component available");
    d.Notify(9); // any other value means not available, and is kept
    EXPECT_EQ(d.nd->ndCompState, 9U);
    EXPECT_EQ(d.nd->consumer.backupTimer, 0U);
    EXPECT_EQ(d.TakeTrace(1).back(), "LIB_NotifyNdCompState component unavailable");

    const ND_LIB_CompState state = {0, 0};
    ND_LIB_NotifyNdCompState(nullptr, &state);
    ND_LIB_NotifyNdCompState(d.nd, nullptr);
    EXPECT_EQ(ND_LIB_MsgProcess(d.nd, nullptr), ND_LIB_ERR);
    uint32_t anything = 0;
    EXPECT_EQ(ND_LIB_MsgProcess(nullptr, &anything), ND_LIB_ERR);
    EXPECT_EQ(world.Assertions().size(), 4U);
}

TEST_F(Lifecycle, TheTimeIsThatOfTheLastEntry) {
    world.SetSeconds(5000);
    d.Subscribe(NumberedItem(1));
    EXPECT_LT(d.nd->secNow, 5000U); // a request is no entry
    (void)d.ReceiveBytes({}, 1);
    EXPECT_EQ(d.nd->secNow, 5000U);
    world.SetSeconds(6000);
    d.Up();
    EXPECT_EQ(d.nd->secNow, 6000U);
    world.SetSeconds(7000);
    ND_LIB_TimeoutBackupTimer(d.nd);
    EXPECT_EQ(d.nd->secNow, 7000U);
}

// ---- The timer service ----

TEST(Timers, ASetUpThatFailsLeavesAnInstanceWithoutTimers) {
    for (const sim::Op op : {sim::Op::kMalloc, sim::Op::kTimerCreateLib, sim::Op::kTimerCreateInstance}) {
        sim::World world;
        world.Fail({.op = op, .from = op == sim::Op::kMalloc ? 2U : 1U, .count = 1});
        Driver d(world);
        ASSERT_NE(d.nd, nullptr);
        (void)d.TakeLog();
        d.Up();
        EXPECT_EQ(d.nd->consumer.backupTimer, 0U);
        const auto log = d.TakeLog();
        const auto has = [&](const LogLine &line) { return std::count(log.begin(), log.end(), line); };
        EXPECT_EQ(has({2, "ND_LIB_StartLoopTmr start timevalue:1000 ms"}), 1);
        EXPECT_EQ(has({0, "ND_LIB_StartLoopTmr failed TmrFlag APP_TIMER_FLAG_SHADOW"}),
                  op == sim::Op::kMalloc ? 0 : 1);
        EXPECT_EQ(d.SentOne(NDPI_MSG_REGISTER).trans, 1U); // it still speaks when spoken to
        uint32_t foreign = 33;
        EXPECT_EQ(ND_LIB_StopTmr(d.nd, &foreign), ND_LIB_ERR);
        sim::Record expiry;
        expiry.iid = sim::kTimerIid;
        const sim::Message message(world, expiry);
        EXPECT_EQ(ND_LIB_MsgProcess(d.nd, message.Data()), ND_LIB_OK);
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
    }
}

TEST_F(Lifecycle, TimersThatCannotBeStartedOrStopped) {
    for (const sim::Op op : {sim::Op::kMalloc, sim::Op::kTimerCreate}) {
        const auto held = world.LiveBytes();
        world.FailNext(op);
        EXPECT_EQ(ND_LIB_StartLoopTmr(d.nd, ND_LIB_TimeoutBackupTimer, 1000), 0U);
        EXPECT_EQ(world.LiveBytes(), held);
    }
    uint32_t none = 0;
    EXPECT_EQ(ND_LIB_StopTmr(d.nd, &none), ND_LIB_OK);
    uint32_t unknown = 4711;
    EXPECT_EQ(ND_LIB_StopTmr(d.nd, &unknown), ND_LIB_OK);
    EXPECT_EQ(unknown, 4711U);

    d.Up();
    const uint32_t timer = d.nd->consumer.backupTimer;
    world.FailNext(sim::Op::kTimerDelete);
    d.Down();
    EXPECT_EQ(d.nd->consumer.backupTimer, timer); // it goes on, and serves the next time
    d.Up();
    EXPECT_EQ(d.nd->consumer.backupTimer, timer);
    world.FailNext(sim::Op::kTimerDelete);
    d.Deinit();
    (void)world.TakeSent();
    EXPECT_EQ(world.Leaks(), "");
    EXPECT_TRUE(world.Violations().empty());
}

TEST_F(Lifecycle, ExpiriesThatBelongToNobody) {
    d.Up();
    world.DetachTimers(0x22);
    world.Advance(1000);
    auto late = world.TakeExpiries();
    ASSERT_EQ(late.size(), 1U);
    d.Down();
    d.Up();
    (void)d.Sent();
    (void)d.TakeLog();
    const sim::Message message(world, late[0]);
    EXPECT_EQ(ND_LIB_MsgProcess(d.nd, message.Data()), ND_LIB_OK); // of the timer before
    EXPECT_TRUE(d.Sent().empty());

    ND_LIB_TmrParam param = {5, nullptr, d.nd};
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(6, 0, &param, d.nd), 0U);
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(5, 0, nullptr, d.nd), 0U);
    EXPECT_TRUE(d.TakeLog().empty());
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(5, 0, &param, d.nd), 0U);
    EXPECT_EQ(d.TakeLog(), (std::vector<LogLine>{{0, "ND get timer callback error."}}));
    EXPECT_EQ(d.TakeTrace(0).back(), "ND get timer callback error.");
    uint32_t timer = ND_LIB_StartLoopTmr(d.nd, nullptr, 1000);
    EXPECT_NE(timer, 0U);
    ASSERT_EQ(world.Assertions().size(), 2U);
    EXPECT_EQ(world.Assertions()[0].source, "nd_lib_timer");
    EXPECT_EQ(ND_LIB_StopTmr(d.nd, &timer), ND_LIB_OK);
    EXPECT_EQ(timer, 0U);
}

TEST(Instances, KnowNothingOfEachOther) {
    sim::World world;
    Driver one(world);
    const auto other = std::make_unique<Driver>(world, true);
    other->Subscribe(NumberedItem(1));
    one.Up();
    EXPECT_EQ(one.nd->consumer.subscribeTree.count, 0U);
    EXPECT_EQ(other->State(), ND_LIB_FSM_INIT);
    EXPECT_TRUE(other->TakeTrace(0).empty());
}

} // namespace
} // namespace pegeir::tests
