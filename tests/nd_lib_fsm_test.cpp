// The state machine's engine: what each event does in each state, and what is kept and shown of it.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Texts = std::vector<std::string>;
using Numbers = std::vector<uint32_t>;

// A row per state, a column per event, the last of each for numbers beyond; a letter names a handler
// below, a dot drops the event.
const std::pair<std::string, std::string> kMachine[] = {
    {"Init", "r...................."},
    {"Register", ".c..........R..D....."},
    {"Collect subcribe", "............c..D....."},
    {"Subscribe begin", "..u.........b..D....."},
    {"Subscribe data", "...a........u..D....."},
    {"Subscribe end", "....E.......e..D....."},
    {"Wait smooth", ".....B.........D....."},
    {"Wait smooth data", ".....BdF..q....D....."},
    {"Ready", "...a...Fn..at..D...X."},
    {"Sequence error", ".........Q..p..D....."},
    {"Verify collect subscribe", "........n...v..D....."},
    {"Verify subscribe begin", "........n...f..Dw...."},
    {"Verify subscribe data", "...a.......aw..D....."},
    {"Verify subscribe end", "............g..D.G..."},
    {"Verify wait data begin", "...............D..V.."},
    {"Verify wait data", "......d...q....D..VX."},
    {"Fsm max", "....................."},
};

// Each handler: its letter; the next state for each answer below as a hexadecimal digit, - for no
// transition, ~ for none after a paced send; and what can be seen of it: !codes told, ? asked, * given a
// record, types sent, + for an acknowledgement.  What stands behind a bar is sent only when there is
// something to upload.
const std::string kHandlers =
    ",. ---,r 111 16,R ~~~ 16,c 23-?,b ~~~ 17,u 454| 18,a ---,e ~~~ 19,E 666,D 000,B 777!0 +23,d ---*,"
    "F 888!1 +25,n ---* +26,t AB-!2?| 18 20,q 999 29,p ~~~ 29,Q 666,v AB-?,f ~~~ 21,w CDC| 18 20,"
    "g ~~~ 22,G EEE,V FFF +27,X 888!3 +28,";

// The type of the message that raises each event, 0 where there is none.
const Bytes kTypes = {0, 16, 17, 18, 19, 23, 24, 25, 26, 29, 24, 20, 0, 0, 0, 0, 21, 22, 27, 28, 16};

// The consumer's answers when asked for its subscriptions: more, done, neither.
const Numbers kAnswers = {ND_LIB_PACK_MORE, ND_LIB_PACK_DONE, 7};

// Every state and event, and numbers beyond both.
const Numbers kNumbers = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,     10,    11,        12,
                          13, 14, 15, 16, 17, 18, 19, 20, 21, 0x100, 0x10C, UINT32_MAX};

