// Creating, configuring and destroying an instance, its timer service, and the two ways into it.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Numbers = std::vector<uint32_t>;
using Log = std::vector<LogLine>;

uint32_t SomeLog(ND_LIB_Instance *, uint32_t, const char *, ...) {
    return 0;
}
constexpr auto SomePack = [](ND_LIB_Instance *, void *) { return 2U; };
constexpr auto SomeEvent = [](ND_LIB_Instance *, uint32_t, uint32_t) { return 0U; };
constexpr auto SomeRecord = [](ND_LIB_Instance *, const ND_LIB_TlvHead *) { return 0U; };

TEST(Instance, TheFirstSixWordsOfTheFrameAreNeeded) {
    sim::World world;
    const ND_LIB_FrameRegister whole = {1, 2, 3, 4, 5, SomeLog, 6, 7};
    const ND_LIB_FrameRegister broken[] = {
        {0, 2, 3, 4, 5, SomeLog, 6, 7}, {1, 0, 3, 4, 5, SomeLog, 6, 7}, {1, 2, 0, 4, 5, SomeLog, 6, 7},
        {1, 2, 3, 0, 5, SomeLog, 6, 7}, {1, 2, 3, 4, 0, SomeLog, 6, 7}, {1, 2, 3, 4, 5, nullptr, 6, 7},
    };
    EXPECT_EQ(ND_LIB_Init(nullptr), nullptr);
    for (const ND_LIB_FrameRegister &frame : broken) {
        EXPECT_EQ(ND_LIB_Init(&frame), nullptr);
    }
    EXPECT_EQ(world.Assertions()[0].source, "nd_lib");
    EXPECT_EQ(world.Assertions()[0].value, 0U);
    EXPECT_EQ(world.Calls(), 0U);

    world.FailNext(sim::Op::kMalloc);
    EXPECT_EQ(ND_LIB_Init(&whole), nullptr);
    EXPECT_EQ(world.Assertions().size(), 15U); // of a broken table its test and the creation report each

    world.SetSeconds(4711);
    ND_LIB_Instance *nd = ND_LIB_Init(&whole);
    ASSERT_NE(nd, nullptr);
    const ND_LIB_ConsumerInfo &held = nd->consumer;
    EXPECT_EQ((Numbers{nd->ndCompState, nd->msgMaxLen, nd->verifyCycle, nd->isNeedVerify, nd->secNow,
                       held.compFsmState, held.backupTimer, held.fsmRecord[19].event, ND_LIB_GetAppLocal(nd),
                       ND_LIB_GetAppLocal(nullptr), nd->blackBox[0].bbHandle != nullptr, nd->reserved1,
                       nd->reserved2}),
              (Numbers{1, 8000, 60, 0, 4711, ND_LIB_FSM_INIT, 0, ND_LIB_EVT_MAX, 5, 0, 0, 6, 7}));
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
    EXPECT_EQ(held.subscribeTree.root, nullptr);
    ND_LIB_Deinit(nd);
    ND_LIB_Deinit(nullptr);
    EXPECT_EQ(world.Leaks(), "");
}

class Lifecycle : public testing::Test {
protected:
    ~Lifecycle() override { // whatever is held and runs by then
        d.Deinit();
        (void)world.TakeSent();
        EXPECT_EQ(world.Leaks(), "");
        EXPECT_TRUE(world.Violations().empty());
    }
    sim::World world;
    Driver d{world};
};

