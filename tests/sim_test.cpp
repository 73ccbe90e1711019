// The sim platform keeps what sim.hpp promises to whoever tests on it.

#include <pegeir/pegeir.h>
#include <pegeir/sim.hpp>

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

// The example in the head of sim.hpp.
bool RegistrationIsRepeated(const ND_LIB_FrameRegister &frame, const ND_LIB_ConsumerRegister &consumer);

namespace pegeir::sim {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kTimerParams[] = {1, 120, 500};

std::vector<std::uint32_t> expired;
std::uint32_t NoteExpiry(std::uint32_t timerId, std::uint32_t, void *, void *) {
    expired.push_back(timerId);
    return 0;
}

std::uint32_t Send(std::uint32_t from, std::uint32_t to, const Bytes &bytes) {
    const auto length = static_cast<std::uint32_t>(bytes.size());
    void *message = ZEP_MsgFlowCtrlAlloc_F(from, to, length + 2, "test", 1);
    memcpy_s(message, length, bytes.data(), length);
    return ZEP_SEND_MSG(to, 6, 932, message, length);
}

TEST(SimFaults, RulesHitExactlyTheCallsTheyName) {
    // Eight calls 100 ms apart, memory and clock in turn; F is a failure.
    const struct {
        Fault fault;
        const char *expected;
    } rows[] = {
        {{}, "FFFFFFFF"},
        {{.from = 3, .count = 2}, "..FF...."},
        {{.op = Op::kGmtGet, .from = 2}, "...F.F.F"},
        {{.op = Op::kMalloc, .from = 1, .count = 3}, "F.F.F..."},
        {{.fromMs = 200, .untilMs = 400}, "..FF...."},
        {{.op = Op::kMalloc, .from = 2, .lastingMs = 300}, "..F.F..."},
    };
    for (const auto &row : rows) {
        World world;
        world.Fail(row.fault);
        std::string seen;
        for (int call = 0; call < 8; ++call) {
            SysTime gmt;
            const bool failed = call % 2 == 0 ? ZEP_Malloc_F(1, 7, 1, "test", 1) == nullptr
                                              : ZEP_GMT_SystimeGet(&gmt) == row.fault.code;
            seen += failed ? 'F' : '.';
            world.Advance(100);
        }
        EXPECT_EQ(seen, row.expected);
        EXPECT_TRUE(world.Calls() == 8 && world.Calls(Op::kGmtGet) == 4);
    }
}

TEST(SimAccounts, MisuseIsWrittenDownAndDoesNothing) {
    World world;
    void *freed = ZEP_Malloc_F(5, 7, 8, "a", 1);
    ZEP_Free_F(freed, "a", 2);
    void *block = ZEP_Malloc_F(5, 7, 8, "a", 3);
    void *message = ZEP_MsgFlowCtrlAlloc_F(1, 2, 8, "a", 4);
    int local = 0;
    const Message received(world, {.sender = 3, .bytes = {1}});
    const std::uint32_t lib = APPTMR_CreateLib2(8, NoteExpiry, 5);
    APPTMR_CreateInstance(lib, kTimerParams, 500, 1);
    const struct {
        std::function<void()> misuse;
        const char *told;
    } rows[] = {
        {[&] { ZEP_Free_F(freed, "b", 1); }, "b:1 frees memory that was freed before at a:2"},
        {[&] { ZEP_Free_F(&local, "b", 2); }, "that is no block"},
        {[&] { ZEP_Free_F(message, "b", 3); }, "that is a message"},
        {[&] { DestroyBlackBox(block); }, "that is no box"},
        {[&] { DMS_MsgFree(9, message); }, "DMS_MsgFree by 9 of a message of 1 from a:4"},
        {[&] { DMS_MsgFree(3, received.Data()); }, "DMS_MsgFree"},
        {[&] { EXPECT_NE(ZEP_SEND_MSG(2, 6, 932, received.Data(), 1), 0U); }, "received message"},
        {[&] { EXPECT_NE(ZEP_SEND_MSG(2, 6, 932, message, 9), 0U); }, "9 bytes of a message of 8 bytes"},
        {[&] { EXPECT_EQ(ZEP_MsgFlowCtrlAlloc_F(1, 2, 65536, "b", 6), nullptr); }, "65536 bytes"},
        {[&] { EXPECT_EQ(APPTMR_CreateInstance(77, kTimerParams, 500, 1), 0U); }, "unknown library"},
        {[&] { APPTMR_DeleteLib(lib); }, "still has an instance"},
    };
    for (const auto &row : rows) {
        row.misuse();
        ASSERT_EQ(world.Violations().size(), 1U) << row.told;
        EXPECT_NE(world.Violations()[0].find(row.told), std::string::npos) << world.Violations()[0];
        world.ClearViolations();
    }
    EXPECT_EQ(world.Leaks(), "memory of a:3: 1 with 8 bytes\n");
    EXPECT_THROW(World second, std::logic_error);
}

TEST(SimBus, DeliversInOrderOfArrival) {
    World world({.mostAtOnce = 1000});
    std::string story;
    const auto note = [&](void *data) {
        story += std::to_string(DMS_MsgSendCidGet(data)) + ':' + std::to_string(DMS_MsgDataLenGet(data)) +
                 '@' + std::to_string(world.Uptime()) + ' ';
    };
    world.Attach(2, [&](void *data) {
        note(data);
        if (DMS_MsgDataLenGet(data) == 1) {
            Send(2, 3, {1, 2}); // an answer from inside the handler
            world.Detach(2);
        }
    });
    world.Attach(3, note);
    world.Post({.sender = 7, .receiver = 2, .bytes = {1, 2, 3}}, 50);
    world.Post({.sender = 8, .receiver = 2, .bytes = {1}}, 50);
    Send(1, 2, {});
    EXPECT_EQ(story, ""); // never delivered from inside the send
    world.Run(49);
    world.Post({.sender = 9, .receiver = 2, .bytes = {9}}, 1);
    world.Run(10);
    EXPECT_EQ(story, "1:0@0 7:3@50 8:1@50 2:2@50 ");
    EXPECT_EQ(world.TakeSent().at(0).sender, 9U); // it came too late for process 2
    world.Attach(3, [](void *) { Send(3, 3, {1}); });
    Send(1, 3, {1});
    EXPECT_THROW(world.Run(1), std::runtime_error); // messages that answer each other for ever
#ifdef __SANITIZE_ADDRESS__
    const Message exact(world, {.bytes = {1, 2, 3}});
    EXPECT_DEATH(static_cast<volatile char *>(exact.Data())[3], "heap-buffer-overflow");
#endif
}

TEST(SimTimers, ExpireAsMessagesUntilTheyAreDeleted) {
    World world;
    expired.clear();
    const std::uint32_t lib = APPTMR_CreateLib2(8, NoteExpiry, 5);
    const std::uint32_t other = APPTMR_CreateLib2(9, NoteExpiry, 5);
    const std::uint32_t instance = APPTMR_CreateInstance(lib, kTimerParams, 500, 1);
    const std::uint32_t fast = APPTMR_CreatePeriodTimer(instance, 400, 0, &world, 2);
    const std::uint32_t slow = APPTMR_CreatePeriodTimer(instance, 1000, 0, nullptr, 2);
    EXPECT_EQ(APPTMR_GetTimerParam(instance, fast), &world);
    EXPECT_EQ(APPTMR_GetTimerParam(other, fast), nullptr);
    world.AttachTimers(8, [&](void *message) {
        expired.push_back(static_cast<std::uint32_t>(world.Uptime()));
        EXPECT_EQ(DMS_MsgRecvIidGet(message), kTimerIid);
        EXPECT_NE(APPTMR_LibRcvMsg(other, message, 0, nullptr), 0U);
        EXPECT_EQ(APPTMR_LibRcvMsg(lib, message, 0, nullptr), 0U);
    });
    world.Run(1200);
    EXPECT_EQ(expired, (std::vector<std::uint32_t>{400, fast, 800, fast, 1000, slow, 1200, fast}));

    world.Advance(900); // messages of 1600, 2000 (twice) are under way
    EXPECT_EQ(APPTMR_DeleteTimer(instance, fast), 0U);
    EXPECT_NE(APPTMR_DeleteTimer(instance, fast), 0U);
    EXPECT_EQ(APPTMR_GetTimerParam(instance, fast), nullptr);
    world.DetachTimers(8);
    const std::vector<Record> underWay = world.TakeExpiries();
    ASSERT_EQ(underWay.size(), 3U);
    expired.clear();
    for (const Record &record : underWay) {
        EXPECT_EQ(APPTMR_LibRcvMsg(lib, Message(world, record).Data(), 0, nullptr), 0U);
    }
    EXPECT_EQ(expired, std::vector<std::uint32_t>{slow});
    APPTMR_DeleteInstance(instance);
    APPTMR_DeleteLib(lib);
    APPTMR_DeleteLib(other);
    world.Run(5000);
    EXPECT_TRUE(world.Leaks().empty() && world.TakeExpiries().empty() && world.Violations().empty());
}

// One that takes no liberty would try nothing.
TEST(SimLiberties, AreTaken) {
    const Liberties all = {.anyAnswers = true,
                           .noZeroCounts = true,
                           .oddMessages = true,
                           .otherTree = true,
                           .sameHandles = true,
                           .boxesStay = true,
                           .shortReads = true,
                           .noBytes = Liberties::NoBytes::kShared,
                           .fullBox = Liberties::FullBox::kRefuses,
                           .expiriesAtWill = true,
                           .clockAtWill = true};
    World world({.liberties = all});
    void *nothing = ZEP_Malloc_F(1, 7, 0, "a", 1);
    EXPECT_EQ(ZEP_Malloc_F(1, 7, 0, "a", 1), nothing);
    ZEP_Free_F(nothing, "a", 2);
    EXPECT_NE(world.Leaks(), "");
    ZEP_Free_F(nothing, "a", 3);
    EXPECT_EQ(world.Leaks(), "");
    EXPECT_NE(memset_s(&nothing, 1, 0, 0), 0);
    EXPECT_EQ(world.Violations().size(), 1U);

    const Message odd(world, {.bytes = {1, 2, 3}});
    const auto *data = static_cast<std::uint8_t *>(odd.Data());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data) % 2, 1U);
    const std::uint8_t behind = data[3];
    std::set<std::uint8_t> seen;
    for (int call = 0; call < 100; ++call) {
        EXPECT_NE(DMS_MsgRecvIidGet(odd.Data()), kTimerIid);
        seen.insert(data[3]);
    }
    EXPECT_GT(seen.size(), 10U) << behind;

    const std::uint32_t lib = APPTMR_CreateLib2(8, NoteExpiry, 5);
    const std::uint32_t instance = APPTMR_CreateInstance(lib, kTimerParams, 500, 1);
    EXPECT_EQ(instance, lib);
    std::uint32_t timer = APPTMR_CreatePeriodTimer(instance, 1000, 0, &world, 2);
    std::set<std::uint32_t> clock;
    expired.clear();
    world.AttachTimers(8, [&](void *message) { APPTMR_LibRcvMsg(lib, message, 0, nullptr); });
    std::set<std::uint64_t> times;
    for (std::uint32_t second = 0; second < 100; ++second) {
        world.Run(1000);
        std::uint32_t now = 0;
        std::uint32_t unused = 0;
        KAL_SecondNow(&now, &unused);
        clock.insert(now - world.Seconds());
        times.insert(expired.size() - second);
    }
    EXPECT_GT(clock.size(), 5U);
    EXPECT_GT(expired.size(), 102U); // some of them twice
    EXPECT_GT(times.size(), 5U);     // and not each second one
    EXPECT_EQ(APPTMR_DeleteTimer(instance, timer), 0U);
    EXPECT_EQ(APPTMR_CreatePeriodTimer(instance, 1000, 0, &world, 2), timer);

    void *box = CreateBlackBox(300, 1);
    std::uint32_t written = 0;
    for (; GetBlackBoxContentLength(box) == static_cast<std::int32_t>(written); written += 100) {
        (void)WriteBlackBox(box, std::string(100, 'x').data(), 100);
    }
    EXPECT_EQ(written, 400U); // of which the last was refused
    char buffer[300];
    std::int32_t reads = 0;
    for (std::int32_t left = 300; left > 0; ++reads) {
        left -= ReadBlockFromBlackBox(box, buffer, sizeof buffer);
    }
    EXPECT_GT(reads, 1);
    EXPECT_EQ(ReadBlockFromBlackBox(box, buffer, sizeof buffer), 0);
    EXPECT_EQ(ReadBlockFromBlackBox(box, buffer, sizeof buffer), 0); // it stays there
    DestroyBlackBox(box);

    std::set<bool> picked[2]; // each liberty is picked and left out by some seed
    for (std::uint64_t seed = 1; seed < 30; ++seed) {
        picked[0].insert(Liberties::Of(seed).clockAtWill);
        picked[1].insert(Liberties::Of(seed, false).clockAtWill);
    }
    EXPECT_TRUE(picked[0].size() == 2 && picked[1].size() == 1);
}

