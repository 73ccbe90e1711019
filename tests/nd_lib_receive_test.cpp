// What arrives and what is said of it: the rules of each message type, and hostile lengths.  What records
// settle and move is the business of the model.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Lines = std::vector<std::string>;

enum class Kind { kControlAck, kDataAck, kBegin, kData, kEnd, kUpdate };

struct Rule {
    uint8_t type;
    Kind kind;
    const char *name; // in the handler's own lines; empty for none
};

const Rule kRules[] = {
    {16, Kind::kControlAck, ""},
    {17, Kind::kControlAck, "RecvSubscribeBeginAck"},
    {18, Kind::kDataAck, ""},
    {19, Kind::kControlAck, "RecvSubscribeEndAck"},
    {20, Kind::kDataAck, ""},
    {21, Kind::kControlAck, "RecvVerifySubBeginAck"},
    {22, Kind::kControlAck, "RecvVerifySubEndAck"},
    {23, Kind::kBegin, "RecvSmoothBegin"},
    {24, Kind::kData, "RecvSmoothData"},
    {25, Kind::kEnd, "RecvSmoothEnd"},
    {26, Kind::kUpdate, "RecvRealUpdate"},
    {27, Kind::kBegin, "RecvVerifyBegin"},
    {28, Kind::kEnd, "RecvVerifyEnd"},
    {29, Kind::kControlAck, "RecvSeqErrorAck"},
};

// A message that says that it is length bytes long.
Bytes Saying(uint8_t length, const Ndpi &message) {
    Bytes bytes = message.Wire();
    bytes[1] = length;
    return bytes;
}

// An instance in a state that has no row for any message, so that only the receive handlers act.
class Receive : public testing::Test {
protected:
    Receive() {
        d.Up();
        (void)d.Sent();
        d.nd->consumer.compFsmState = ND_LIB_FSM_INIT;
        d.nd->transNumber = 7;
        d.nd->consumer.sequenceNum = 100;
        Look();
    }

    // What the log at level and box 0 got since the last look.
    void Look() {
        log = d.TakeLog();
        box = d.TakeTrace(0);
    }

    uint32_t Take(const Bytes &bytes, uint32_t subIntf = NDPI_MSG_SUB_INTF) {
        const uint32_t ret = d.ReceiveBytes(bytes, subIntf);
        Look();
        return ret;
    }
    uint32_t Take(const Ndpi &message) { return Take(message.Wire()); }

    void ExpectRefused(const Ndpi &message, const Lines &lines) {
        EXPECT_EQ(Take(message), ND_LIB_ERR_MSG);
        EXPECT_EQ(box, lines);
        const auto refusal = [](const LogLine &one, const auto &line) { return one == LogLine{0, line}; };
        EXPECT_TRUE(std::equal(log.begin(), log.end(), lines.begin(), lines.end(), refusal));
    }

    sim::World world;
    Driver d{world};
    std::vector<LogLine> log;
    Lines box;
};