// Raises event in state on a fresh instance: with two requests waiting, the first of them sent before,
// unless the consumer is done, and without a log function when it answers neither.
void Raise(uint32_t state, uint32_t event, size_t answer) {
    sim::World world;
    Driver d(world);
    ND_LIB_ConsumerInfo &consumer = d.nd->consumer;
    const auto &[name, handlers] = kMachine[std::min(state, 16U)];
    const uint32_t column = std::min(event, 20U);
    const bool full = answer != 1;
    if (full) {
        d.Subscribe(NumberedItem(1));
        d.UnSubscribe(NumberedItem(2));
        ND_LIB_DataEntry *sent = store::OfWorkLink(list::First(&consumer.subscribingList));
        sent->sendCnt = 1;
        sent->sendTransNumber = 77;
    }
    d.nd->logFunc = answer == 2 ? nullptr : d.nd->logFunc;
    d.nd->isNeedVerify = 1;
    consumer.compFsmState = state;
    consumer.nextSendCtrlMsgTime = 1;
    consumer.ctrlMsgSendCnt = 9;
    std::string seen;
    d.onPack = [&] { return seen += "?", kAnswers[answer]; };
    d.onEvent = [&](uint32_t code) { return seen += "!" + std::to_string(code), 0U; };
    d.onRecord = [&](const Delivered &) { seen += "*"; };
    sim::Record record;
    record.bytes = Ndpi{.type = kTypes[column], .trans = 77, .body = NumberedItem(1).Record()}.Wire();
    const sim::Message message(world, record);
    const uint64_t calls = world.Calls();
    ND_LIB_FsmStatusHandle(d.nd, event, kTypes[column] == 0 ? nullptr : message.Data());

    const char letter = handlers[column];
    EXPECT_TRUE(letter != '.' || world.Calls() == calls) << "something was sent, traced or allocated";
    const size_t row = kHandlers.find(std::string(",") + letter + " ") + 3;
    const char digit = kHandlers[row + answer];
    std::string expected = kHandlers.substr(row + 3, kHandlers.find(',', row) - row - 3);
    const size_t bar = std::min(expected.find('|'), expected.size());
    expected.erase(bar, full ? 1 : std::string::npos);
    for (const Ndpi &sent : d.Sent()) {
        seen += (sent.IsAck() ? " +" : " ") + std::to_string(sent.type);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(consumer.subscribeTree.count, !full || letter == 'D' ? 0U : letter == 'a' ? 1U : 2U);

    const bool stays = digit == '-' || digit == '~';
    const auto next = stays ? state : static_cast<uint32_t>(std::string("0123456789ABCDEF").find(digit));
    const Numbers paced = digit == '~' ? Numbers{d.nd->secNow + 20, 10} : Numbers{stays, stays * 9U};
    EXPECT_EQ(d.State(), next);
    EXPECT_EQ(Numbers({consumer.nextSendCtrlMsgTime, consumer.ctrlMsgSendCnt}), paced);
    const bool recorded = !stays && (state != 8 || next != 8);
    const auto &[from, to, raised] = consumer.fsmRecord[0];
    EXPECT_EQ(Numbers({consumer.fsmRecordNum, from, to, raised}),
              recorded ? Numbers({1, state, next, event}) : Numbers({0, 16, 16, 20}));
    Texts shown = d.TakeTrace(ND_LIB_BLACKBOX_INFO);
    for (const LogLine &line : d.TakeLog()) {
        shown.push_back(line.level == ND_LIB_LOG_EVENT ? line.text : "");
    }
    std::erase_if(shown, [](const auto &line) { return line.find("FsmStatusHandle") == std::string::npos; });
    const std::string line = "ND_LIB_FsmStatusHandle oldState: " + name +
                             "->newState: " + ND_LIB_GetFsmName(next) +
                             ", event: " + ND_LIB_GetEventName(event);
    EXPECT_EQ(shown, stays ? Texts{} : answer == 2 ? Texts{line} : Texts(2, line));
}

TEST(Fsm, RunsEachEventInEachStateAsTheMachineSays) {
    std::string events;
    for (const uint32_t state : kNumbers) {
        EXPECT_EQ(ND_LIB_GetFsmName(state), kMachine[std::min(state, 16U)].first);
        events += std::string(ND_LIB_GetEventName(state)) + ","; // the numbers serve for both
        for (const uint32_t event : kNumbers) {
            for (size_t answer = 0; answer < kAnswers.size(); ++answer) {
                SCOPED_TRACE(testing::Message() << state << " on " << event << ", answer " << answer);
                Raise(state, event, answer);
            }
        }
    }
    EXPECT_EQ(
        events,
        "Component up,Register ack,Subscribe begin ack,Subscribe data ack,Subscribe end ack,Smooth begin,"
        "Smooth data,Smooth end,Real notify,Sequence error ack,Sequence error,Unsubcribe "
        "ack,Timeout,Flowctrl,"
        "Job,Component down,Verify subscribe begin ack,Verify subscribe end ack,Verify data begin,"
        "Verify data end,Max,Max,Max,Max,Max,");
    EXPECT_EQ(ND_LIB_FsmStateCheck(12, 9, 52), 1U); // the rows of the sequence error stand last
    EXPECT_EQ(ND_LIB_FsmStateCheck(12, 8, 52) + ND_LIB_FsmStateCheck(11, 9, 52), 0U);
    EXPECT_EQ(ND_LIB_FsmStateCheck(12, 9, 53) + ND_LIB_FsmStateCheck(12, 9, UINT32_MAX), 0U);
}

TEST(Fsm, CountsUpToTheLastCodeAndWrapsAround) {
    sim::World world;
    const Driver d(world);
    d.nd->statisticCnt[26] = d.nd->statisticCnt[27] = UINT32_MAX;
    for (const uint32_t code : {27U, 28U, UINT32_MAX}) {
        ND_LIB_Statistic(d.nd, code);
    }
    ND_LIB_Statistic(nullptr, 0);
    EXPECT_EQ(Numbers(d.nd->statisticCnt + 25, d.nd->statisticCnt + 28), Numbers({0, UINT32_MAX, 0}));
    EXPECT_EQ(d.nd->blackBox[ND_LIB_BLACKBOX_ASSERT].bbHandle, nullptr); // next to the counters
    EXPECT_TRUE(world.Assertions().empty());
}

} // namespace
} // namespace pegeir::tests
