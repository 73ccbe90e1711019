// The store of pending requests and its way out: requests, work lists, batches, and what happens when
// memory, messages or sends fail.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Lines = std::vector<std::string>;

class Store : public testing::Test {
protected:
    // The boxes have their full size, so that they take no memory in between.
    Store() {
        for (uint32_t line = 0; line < 12; ++line) {
            ND_LIB_BlackBox(d.nd, 0, "-");
            ND_LIB_BlackBox(d.nd, 1, "-");
        }
        (void)d.TakeTrace(0);
    }

    ~Store() override {
        EXPECT_EQ(BrokenInvariant(d.nd), "");
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
        EXPECT_TRUE(world.Violations().empty());
    }

    uint32_t Request(bool subscribe, const Item &item) {
        return subscribe ? d.Subscribe(item) : d.UnSubscribe(item);
    }

    // The entry of an item, or null.
    ND_LIB_DataEntry *Find(const Item &item) {
        Bytes bytes = item.key;
        ND_LIB_KeyEntry key = {};
        key.keyType = item.keyType;
        key.keyLen = static_cast<uint16_t>(bytes.size());
        key.keyValue = bytes.data();
        ND_LIB_DataNode node = {};
        node.dataType = item.dataType;
        return ND_LIB_FindDataEntry(ND_LIB_FindKeyEntry(&key, d.nd), &node);
    }

    sim::World world;
    Driver d{world};
    ND_LIB_ConsumerInfo &consumer = d.nd->consumer;
};

TEST_F(Store, RefusesWhatIsNoRequest) {
    for (const bool subscribe : {true, false}) {
        const std::string name = subscribe ? "ND_LIB_Subscribe" : "ND_LIB_UnSubscribe";
        const std::string failed = subscribe ? name + " GetDataNode failed" : "ND_LIB_GetDataNode failed";
        const std::pair<Item, Lines> cases[] = {
            {{1, {}, 1, {}}, {"GetDataNode keyHead len error", failed}},
            {{1, Bytes(10001, 1), 1, {}}, {failed}},
            {{1, {1}, 1, Bytes(10001, 1)}, {failed}},
            {{1, Bytes(10000, 1), 1, Bytes(10000, 1)}, {}},
        };
        for (const auto &[item, failures] : cases) {
            const bool good = failures.empty();
            EXPECT_EQ(Request(subscribe, item), good ? ND_LIB_OK : ND_LIB_ERR_SUBSCRIBE);
            std::vector<LogLine> expected = {{3, name + " start"}};
            for (const std::string &line : failures) {
                expected.push_back({0, line});
            }
            if (good) {
                expected.push_back({3, name + " end success"});
            }
            EXPECT_EQ(d.TakeLog(), expected);
            EXPECT_EQ(d.TakeTrace(0), failures);
            const auto log = std::exchange(d.nd->logFunc, nullptr);
            EXPECT_EQ(Request(subscribe, item), good ? ND_LIB_OK : ND_LIB_ERR_SUBSCRIBE);
            d.nd->logFunc = log;
            EXPECT_EQ(d.TakeTrace(0), failures);
        }
    }
    const ND_LIB_ItemHead head = {1, 0};
    EXPECT_EQ(ND_LIB_Subscribe(nullptr, &head, &head), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_Subscribe(d.nd, nullptr, &head), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_UnSubscribe(d.nd, &head, nullptr), ND_LIB_ERR);
    EXPECT_TRUE(d.TakeLog().empty());
    EXPECT_EQ(world.Assertions().size(), 3U);
}