TEST_F(Receive, EachTypeByItsRule) {
    for (const Rule &rule : kRules) {
        SCOPED_TRACE(int{rule.type});
        const bool isAck = rule.kind == Kind::kControlAck || rule.kind == Kind::kDataAck;
        const uint8_t flags = isAck ? 0x85 : 0x05;
        const Ndpi good{.type = rule.type, .trans = 7, .seq = 100, .body = {0}, .flags = flags};
        Ndpi bad = good;
        bad.flags = static_cast<uint8_t>(bad.flags ^ 0x80);
        const std::string name = rule.name;
        Lines refusal = {isAck ? "RecvAckCheck not ack msg" : name + " ack msg"};
        if (isAck && !name.empty()) {
            refusal.push_back(name + " not ack msg");
        }
        ExpectRefused(bad, refusal);

        bad = good;
        bad.trans = 6;
        if (rule.kind == Kind::kControlAck) {
            refusal[0] = "RecvAckCheck transnumber not equal, input trans: 6, local trans:7";
            ExpectRefused(bad, refusal);
            d.Silently([&] { EXPECT_EQ(Take(bad), ND_LIB_ERR_MSG); });
        } else {
            EXPECT_EQ(Take(bad), ND_LIB_OK); // other numbers are no matter of this test
            d.nd->consumer.sequenceNum = 100;
        }
        EXPECT_EQ(Take(good), ND_LIB_OK);
        EXPECT_TRUE(box.empty());
        d.nd->consumer.sequenceNum = 100;

        bad = good;
        bad.seq = 103;
        if (rule.kind == Kind::kData || rule.kind == Kind::kEnd) {
            EXPECT_EQ(Take(bad), ND_LIB_ERR_SEQUENCE);
            const std::string text =
                (rule.type == 25 ? "ND_LIB_" : "") + name + ", sequence error local seq:100, msg seq:103";
            EXPECT_EQ(box, Lines{text});
            EXPECT_EQ(log.back(), (LogLine{rule.kind == Kind::kData ? 3U : 2U, text}));
        } else {
            EXPECT_EQ(Take(bad), ND_LIB_OK);
        }

        bad = good;
        bad.body = {};
        if (rule.kind == Kind::kData || rule.kind == Kind::kUpdate) {
            EXPECT_EQ(Take(bad), ND_LIB_ERR_MSG);
            EXPECT_EQ(box, Lines{name + ", msgLen smaller than ndpi header len:16"});
            EXPECT_TRUE(rule.kind == Kind::kUpdate ||
                        log == (std::vector<LogLine>{{2, "RecvSmoothData, msgLen:16"}}));
        } else {
            EXPECT_EQ(Take(bad), ND_LIB_OK);
        }
    }
    for (const uint8_t type : Bytes{0, 15, 30, 255}) { // a type of a later protocol
        EXPECT_EQ(Take({.type = type, .trans = 7, .seq = 100, .body = {1}}), ND_LIB_OK);
        EXPECT_TRUE(log.empty() && box.empty());
    }
}

TEST_F(Receive, WhatIsNoWholeNdpiMessage) {
    // With what is written to box 0 behind the function's name, and whether it is logged as well.
    using Case = std::tuple<Bytes, uint32_t, uint32_t, uint32_t, Lines, size_t>;
    const Ndpi begin{.type = NDPI_MSG_SMOOTH_BEGIN};
    const Case cases[] = {
        {begin.Wire(), 163, 1, ND_LIB_ERR_MSG, {"not ndpi msg"}, 0},
        {{}, 0, 0, ND_LIB_ERR_MSG, {"not ndpi msg"}, 0},
        {begin.Wire(), 164, 1, ND_LIB_ERR, {"nd component not avaliable"}, 1},
        {{1}, 164, 1, ND_LIB_ERR, {"nd component not avaliable"}, 1},
        {begin.Wire(), 164, 2, ND_LIB_OK, {}, 0}, // 1 alone refuses
        {{}, 164, 0, ND_LIB_ERR_MSG, {"msg smaller than ndpi header len:0"}, 1},
        {Bytes(15, 23), 164, 0, ND_LIB_ERR_MSG, {"msg smaller than ndpi header len:15"}, 1},
        {Saying(17, begin), 164, 0, ND_LIB_ERR_MSG, {"msgLen:17 larger than delivered len:16"}, 1},
        {Saying(17, {.type = 30}), 164, 0, ND_LIB_OK, {}, 0}, // what is unknown, whatever it says
        {begin.Wire(), 164, 0, ND_LIB_OK, {}, 0},
        {Saying(0, begin), 164, 0, ND_LIB_OK, {}, 0}, // left to the tests of its type
    };
    for (const auto &[bytes, subIntf, ndCompState, ret, lines, logged] : cases) {
        d.nd->ndCompState = ndCompState;
        EXPECT_EQ(Take(bytes, subIntf), ret);
        EXPECT_EQ(box, lines.empty() ? Lines{} : Lines{"ND_LIB_MsgRecv " + lines[0]});
        EXPECT_EQ(log.size(), logged);
        const auto function = std::exchange(d.nd->logFunc, nullptr);
        EXPECT_EQ(Take(bytes, subIntf), ret); // the box has it all the same
        EXPECT_EQ(box.size(), lines.size());
        d.nd->logFunc = function;
    }
    const sim::Message cut(world, {.bytes = Bytes(15, 0)});
    d.Silently([&] { EXPECT_EQ(ND_LIB_SendAckMsg(cut.Data(), d.nd), ND_LIB_ERR); });
    EXPECT_EQ(ND_LIB_SendAckMsg(cut.Data(), d.nd), ND_LIB_ERR);
    Look();
    EXPECT_EQ(box, Lines(2, "LIB_SendAckMsg msg smaller than ndpi header len:15"));
    const sim::Message half(world, {.bytes = Saying(18, begin)}); // as if its rest were zeros
    EXPECT_EQ(ND_LIB_SendAckMsg(half.Data(), d.nd), ND_LIB_OK);
    EXPECT_EQ(d.SentOne(NDPI_MSG_SMOOTH_BEGIN).body, Bytes(2, 0));
    world.FailNext(sim::Op::kSend);
    d.Silently([&] { EXPECT_EQ(ND_LIB_SendAckMsg(half.Data(), d.nd), ND_LIB_ERR); });
}

