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

    sim::World world;
    Driver d{world};
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
    std::vector<ND_LIB_KeyEntry *> keys;
    for (ND_LIB_KeyEntry *key = store::FirstKey(d.nd); key != nullptr; key = store::NextKey(d.nd, key)) {
        keys.push_back(key);
    }
    ASSERT_EQ(keys.size(), 4U);
    const uint32_t answers[] = {ND_LIB_KEY_CMP_LESS, ND_LIB_KEY_CMP_EQUAL, ND_LIB_KEY_CMP_GREATER};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(Bytes(keys[i]->keyValue, keys[i]->keyValue + keys[i]->keyLen), ascending[i].key);
        for (size_t j = 0; j < 4; ++j) {
            EXPECT_EQ(ND_LIB_Key_RB_KeyCmp(keys[i], keys[j]), answers[1 + (i < j) - (i > j)]);
        }
    }
    ND_LIB_DataEntry *entry = store::OfDataLink(list::First(&keys[0]->dataListHead));
    ND_LIB_KeyEntry twin = *keys[0];
    KAL_RBT_Tree *tree = &d.nd->consumer.subscribeTree;
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
    ND_LIB_UpdateDataEntry(entry, nullptr, d.nd);
    ND_LIB_FreeDataNode(nullptr);
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
    EXPECT_EQ(ND_LIB_BuildSubscribeMsg(nullptr, entry) + ND_LIB_BuildSubscribeMsg(bytes, nullptr), 0);
    EXPECT_EQ(ND_LIB_GetNextTlv(nullptr, 16, bytes, 1, 0), nullptr);
    EXPECT_EQ(ND_LIB_GetNextTlv(bytes, 16, nullptr, 1, 0), nullptr);
}

TEST_F(Store, ReportsWhatIsSentAndWhatFails) {
    d.BecomeReady();
    d.Subscribe(NumberedItem(7));
    (void)d.TakeTrace(0);
    world.FailNext(sim::Op::kMsgAlloc);
    d.Run(1);
    EXPECT_EQ(d.TakeTrace(0), Lines{"ND_LIB_AllocMsg alloc fail"});
    world.Fail({.op = sim::Op::kSend, .from = world.Calls(sim::Op::kSend) + 1, .count = 1, .code = 42});
    d.Run(1);
    const std::string refused = "ND_LIB_SendMsg failed msgType:18, msgLen:32, ret:42";
    EXPECT_EQ(d.TakeTrace(0), Lines{refused});
    EXPECT_EQ(d.TakeLog().back(), (LogLine{0, refused}));
    d.Run(1);
    EXPECT_EQ(d.TakeLog(), (std::vector<LogLine>{{2, "ND_LIB_SendMsg msgType:18, msgLen:32"},
                                                 {2, "send sub key: 1000, len: 4, data type:1, len:0"}}));
    world.FailNext(sim::Op::kMsgAlloc);
    EXPECT_EQ(ND_LIB_SendSeqErrorMsg(d.nd), ND_LIB_ERR);
    (void)d.TakeTrace(0);
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