TEST_F(Store, OrdersKeysByTypeThenLengthThenBytes) {
    const Item ascending[] = {{1, {9}, 1, {}}, {1, {0, 1}, 1, {}}, {1, {0, 200}, 1, {}}, {2, {1}, 1, {}}};
    for (const Item &item : ascending) {
        d.Subscribe(item);
    }
    const uint32_t answers[] = {ND_LIB_KEY_CMP_LESS, ND_LIB_KEY_CMP_EQUAL, ND_LIB_KEY_CMP_GREATER};
    for (size_t i = 0; i < 4; ++i) {
        for (size_t j = 0; j < 4; ++j) {
            EXPECT_EQ(ND_LIB_Key_RB_KeyCmp(Find(ascending[i])->keyEntry, Find(ascending[j])->keyEntry),
                      answers[1 + (i < j) - (i > j)]);
        }
    }
    ND_LIB_KeyEntry twin = *Find(ascending[0])->keyEntry;
    KAL_RBT_Tree *tree = &consumer.subscribeTree;
    EXPECT_EQ(ND_LIB_RBT_AddNode(tree, &twin.rbNode, &twin, ND_LIB_Key_RB_KeyCmp), 1U);
    EXPECT_EQ(tree->count, 4U);
    KAL_RBT_Tree never = {};
    EXPECT_EQ(ND_LIB_RBT_AddNode(&never, &twin.rbNode, &twin, ND_LIB_Key_RB_KeyCmp), 1U);
    EXPECT_EQ(ND_LIB_RBT_AddNode(nullptr, &twin.rbNode, &twin, ND_LIB_Key_RB_KeyCmp), 1U);
    EXPECT_EQ(ND_LIB_RBT_AddNode(tree, &twin.rbNode, nullptr, ND_LIB_Key_RB_KeyCmp), 1U);
    EXPECT_EQ(ND_LIB_RBT_AddNode(tree, &twin.rbNode, &twin, nullptr), 1U);
    EXPECT_EQ(ND_LIB_RBT_LookupNode(tree, &twin, nullptr), nullptr);
    EXPECT_EQ(ND_LIB_SearchOrCreateKeyEntry(nullptr, d.nd), nullptr);
    EXPECT_EQ(ND_LIB_SerchOrCreateDataEntry(nullptr, d.nd), nullptr);
    ND_LIB_UpdateDataEntry(Find(ascending[0]), nullptr, d.nd);
    ND_LIB_DeleteAllDataEntry(nullptr, d.nd);
    ND_LIB_DeleteKeyEntry(nullptr, d.nd);
    ND_LIB_DeleteDataEntry(nullptr, d.nd);
    ND_LIB_UpdateDataEntry(nullptr, nullptr, d.nd);
    ND_LIB_ProcSingleSubAndUnsub(d.nd, nullptr, 18, 0);
    ND_LIB_DataNode keyless = {};
    ND_LIB_ProcSingleSubAndUnsub(d.nd, &keyless, 18, 0);
    ND_LIB_KeyEntry *noKey = nullptr;
    ND_LIB_DataEntry *noEntry = nullptr;
    ND_LIB_DeleteKeyEntry(&noKey, d.nd);
    ND_LIB_DeleteDataEntry(&noEntry, d.nd);
    EXPECT_EQ(ND_LIB_FindDataEntry(&twin, nullptr), nullptr);
    EXPECT_EQ(ND_LIB_RBT_LookupNode(nullptr, &twin, ND_LIB_Key_RB_KeyCmp), nullptr);
    EXPECT_EQ(ND_LIB_RBT_LookupNode(tree, nullptr, ND_LIB_Key_RB_KeyCmp), nullptr);
    EXPECT_EQ(ND_LIB_RBT_AddNode(tree, nullptr, &twin, ND_LIB_Key_RB_KeyCmp), 1U);
    uint8_t bytes[16] = {};
    EXPECT_EQ(
        ND_LIB_BuildSubscribeMsg(nullptr, Find(ascending[0])) + ND_LIB_BuildSubscribeMsg(bytes, nullptr), 0);
    EXPECT_EQ(ND_LIB_GetNextTlv(nullptr, 16, bytes, 1, 0), nullptr);
    EXPECT_EQ(ND_LIB_GetNextTlv(bytes, 16, nullptr, 1, 0), nullptr);
}

// ---- Batches ----

class Batch : public Store {
protected:
    Batch() {
        d.ToState(ND_LIB_FSM_READY);
        base = d.nd->transNumber;
    }