// The tree that is another one is a tree all the same.
TEST(SimLiberties, AnotherTreeHoldsWhatItIsGiven) {
    struct Entry {
        KAL_RBT_Node links;
        std::uint32_t key;
    };
    World world({.liberties = {.otherTree = true}});
    KAL_RBT_Tree tree = {&tree.sentinel, {nullptr, {nullptr, nullptr}, KAL_RBT_BLACK}, 0, 0};
    std::vector<Entry> entries(200);
    std::set<std::uint32_t> held;
    const auto keyOf = [](const KAL_RBT_Node *node) { return reinterpret_cast<const Entry *>(node)->key; };
    for (std::uint32_t step = 0; step < 2000; ++step) {
        const std::uint32_t key = step * 7919 % 200;
        Entry &entry = entries[key];
        if (held.erase(key) != 0) {
            KAL_RBT_RemoveNode(&tree, &entry.links);
        } else {
            KAL_RBT_Node *parent = &tree.sentinel;
            KAL_RBT_Node **link = &tree.root;
            while (*link != &tree.sentinel) {
                parent = *link;
                link = &parent->child[keyOf(parent) > key ? 1 : 0];
            }
            entry = {{parent, {&tree.sentinel, &tree.sentinel}, KAL_RBT_RED}, key};
            *link = &entry.links;
            held.insert(key);
            KAL_RBT_InsertNodeFixup(&tree, &entry.links);
        }
        std::multiset<std::uint32_t> found;
        for (KAL_RBT_Node *node = KAL_RBT_FirstNode(&tree); node != nullptr;
             node = KAL_RBT_NextNode(&tree, node)) {
            found.insert(keyOf(node));
        }
        ASSERT_TRUE(std::equal(found.begin(), found.end(), held.begin(), held.end()));
        ASSERT_EQ(tree.count, held.size());
    }
}

std::uint32_t LogNothing(ND_LIB_Instance *, std::uint32_t, const char *, ...) {
    return 0;
}

TEST(SimExample, DoesWhatItSays) {
    const ND_LIB_FrameRegister frame = {11, 12, 13, 14, 15, LogNothing, 0, 0};
    const ND_LIB_ConsumerRegister consumer = {
        1, [](ND_LIB_Instance *, void *) { return 0U; },
        [](ND_LIB_Instance *, std::uint32_t, std::uint32_t) { return 0U; },
        [](ND_LIB_Instance *, const ND_LIB_TlvHead *) { return 0U; }};
    EXPECT_TRUE(RegistrationIsRepeated(frame, consumer));
}

} // namespace
} // namespace pegeir::sim