TEST_F(Lifecycle, SettingsRefuseWhatTheyCannotUse) {
    const Bytes opt(10001, 3);
    EXPECT_EQ((Numbers{ND_LIB_AddOptionData(nullptr, opt.data(), 1), ND_LIB_AddOptionData(d.nd, nullptr, 1),
                       ND_LIB_AddOptionData(d.nd, opt.data(), 10001)}),
              Numbers(3, ND_LIB_ERR));
    EXPECT_EQ(d.TakeLog(), (Log{{0, "AddOptionData malloc failed"}}));
    d.Silently([&] { EXPECT_EQ(ND_LIB_AddOptionData(d.nd, opt.data(), 10001), ND_LIB_ERR); });
    EXPECT_EQ(d.nd->blackBox[0].bbHandle, nullptr); // log only
    EXPECT_EQ((Numbers{ND_LIB_SetVerifyCycle(d.nd, 59), ND_LIB_SetVerifyCycle(d.nd, 60),
                       ND_LIB_SetVerifyCycle(d.nd, 3600), ND_LIB_SetVerifyCycle(d.nd, 3601)}),
              (Numbers{ND_LIB_ERR_PARAM, ND_LIB_OK, ND_LIB_OK, ND_LIB_ERR_PARAM}));
    EXPECT_EQ((Numbers{ND_LIB_StartVerify(nullptr), ND_LIB_StopVerify(nullptr),
                       ND_LIB_SetVerifyCycle(nullptr, 60)}),
              Numbers(3, ND_LIB_ERR));
    EXPECT_EQ(world.Assertions().size(), 3U);
}

TEST_F(Lifecycle, CopesWithoutAConsumer) {
    Driver bare(world, false);
    const Item item = NumberedItem(1);
    EXPECT_EQ((Numbers{bare.Subscribe(item), bare.UnSubscribe(item)}), Numbers(2, ND_LIB_ERR));
    EXPECT_EQ(world.Assertions().size(), 2U);
    bare.Up();
    EXPECT_EQ(bare.Ack(bare.SentOne(NDPI_MSG_REGISTER)), ND_LIB_OK); // nobody to ask
    EXPECT_EQ(bare.State(), ND_LIB_FSM_REGISTER);
    EXPECT_EQ(ND_LIB_AddOptionData(bare.nd, "x", 1), ND_LIB_OK);
    const ND_LIB_LogFunc logFunc = bare.nd->logFunc;
    for (uint32_t state = ND_LIB_FSM_REGISTER; state < ND_LIB_FSM_MAX; ++state) {
        bare.nd->consumer.compFsmState = state;
        bare.nd->logFunc = state % 2 == 0 ? logFunc : nullptr; // every report copes without
        bare.nd->isNeedVerify = 1;
        bare.Run(3);
        for (uint8_t type = 16; type < 30; ++type) {
            for (const uint8_t flags : Bytes{0, 0x80}) {
                bare.Receive(
                    {type, bare.nd->transNumber, bare.nd->consumer.sequenceNum, item.Record(), flags});
            }
        }
        bare.Down();
        EXPECT_EQ(bare.State(), ND_LIB_FSM_INIT);
        bare.Up();
    }
    EXPECT_EQ(bare.nd->consumer.subscribeTree.root, nullptr);
}

TEST_F(Lifecycle, RepeatedNotificationsAreOnlyReported) {
    const Log known = {{3, "ND_LIB_NotifyNdCompState ndCompState :1, newState:1"}};
    d.Down();
    EXPECT_EQ(d.TakeLog(), known);
    EXPECT_EQ(d.TakeTrace(1), std::vector<std::string>{known[0].text});
    d.Up();
    const uint32_t timer = d.nd->consumer.backupTimer;
    EXPECT_NE(timer, 0U);
    EXPECT_EQ(d.TakeLog(),
              (Log{{3, "ND_LIB_NotifyNdCompState ndCompState :1, newState:0"},
                   {2, "ND_LIB_SendMsg msgType:16, msgLen:16"},
                   {3, "ND_LIB_FsmStatusHandle oldState: Init->newState: Register, event: Component up"},
                   {2, "ND_LIB_StartLoopTmr start timevalue:1000 ms"},
                   {2, "ND_LIB_StartLoopTmr end"}}));
    d.Up();
    EXPECT_EQ(d.TakeLog(), (Log{{3, "ND_LIB_NotifyNdCompState ndCompState :0, newState:0"}}));
    EXPECT_EQ(d.nd->consumer.backupTimer, timer);
    EXPECT_EQ(d.Sent().size(), 1U);
    const auto trace = d.TakeTrace(1);
    EXPECT_EQ(trace[trace.size() - 2], "LIB_NotifyNdCompState component available");
    d.Notify(9); // any other value means not available, and is kept
    EXPECT_EQ((Numbers{d.nd->ndCompState, d.nd->consumer.backupTimer}), (Numbers{9, 0}));
    EXPECT_EQ(d.TakeTrace(1).back(), "LIB_NotifyNdCompState component unavailable");

    const ND_LIB_CompState state = {0, 0};
    ND_LIB_NotifyNdCompState(nullptr, &state);
    ND_LIB_NotifyNdCompState(d.nd, nullptr);
    EXPECT_EQ(ND_LIB_MsgProcess(d.nd, nullptr), ND_LIB_ERR);
    EXPECT_EQ(world.Assertions().size(), 3U);
}