TEST_F(Receive, AHeaderThatPromisesLessThanItselfWalksNothing) {
    // The body of such a message would be nearly 64 KiB long if its length wrapped around.
    d.nd->consumer.compFsmState = ND_LIB_FSM_READY;
    const Ndpi ack{.type = NDPI_MSG_SUBSCRIBE_DATA, .body = Tlv(18, Bytes(8, 0)), .flags = 0x80};
    d.Silently([&] { EXPECT_EQ(Take(Saying(15, ack)), ND_LIB_OK); });
    EXPECT_EQ(box, Lines{"ProcSubAndUnsubAck msgLen len error :15"});
    EXPECT_EQ(Take(Saying(15, ack)), ND_LIB_OK);
    EXPECT_EQ(log.back(), (LogLine{0, "ProcSubAndUnsubAck msgLen len error :15"}));
    EXPECT_EQ(Take(Saying(16, ack)), ND_LIB_OK);
    EXPECT_TRUE(box.empty());
    EXPECT_EQ(log, (std::vector<LogLine>{{3, "ProcSubAndUnsubAck msgType=18, msgLen=16"}}));
    // Neither is it acknowledged, since an acknowledgement would be no message either.
    d.nd->consumer.compFsmState = ND_LIB_FSM_WAIT_SMOOTH;
    const Bytes begin = Saying(15, {.type = NDPI_MSG_SMOOTH_BEGIN, .seq = 3});
    d.Silently([&] { EXPECT_EQ(Take(begin), ND_LIB_OK); });
    EXPECT_EQ(Take(begin), ND_LIB_OK);
    EXPECT_TRUE(world.TakeSent().empty());
    EXPECT_EQ(box, Lines{"LIB_SendAckMsg msgLen smaller than ndpi header len:15"});
    // Called past the tests, the handlers still walk nothing.
    Bytes data = Ndpi{.type = NDPI_MSG_SMOOTH_DATA}.Wire();
    for (data[1] = 0; data[1] < 16; ++data[1]) {
        EXPECT_EQ(ND_LIB_ProcSmoothData(d.nd, data.data()), ND_LIB_FSM_MAX);
    }
    EXPECT_TRUE(d.records.empty());
}

