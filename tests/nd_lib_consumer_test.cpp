// The store of pending requests and its way out: requests, work lists, batches, and what happens when
// memory, messages or sends fail.

#include <gtest/gtest.h>

#include <random>

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
        }
    }
    const ND_LIB_ItemHead head = {1, 0};
    EXPECT_EQ(ND_LIB_Subscribe(nullptr, &head, &head), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_Subscribe(d.nd, nullptr, &head), ND_LIB_ERR);
    EXPECT_EQ(ND_LIB_UnSubscribe(d.nd, &head, nullptr), ND_LIB_ERR);
    EXPECT_TRUE(d.TakeLog().empty());
    EXPECT_EQ(world.Assertions().size(), 3U);
}

TEST_F(Store, KeepsOneEntryAnItemThroughRandomRequests) {
    using Name = std::tuple<uint16_t, Bytes, uint16_t>;
    std::map<Name, Bytes> wanted; // the data of each
    std::vector<Name> order[2];   // the lists, oldest request first
    std::mt19937 random(11);
    const auto below = [&](uint32_t bound) { return static_cast<uint16_t>(random() % bound); };
    for (uint32_t step = 0; step < 3000; ++step) {
        // Keys that differ in type, length or one byte only.
        const Item item{below(3), Bytes(1 + below(3), static_cast<uint8_t>(below(3) * 127)), below(3),
                        Bytes(below(4), static_cast<uint8_t>(step))};
        const auto state = static_cast<uint8_t>(below(2));
        const Name name{item.keyType, item.key, item.dataType};
        ASSERT_EQ(Request(state == 0, item), ND_LIB_OK);
        wanted[name] = item.data;
        std::erase(order[0], name);
        std::erase(order[1], name);
        order[state].push_back(name);
        if (step == 1500) { // an empty store goes on like a new one
            ASSERT_EQ(BrokenInvariant(d.nd), "");
            ND_LIB_DeleteAllKeyEntry(d.nd);
            order[0].clear();
            order[1].clear();
        }
    }
    ND_LIB_List *lists[2] = {&consumer.subscribingList, &consumer.unsubscribingList};
    for (size_t kind = 0; kind < 2; ++kind) {
        ASSERT_EQ(lists[kind]->count, order[kind].size());
        ND_LIB_ListNode *link = list::First(lists[kind]);
        for (const Name &name : order[kind]) {
            const ND_LIB_DataEntry *entry = store::OfWorkLink(link);
            EXPECT_EQ(entry, Find({std::get<0>(name), std::get<1>(name), std::get<2>(name), {}}));
            EXPECT_EQ(Bytes(entry->dataValue, entry->dataValue + entry->dataLen), wanted[name]);
            EXPECT_EQ(entry->subscribeState, kind);
            EXPECT_EQ(entry->state, 0U);
            link = list::Next(lists[kind], link);
        }
    }
    EXPECT_EQ(consumer.maxKeyLength, 7U);
    EXPECT_EQ(consumer.maxValueLength, 7U);
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
}

TEST_F(Store, ARequestThatFailsLeavesNothingBehind) {
    const Item fresh{1, {1}, 1, {1, 2, 3}};
    const Item sibling{1, {1}, 2, {4, 5}};
    for (const bool withSibling : {false, true}) {
        if (withSibling) {
            d.Subscribe(sibling);
        }
        uint32_t failed = 0;
        for (uint64_t call = 1;; ++call, ++failed) {
            const auto before = world.LiveBytes();
            const auto lists = consumer.subscribingList.count + consumer.unsubscribingList.count;
            world.Fail({.op = sim::Op::kMalloc, .from = world.Calls(sim::Op::kMalloc) + call, .count = 1});
            const uint32_t ret = Request(withSibling, fresh);
            world.LiftAll();
            ASSERT_EQ(BrokenInvariant(d.nd), "");
            if (ret == ND_LIB_OK) {
                break;
            }
            EXPECT_EQ(ret, ND_LIB_ERR_SUBSCRIBE);
            EXPECT_EQ(world.LiveBytes(), before);
            EXPECT_EQ(consumer.subscribingList.count + consumer.unsubscribingList.count, lists);
            EXPECT_EQ(Find(fresh), nullptr);
            const Lines lines = d.TakeTrace(0);
            if (!withSibling && (call == 5 || call == 6)) { // and no line of the request's own
                const std::string what = call == 5 ? " malloc failed" : " malloc keyValue failed";
                EXPECT_EQ(lines, Lines{"ND_LIB_SearchOrCreateKeyEntry" + what});
            }
        }
        // Node, data, key record, key; key entry and bytes unless there; entry and bytes.
        EXPECT_EQ(failed, withSibling ? 6U : 8U);
        // The last copy failing is not told: the item stands without its bytes.
        EXPECT_EQ(Find(fresh)->dataLen, 0U);
        EXPECT_EQ(consumer.maxValueLength, 7U);
        ND_LIB_DeleteAllKeyEntry(d.nd);
    }
    // Nor when the item was there: kind and pacing stay as they were.
    d.Subscribe(fresh);
    Find(fresh)->sendCnt = 3;
    world.Fail({.op = sim::Op::kMalloc, .from = world.Calls(sim::Op::kMalloc) + 5, .count = 1});
    EXPECT_EQ(d.UnSubscribe(fresh), ND_LIB_OK);
    EXPECT_EQ(Find(fresh)->subscribeState, ND_LIB_SUBSCRIBE);
    EXPECT_EQ(Find(fresh)->sendCnt, 3U);
    EXPECT_EQ(Find(fresh)->dataValue, nullptr);
    EXPECT_EQ(consumer.subscribingList.count, 1U);
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

TEST_F(Batch, MessagesAreClosedByTheLargestRecordEverStored) {
    d.Subscribe({1, Bytes(3000, 1), 1, {}});
    d.Subscribe({1, Bytes(3000, 1), 1, Bytes(980, 1)}); // in its place
    d.Subscribe(NumberedItem(1)); // 3992 used, and a record as long as the first just fits
    d.Subscribe(NumberedItem(2)); // but not behind this one
    d.Run(1);
    auto sent = d.Sent();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].body.size(), 3992U + 16);
    EXPECT_EQ(sent[1].body.size(), 16U);
    // Once the largest no longer fits an empty message, every record travels alone.
    d.Subscribe({1, Bytes(4000, 2), 1, Bytes(3973, 1)});
    const auto messages = world.Calls(sim::Op::kMsgAlloc);
    d.Subscribe(NumberedItem(3));
    d.Run(1);
    sent = d.Sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].body, NumberedItem(3).Record());
    EXPECT_EQ(world.Calls(sim::Op::kMsgAlloc) - messages, 3U); // even the first, empty one is replaced
}