    void RequestMany(uint32_t count, bool subscribe = true) {
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(Request(subscribe, NumberedItem(i)), ND_LIB_OK);
        }
        (void)d.TakeLog();
        (void)d.TakeTrace(0);
    }

    uint32_t base = 0;
};

TEST_F(Batch, FillsMessagesToTheLastRecordForBothKinds) {
    for (const bool subscribe : {true, false}) {
        RequestMany(500, subscribe);
        d.Run(1);
        const auto sent = d.Sent();
        ASSERT_EQ(sent.size(), 2U);
        EXPECT_EQ(sent[0].body.size() + 16, 8000U);
        EXPECT_EQ(sent[1].body, NumberedItem(499).Record());
        EXPECT_EQ(Find(NumberedItem(498))->sendTransNumber, sent[0].trans);
        EXPECT_EQ(Find(NumberedItem(499))->sendTransNumber, sent[1].trans);
        EXPECT_EQ(Find(NumberedItem(0))->sendCnt, 1U);
        EXPECT_EQ(Find(NumberedItem(0))->nextSendTime, d.nd->secNow + 2);
        EXPECT_EQ(d.nd->statisticCnt[subscribe ? 4 : 18], 2U);
        const auto log = d.TakeLog();
        const std::string type = subscribe ? "18" : "20";
        EXPECT_EQ(log[0], (LogLine{2, "ND_LIB_SendMsg msgType:" + type + ", msgLen:8000"}));
        EXPECT_EQ(log[1], (LogLine{2, "send sub key: 1000, len: 4, data type:1, len:0"}));
    }
}

TEST_F(Batch, FailedAllocationsAreRecorded) {
    RequestMany(1);
    const uint32_t first = d.nd->secNow + 1;
    world.FailNext(sim::Op::kMsgAlloc, 3);
    d.Run(3);
    EXPECT_EQ(d.nd->flowCtrlState, 1U);
    EXPECT_EQ(d.nd->flowCtlStartTime, first);
    EXPECT_EQ(d.nd->flowCtlEndTime, 0U);
    EXPECT_EQ(d.nd->flowCnt, 3U);
    EXPECT_EQ(d.TakeTrace(0), Lines(3, "ND_LIB_AllocMsg alloc fail"));
    EXPECT_EQ(d.nd->statisticCnt[ND_LIB_STAT_SEND_SUBSCRIBE_DATA], 0U);
    EXPECT_EQ(d.nd->transNumber, base);
    world.FailNext(sim::Op::kMsgAlloc);
    EXPECT_EQ(ND_LIB_SendSeqErrorMsg(d.nd), ND_LIB_ERR);
    EXPECT_EQ(d.nd->statisticCnt[ND_LIB_STAT_SEND_SEQUENCE_ERROR], 0U);
    world.Fail({.op = sim::Op::kSend, .from = world.Calls(sim::Op::kSend) + 1, .count = 1, .code = 42});
    (void)d.TakeTrace(0);
    d.Run(1);
    const std::string refused = "ND_LIB_SendMsg failed msgType:18, msgLen:32, ret:42";
    EXPECT_EQ(d.TakeTrace(0), Lines{refused});
    EXPECT_EQ(d.TakeLog().back(), (LogLine{0, refused}));
    for (const bool bytes : {false, true}) { // of a new key, behind those of the request
        const auto from = world.Calls(sim::Op::kMalloc) + (bytes ? 5U : 4U);
        world.Fail({.op = sim::Op::kMalloc, .from = from, .count = 1});
        EXPECT_EQ(d.UnSubscribe({1, {2}, 3, {}}), ND_LIB_ERR_SUBSCRIBE);
        EXPECT_EQ(d.TakeTrace(0), Lines{std::string("ND_LIB_SearchOrCreateKeyEntry malloc ") +
                                        (bytes ? "keyValue failed" : "failed")});
    }
}

} // namespace
} // namespace pegeir::tests