TEST_F(Receive, AFailedAcknowledgementIsReported) {
    for (const auto &[op, inBox] : {std::pair(sim::Op::kMsgAlloc, true), {sim::Op::kSend, false}}) {
        d.nd->consumer.compFsmState = ND_LIB_FSM_WAIT_SMOOTH;
        world.Fail({.op = op, .from = world.Calls(op) + 1, .count = 1, .code = 42});
        EXPECT_EQ(Take(Ndpi{.type = NDPI_MSG_SMOOTH_BEGIN}), ND_LIB_OK);
        EXPECT_EQ(d.State(), ND_LIB_FSM_WAIT_SMOOTH_DATA); // the message is served
        EXPECT_EQ(box, inBox ? Lines{"LIB_SendAckMsg alloc fail"} : Lines{});
        EXPECT_TRUE(inBox || log[0] == (LogLine{0, "LIB_SendAckMsg send failed ret: 42"}));
    }
}

TEST_F(Receive, AcknowledgedRecordsAreReportedOneByOne) {
    d.nd->consumer.compFsmState = ND_LIB_FSM_READY;
    (void)d.TakeTrace(1);
    const Bytes whole = Item{1, {1, 2, 3}, 6, {}}.Record();
    Take(Ndpi{.type = 20, .trans = 1, .body = Join({Tlv(18, {1}), whole, {0, 18, 0}}), .flags = 0x80});
    const Lines lines = {"ProcSubAndUnsubAck msgType=20, msgLen=39",
                         "ProcSubAndUnsubAck tlvType=18, tlvLen=1",
                         "ProcSubAndUnsubAck tlvType=18, tlvLen=11"};
    EXPECT_EQ(d.TakeTrace(1), lines);
    EXPECT_EQ(log, (std::vector<LogLine>{{3, lines[0]}, {0, lines[1]}, {0, lines[2]}}));
    EXPECT_EQ(ND_LIB_ParseSubAndUnsubData(d.nd, whole.data(), 18, 1), ND_LIB_OK);
    for (uint32_t len = 0; len + 4 < whole.size(); ++len) {
        Bytes cut(whole.data(), whole.data() + 4 + len); // exactly as long as it says
        cut[3] = static_cast<uint8_t>(len);
        EXPECT_EQ(ND_LIB_ParseSubAndUnsubData(d.nd, cut.data(), 18, 1), ND_LIB_ERR_MSG) << len;
    }
    EXPECT_EQ(ND_LIB_ParseSubAndUnsubData(d.nd, Tlv(18, Bytes(8, 0)).data(), 18, 1), ND_LIB_OK); // no key
    EXPECT_EQ(ND_LIB_ParseSubAndUnsubData(d.nd, nullptr, 18, 1), ND_LIB_ERR_MSG);
}

TEST(DataRecord, IsHandedOverWithItsHeadInHostOrderAtAnyAlignment) {
    sim::World world;
    Driver d(world, false);
    for (size_t shift = 0; shift < 4; ++shift) {
        Bytes bytes = Join({Bytes(shift, 0), Tlv(0x1234, {7, 8})});
        EXPECT_EQ(ND_LIB_ParseUpdateData(d.nd, bytes.data() + shift), ND_LIB_OK); // nobody to hand it to
        const uint16_t head[2] = {0x1234, 2};
        EXPECT_EQ(memcmp(head, bytes.data() + shift, 4), 0);
    }
    EXPECT_EQ(d.TakeLog().back(), (LogLine{2, "ParseUpdateData tlvType:4660, tlvLen:2"}));
    EXPECT_EQ(d.TakeTrace(1).back(), "ParseUpdateData tlvType:4660, tlvLen:2");
    d.Register();
    Bytes bytes = Tlv(3, {4});
    EXPECT_EQ(ND_LIB_ParseUpdateData(d.nd, bytes.data()), 77U); // the consumer's own answer
    EXPECT_EQ(d.records, (std::vector<Delivered>{{3, {4}}}));
}

} // namespace
} // namespace pegeir::tests