TEST_F(Batch, AFailedSendReturnsItsEntriesUnchanged) {
    RequestMany(3);
    world.Fail({.op = sim::Op::kSend, .from = world.Calls(sim::Op::kSend) + 1, .count = 1, .code = 9});
    d.Run(1);
    EXPECT_EQ(d.TakeLog(), (std::vector<LogLine>{{0, "ND_LIB_SendMsg failed msgType:18, msgLen:64, ret:9"}}));
    EXPECT_EQ(d.TakeTrace(0), Lines{"ND_LIB_SendMsg failed msgType:18, msgLen:64, ret:9"});
    EXPECT_EQ(consumer.subscribingList.count, 3U);
    EXPECT_EQ(Find(NumberedItem(0))->sendCnt, 0U);
    EXPECT_EQ(Find(NumberedItem(0))->nextSendTime, 0U);
    EXPECT_EQ(d.nd->statisticCnt[ND_LIB_STAT_SEND_SUBSCRIBE_DATA], 1U);
    d.Run(1);
    EXPECT_EQ(d.SentOne(NDPI_MSG_SUBSCRIBE_DATA).trans, base + 2);
}

TEST_F(Batch, AFailedSendInTheMiddleIsCarriedOnByTheNextAndRepairedByTime) {
    RequestMany(500);
    world.FailNext(sim::Op::kSend);
    world.Fail({.op = sim::Op::kMsgAlloc, .from = world.Calls(sim::Op::kMsgAlloc) + 2, .count = 1});
    d.Run(1); // stops early, which returns the entries
    EXPECT_TRUE(d.Sent().empty());
    EXPECT_EQ(consumer.subscribeTmpList.count, 0U);
    EXPECT_EQ(consumer.subscribingList.count, 500U);
    world.FailNext(sim::Op::kSend);
    d.Run(1);
    Ndpi second = d.SentOne(NDPI_MSG_SUBSCRIBE_DATA);
    EXPECT_EQ(Find(NumberedItem(0))->sendTransNumber, second.trans); // though it was not in there
    EXPECT_EQ(consumer.waitSubAckList.count, 500U);
    d.Ack(second);
    EXPECT_EQ(consumer.waitSubAckList.count, 499U);
    d.Run(2);
    d.Ack(d.SentOne(NDPI_MSG_SUBSCRIBE_DATA));
    EXPECT_EQ(consumer.subscribeTree.count, 0U);
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
}

TEST_F(Batch, EachControlRequestIsCounted) {
    using Case = std::tuple<uint32_t (*)(ND_LIB_Instance *), uint8_t, uint32_t>;
    for (const auto &[send, type, statistic] :
         {Case{ND_LIB_SendRegisterMsg, 16, 0}, Case{ND_LIB_SendSubscribeBeginMsg, 17, 2},
          Case{ND_LIB_SubscribeEndMsg, 19, 6}, Case{ND_LIB_SendSeqErrorMsg, 29, 13},
          Case{ND_LIB_VerifySendSubBeginMsg, 21, 20}, Case{ND_LIB_VerifySendSubEndMsg, 22, 22}}) {
        const uint32_t before = d.nd->statisticCnt[statistic];
        d.nd->transNumber = 0x12345677;
        EXPECT_EQ(send(d.nd), ND_LIB_OK);
        const Ndpi sent = d.SentOne(type);
        EXPECT_EQ(sent.trans, 0x12345678U);
        EXPECT_TRUE(sent.body.empty());
        EXPECT_EQ(d.nd->statisticCnt[statistic] - before, 1U) << int{type};
    }
}

} // namespace
} // namespace pegeir::tests