// ---- The timer service ----

TEST(Timers, ASetUpThatFailsLeavesAnInstanceWithoutTimers) {
    for (const sim::Op op : {sim::Op::kMalloc, sim::Op::kTimerCreateLib, sim::Op::kTimerCreateInstance}) {
        sim::World world;
        world.Fail({.op = op, .from = op == sim::Op::kMalloc ? 2U : 1U, .count = 1});
        Driver d(world);
        ASSERT_NE(d.nd, nullptr);
        d.Up();
        EXPECT_EQ(d.nd->consumer.backupTimer, 0U);
        const auto log = d.TakeLog();
        const auto has = [&](const LogLine &line) { return std::count(log.begin(), log.end(), line); };
        EXPECT_EQ(has({2, "ND_LIB_StartLoopTmr start timevalue:1000 ms"}), 1);
        EXPECT_EQ(has({0, "ND_LIB_StartLoopTmr failed TmrFlag APP_TIMER_FLAG_SHADOW"}),
                  op == sim::Op::kMalloc ? 0 : 1);
        EXPECT_EQ(d.SentOne(NDPI_MSG_REGISTER).trans, 1U); // it still speaks when spoken to
        d.Silently([&] { EXPECT_EQ(ND_LIB_StartLoopTmr(d.nd, nullptr, 1000), 0U); });
        uint32_t foreign = 33;
        EXPECT_EQ(ND_LIB_StopTmr(d.nd, &foreign), ND_LIB_ERR);
        const sim::Message message(world, {.iid = sim::kTimerIid, .bytes = {}});
        EXPECT_EQ(ND_LIB_MsgProcess(d.nd, message.Data()), ND_LIB_OK);
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
    }
}

TEST_F(Lifecycle, ExpiriesThatBelongToNobody) {
    d.Up();
    world.DetachTimers(0x22);
    world.Advance(1000);
    const auto late = world.TakeExpiries();
    ASSERT_EQ(late.size(), 1U);
    d.Down();
    d.Up();
    (void)d.Sent();
    (void)d.TakeLog();
    const sim::Message message(world, late[0]);
    EXPECT_EQ(ND_LIB_MsgProcess(d.nd, message.Data()), ND_LIB_OK); // of the timer before
    EXPECT_EQ(ND_LIB_MsgProcess(nullptr, message.Data()), ND_LIB_ERR);
    EXPECT_TRUE(d.Sent().empty());

    ND_LIB_TmrParam param = {5, nullptr, d.nd};
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(6, 0, &param, d.nd), 0U);
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(5, 0, nullptr, d.nd), 0U);
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(5, 0, &param, d.nd), 0U);
    EXPECT_EQ(d.TakeLog(), (Log{{0, "ND get timer callback error."}}));
    d.nd->logFunc = nullptr;
    EXPECT_EQ(ND_LIB_TmrLib_Timeout(5, 0, &param, d.nd), 0U);
    EXPECT_EQ(d.TakeTrace(0), std::vector<std::string>(2, "ND get timer callback error."));
    const uint32_t timer = ND_LIB_StartLoopTmr(d.nd, nullptr, 1000);
    EXPECT_NE(timer, 0U);
    ASSERT_EQ(world.Assertions().size(), 4U);
    EXPECT_EQ(world.Assertions()[1].source, "nd_lib_timer");
    for (uint32_t id : {timer, 0U, 4711U}) { // running, none, unknown
        const uint32_t left = id == timer ? 0 : id;
        EXPECT_EQ((Numbers{ND_LIB_StopTmr(d.nd, &id), id}), (Numbers{ND_LIB_OK, left}));
    }
}

} // namespace
} // namespace pegeir::tests
