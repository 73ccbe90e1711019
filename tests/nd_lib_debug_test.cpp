// The trace boxes and the diagnose reports.

#include <gtest/gtest.h>

#include <sstream>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

using Op = sim::Op;

const std::string kStamp = "1-1 0:0:0:0 "; // the clock stands unless a test moves it
const std::string kTitles[] = {"  FSM blackbox assert:\n", "  FSM blackbox info:\n"};

std::string Text(uint32_t number) {
    return "line " + std::to_string(number) + std::string(number * 7 % 40, '.');
}

std::string Lines(uint32_t first, uint32_t last) {
    std::string lines;
    for (uint32_t number = first; number <= last; ++number) {
        lines += kStamp + Text(number) + "\n";
    }
    return lines;
}

struct Bench {
    ~Bench() {
        d.Deinit();
        EXPECT_EQ(world.Leaks(), "");
        EXPECT_TRUE(world.Violations().empty());
    }
    void Trace(uint32_t first, uint32_t last, uint32_t box = 0) {
        for (uint32_t number = first; number <= last; ++number) {
            ND_LIB_BlackBox(d.nd, box, "%s", Text(number).c_str());
        }
    }
    std::string Page(uint32_t bufferLen, uint32_t expected = ND_LIB_OK, uint32_t restart = 0) {
        std::vector<char> buffer(bufferLen, '#');
        uint32_t length = 0;
        EXPECT_EQ(ND_LIB_GetDiagnoseInfo(d.nd, buffer.data(), bufferLen, &length, restart), expected);
        EXPECT_EQ(buffer.back(), '#'); // never written
        return {buffer.data(), length};
    }
    void StartPass(uint32_t bufferLen) { // up to the first page of box 0
        Page(bufferLen, ND_LIB_OK, 1);
        Page(bufferLen);
        Page(bufferLen);
    }
    void EndPass() {
        for (std::vector<char> page(200000); d.nd->diagnoseType != ND_LIB_DIAG_LOCAL_INFO;) {
            uint32_t length = 0;
            (void)ND_LIB_GetDiagnoseInfo(d.nd, page.data(), 200000, &length, 0);
        }
    }
    // Reads box 0 to its end, calling between behind each page that more follow.
    std::string RestOfBox(
        uint32_t bufferLen, const std::function<void()> &between = [] {}) {
        std::string text;
        for (uint32_t page = 0; d.nd->diagnoseType == ND_LIB_DIAG_BLACKBOX_ASSERT && page < 10000; ++page) {
            text += Page(bufferLen);
            if (d.nd->diagnoseReadLen != 0) {
                between();
            }
        }
        return text;
    }
    std::string Stored() { // lines of box 0, as a pass shows them
        StartPass(200000);
        std::string text = RestOfBox(200000).substr(kTitles[0].size());
        EndPass();
        text.pop_back();
        return text;
    }
    uint32_t Oldest() { return static_cast<uint32_t>(std::stoul(Stored().substr(kStamp.size() + 5))); }
    int32_t Kilobytes() { return GetBlackBoxBufferLen(d.nd->blackBox[0].bbHandle) / 1024; }

    explicit Bench(sim::Liberties liberties = {}) : world({.liberties = liberties}) {}

    sim::World world;
    Driver d{world};
};

class Debug : public testing::Test, protected Bench {};

// How a platform's boxes are read.
struct Reading {
    bool stays; // at their end, once they have been read
    bool cut;   // into short reads
    bool more;  // counted than can be read
    [[nodiscard]] sim::Liberties Taken() const {
        return {.boxesStay = stays, .shortReads = cut, .countedMore = more};
    }
};
const Reading kReadings[] = {{false, false, false}, {false, true, false}, {true, false, false},
                             {true, true, false},   {false, false, true}, {true, true, true}};

std::vector<std::string> Split(const std::string &text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '|');) {
        parts.push_back(part);
    }
    return parts;
}

std::string Fields(size_t indent, size_t width, const std::string &labels, const std::string &values) {
    std::string text;
    for (size_t i = 0; i < Split(labels).size(); ++i) {
        std::string label = Split(labels)[i];
        label.resize(width, ' ');
        text += std::string(indent, ' ') + label + ": " + Split(values).at(i) + "\n";
    }
    return text + "\n";
}

// The first report up to the requests, from the values of its fields.
std::string LocalInfo(const std::string &instanceValues, const std::string &consumerValues) {
    return "  \nND_LIB_Instance:\n" +
           Fields(
               4, 18,
               "ndPid|ndCompState|appPid|memHandle|timerHandle|appLocal|msgMaxLen|verifyCycle|secNow|logFunc|"
               "flowCtrlState|flowCtlStartTime|flowCtlEndTime|flowCnt|transNumber|isNeedVerify|"
               "nextVerifyTime",
               instanceValues) +
           "      ND_LIB_ConsumerInfo:\n" +
           Fields(8, 21,
                  "funcTable|packSubscribeFunc|notifyEventFunc|updataInfoFunc|optionData|nextSendCtrlMsgTime|"
                  "maxKeyLength|maxValueLength|subscribeTree num|subscribingList num|unsubscribingList num|"
                  "waitSubAckList num|subscribeTmpList num|backupTimer|sendSubNum|sendUnSubNum|compFsmState|"
                  "sequenceNum",
                  consumerValues);
}

std::string KeyText(const std::string &type, const std::string &len, const std::string &count) {
    return "      Key entry:\n        key type         : " + type + "\n        key len          : " + len +
           "\n        dataListHead num : " + count + "\n";
}

std::string DataText(const std::string &type, const std::string &len, const std::string &value,
                     const std::string &state, const std::string &kind, const std::string &next) {
    return "      Data entry:\n        Data type       : " + type + "\n         Data len        : " + len +
           "\n" + value + "        state            : " + state + "\n         subscribeState   : " + kind +
           "\n        nextSendTime     : " + next + "\n";
}

TEST_F(Debug, ShowsTheInstanceAndItsRequests) {
    d.Subscribe({1000, {0, 0, 0, 7}, 1, {0, 0, 0, 0xC8, 0, 0, 2, 0x58, 9}});
    d.UnSubscribe({1000, {0, 0, 0, 7}, 0, {1, 2}});
    d.Subscribe({1000, {0, 0, 0, 7}, 2, {1}});
    d.Subscribe({1000, {0, 0, 7}, 1, {0, 0, 0, 1, 0, 0, 0}});
    d.UnSubscribe({999, {0, 0, 0, 7, 5}, 0, {}});
    ND_LIB_DataEntry *first = store::OfDataLink(list::First(&store::FirstKey(d.nd)->dataListHead));
    ND_LIB_ConsumerInfo &consumer = d.nd->consumer;
    uint32_t value = 61;
    for (uint32_t *field :
         {&d.nd->secNow, &d.nd->flowCtrlState, &d.nd->flowCtlStartTime, &d.nd->flowCtlEndTime, &d.nd->flowCnt,
          &d.nd->transNumber, &d.nd->nextVerifyTime, &consumer.nextSendCtrlMsgTime, &consumer.sendSubNum,
          &consumer.sendUnSubNum, &consumer.sequenceNum, &first->state, &first->nextSendTime}) {
        *field = value++;
    }
    d.nd->isNeedVerify = 1;
    consumer.compFsmState = 0x108;      // the name is that of the low byte
    consumer.waitSubAckList.count = 77; // shown, and then put back
    consumer.subscribeTmpList.count = 78;
    ND_LIB_AddOptionData(d.nd, "o", 1);
    Trace(1, 2);
    const std::string null = "        dataValue             : NULL\n";
    const std::string intervals = "        dataValue             : \n        raMininterval           :200 \n"
                                  "        raMaxinterval           :600 \n";
    EXPECT_EQ(
        Page(8192),
        LocalInfo("0x64|Not Available|0xc8|Not Null|Not Null|Not Null|8000|60|61|Not Null|62|63|64|65|66|"
                  "Yes|67",
                  "5|Not Null|Not Null|Not Null|Not Null|68|9|13|3|3|2|77|78|Null|69|70|Ready|71") +
            KeyText("999", "5", "1") + DataText("0", "0", null, "72", "1", "73") + KeyText("1000", "3", "1") +
            DataText("1", "7", null, "0", "0", "0") + KeyText("1000", "4", "3") +
            "        ifindex           : 7\n" + DataText("1", "9", intervals, "0", "0", "0") +
            DataText("0", "2", null, "0", "1", "0") + DataText("2", "1", "", "0", "0", "0") +
            "\n    Blackbox Info: \n      Blackbox assert:     " + std::to_string(Lines(1, 2).size()) +
            "/20480 \n      Blackbox info:     " +
            std::to_string(GetBlackBoxContentLength(d.nd->blackBox[1].bbHandle)) + "/102400 \n\n");
    consumer.waitSubAckList.count = 0;
    consumer.subscribeTmpList.count = 0;
}

TEST_F(Debug, ShowsHistoryAndStatistics) {
    char outside = '#';
    uint32_t position = 0;
    ND_LIB_Printf(&position, &outside, 0, "there is no room");
    EXPECT_EQ(outside, '#');
    Page(4096);
    for (uint8_t i = 0; i < 25; ++i) { // a full history starts anew
        ND_LIB_AddFsmRecord(d.nd, i, static_cast<uint8_t>(i - 20), i < 24 ? i : uint8_t{7});
    }
    const std::string row = "      old state: Fsm max -> new state: ";
    EXPECT_EQ(Page(4096), "    FSM state Info:\n" + row + "Init, event: Max\n" + row +
                              "Register, event: Max\n" + row + "Collect subcribe, event: Max\n" + row +
                              "Subscribe begin, event: Max\n" + row +
                              "Subscribe data, event: Smooth end\n\n");
    std::string expected = "    FSM statistic:\n";
    uint32_t code = 0;
    for (const std::string &name : Split(
             "Send register|Receive register ack|Send subscribe begin|Receive Send subscribe begin|"
             "Send subscribe or verify data|Receive subscribe or verify data ack|Send subscribe end|"
             "Receive subscribe end ack|Receive smooth begin|Send smooth begin ack|Receive smooth end|"
             "Send smooth end ack|Receive smooth or verify data|Send Sequece error|Receive Sequece error ack|"
             "Send ack failed|Receive real notify|Send real notify ack|Send unsubscribe|"
             "Receive unsubscribe ack|Send verify subscribe begin|Receive verify subscribe begin ack|"
             "Send verify subscribe end|Receive verify subscribe end ack|Receive verify data begin|"
             "Send verify data begin ack|Receive verify data end|Send verify data end ack")) {
        d.nd->statisticCnt[code] = 0xFFFFFFFF - code;
        expected += "      " + name + ":  " + std::to_string(0xFFFFFFFF - code++) + "\n";
    }
    EXPECT_EQ(Page(4096), expected + "\n");
}

TEST(DebugUnregistered, ShowsWhatThereIs) {
    sim::World world;
    Driver d(world, false);
    d.nd->ndCompState = 0;
    const std::string report =
        LocalInfo("0x64|availbale|0xc8|Not Null|Not Null|Not Null|8000|60|1000|Not Null|0|0|0|0|0|No|0",
                  "0|Null|Null|Null|Null|0|0|0|0|0|0|0|0|Null|0|0|Init|0") +
        "\n    Blackbox Info: \n      Blackbox assert:     NULL \n      Blackbox info:     NULL \n\n";
    const auto pages = d.Pages();
    EXPECT_EQ(pages, (std::vector<std::string>{report, "    FSM state Info:\n\n", pages.at(2),
                                               kTitles[0] + "\n", kTitles[1] + "\n"}));
    for (size_t page = 0; page < 5; ++page) { // the first three add their length, the boxes set it
        char buffer[4096];
        uint32_t length = 7;
        EXPECT_EQ(ND_LIB_GetDiagnoseInfo(d.nd, buffer, sizeof(buffer), &length, 0), page < 4 ? 0 : 2);
        EXPECT_EQ(length, pages[page].size() + (page < 3 ? 7 : 0));
    }
}

TEST_F(Debug, PagesHoldTheSameTextWhateverTheBuffer) {
    Trace(1, 30);
    Trace(31, 45, 1);
    const auto whole = d.Pages(200000);
    for (const uint32_t size : {20U, 21U, 22U, 23U, 24U, 25U, 26U, 40U, 64U, 255U, 256U, 1000U, 4096U}) {
        SCOPED_TRACE(size);
        const auto pages = d.Pages(size);
        std::string text;
        for (size_t page = 0; page < pages.size(); ++page) {
            text += pages[page];
            EXPECT_TRUE(page >= 3 || pages[page] == whole[page].substr(0, size - 2));
        }
        const std::string titles[] = {kTitles[0].substr(0, size - 2), kTitles[1].substr(0, size - 2)};
        EXPECT_EQ(text, pages[0] + pages[1] + pages[2] + titles[0] + Lines(1, 30) + "\n" + titles[1] +
                            Lines(31, 45) + "\n");
        // Broken off in a box, a pass goes on there when it is started over; the next one shows all again.
        StartPass(size);
        const std::string seen = Page(size).substr(titles[0].size());
        StartPass(size);
        EXPECT_EQ(titles[0] + seen + RestOfBox(size).substr(titles[0].size()),
                  titles[0] + Lines(1, 30) + "\n");
        EndPass();
        EXPECT_EQ(d.Pages(size), pages);
    }
}

// Whether a box that was read to its end begins again is the platform's: if not, each pass shows what is new.
TEST(DebugPass, ShowsEachLineOnceAtLeastHoweverBoxesAreRead) {
    for (const Reading &reading : kReadings) {
        Bench b(reading.Taken());
        b.Trace(1, 20);
        EXPECT_EQ(b.Stored(), Lines(1, 20));
        b.Trace(21, 25);
        EXPECT_EQ(b.Stored(), Lines(reading.stays ? 21 : 1, 25));
        EXPECT_EQ(b.Stored(), reading.stays ? "" : Lines(1, 25));
    }
}

TEST_F(Debug, RefusedCallsChangeNothing) {
    Trace(1, 5);
    StartPass(4096);
    std::string text = Page(60);
    Page(19, ND_LIB_ERR_BUFLEN);
    Page(19, ND_LIB_ERR_BUFLEN, 1);
    char buffer[64];
    uint32_t length = 0;
    EXPECT_EQ(ND_LIB_GetDiagnoseInfo(d.nd, buffer, 19, nullptr, 1), ND_LIB_ERR_BUFLEN);
    EXPECT_TRUE(world.Assertions().empty());
    EXPECT_EQ(ND_LIB_GetDiagnoseInfo(nullptr, buffer, sizeof(buffer), &length, 1), ND_LIB_ERR_DIAG_END);
    EXPECT_EQ(ND_LIB_GetDiagnoseInfo(d.nd, nullptr, sizeof(buffer), &length, 1), ND_LIB_ERR_DIAG_END);
    EXPECT_EQ(ND_LIB_GetDiagnoseInfo(d.nd, buffer, sizeof(buffer), nullptr, 1), ND_LIB_ERR_DIAG_END);
    ASSERT_EQ(world.Assertions().size(), 3U);
    EXPECT_EQ(world.Assertions()[0].source, "nd_lib");
    world.FailNext(Op::kReadBlackBox); // ends the report as if there were no more
    EXPECT_EQ(text + RestOfBox(64), (kTitles[0] + Lines(1, 5)).substr(0, 59) + "\n");
    Page(4096, ND_LIB_ERR_DIAG_END);
    EXPECT_EQ(text.substr(kTitles[0].size()) + Stored(), Lines(1, 5)); // the next pass has the rest
    EXPECT_EQ(Stored(), Lines(1, 5));
}

TEST(DebugGrowth, LosesNothingUnderAPassAlsoWhenItFails) {
    const struct {
        Op op;
        bool grows;    // what finds the position of the pass is tried again
        uint32_t from; // which call of the growth
        uint32_t count;
        std::optional<uint32_t> shorten = std::nullopt;
    } cases[] = {
        {Op::kMalloc, true, 1, 0}, // nothing fails
        {Op::kMalloc, false, 1, 1},         {Op::kCreateBlackBox, false, 1, 1},
        {Op::kWriteBlackBox, false, 1, 1},  {Op::kReadBlackBox, false, 1, 3},
        {Op::kReadBlackBox, true, 1, 2},    {Op::kReadBlackBox, true, 1, 1, 7},
        {Op::kReadBlackBox, false, 3, 3},   {Op::kReadBlackBox, true, 3, 2},
        {Op::kReadBlackBox, true, 3, 1, 1}, {Op::kReadBlackBox, true, 3, 1, 40},
    };
    for (const auto &c : cases) {
        for (const uint32_t size : {0U, 20U, 33U, 60U, 100U}) { // of the pages, 0 for no pass
            for (const bool stays : {false, true}) {
                if ((size == 0 && c.from > 1) || (size != 0 && stays && c.op == Op::kWriteBlackBox)) {
                    continue; // a box without a pass is read once; what is put back has to be written
                }
                SCOPED_TRACE(testing::Message()
                             << sim::Name(c.op) << ' ' << c.from << " x " << c.count << " short "
                             << c.shorten.value_or(0) << ", pages of " << size << (stays ? ", stays" : ""));
                Bench b({.boxesStay = stays});
                b.Trace(1, 3);
                std::string text;
                if (size != 0) {
                    b.StartPass(size);
                    text = b.Page(size);
                }
                const uint64_t from = b.world.Calls(c.op) + c.from;
                b.world.Fail({.op = c.op, .from = from, .count = c.count, .shorten = c.shorten});
                b.Trace(4, 4);
                EXPECT_EQ(b.world.Failures(), c.count);
                const bool grows = size == 0 || !stays;
                EXPECT_EQ(b.Kilobytes(), c.grows && grows ? 40 : 30);
                b.Trace(5, 5);
                // What had to be put back by a write will never be whole again.
                const bool growsAgain = grows && !(stays && c.op == Op::kWriteBlackBox);
                EXPECT_EQ(b.Kilobytes(), !growsAgain ? 30 : c.grows ? 50 : 40);
                uint32_t line = 5;
                if (size != 0) {
                    text += b.RestOfBox(size, [&] {
                        if (line < 15) {
                            ++line;
                            b.Trace(line, line);
                        }
                    });
                    EXPECT_EQ(text, kTitles[0].substr(0, size - 2) + Lines(1, line) + "\n");
                }
                EXPECT_EQ(b.Stored(), grows ? Lines(1, line) : "");
            }
        }
    }
}

TEST(DebugGrowth, NeitherLosesNorGarblesALineHoweverBoxesAreRead) {
    for (const Reading &reading : kReadings) {
        for (const uint32_t size : {0U, 20U, 33U, 60U, 100U}) { // of the pages, 0 for no pass
            SCOPED_TRACE(testing::Message()
                         << reading.stays << reading.cut << reading.more << ", pages of " << size);
            Bench b(reading.Taken());
            uint32_t line = 3;
            b.Trace(1, line);
            if (size != 0) {
                b.StartPass(size);
                const std::string text = b.RestOfBox(size, [&] {
                    if (line < 15) {
                        ++line;
                        b.Trace(line, line);
                    }
                });
                EXPECT_EQ(text, kTitles[0].substr(0, size - 2) + Lines(1, line) + "\n");
                b.EndPass();
            }
            b.Trace(line + 1, line + 12);
            // A box that stays at its end cannot be had whole any more, and stops growing.
            const bool grows = !reading.stays || (size == 0 && !reading.more);
            EXPECT_EQ(b.Kilobytes(), grows ? 100 : reading.more ? 10 : 30);
            const auto held = static_cast<size_t>(GetBlackBoxContentLength(b.d.nd->blackBox[0].bbHandle));
            EXPECT_LE(held, 2 * Lines(1, line + 12).size() + 4 * line); // written at most once more
            const bool again = !reading.stays || size == 0;
            EXPECT_EQ(b.Stored(), Lines(again ? 1 : line + 1, line + 12));
        }
    }
}

TEST(DebugGrowth, PutsTheReaderBackHoweverItFails) {
    for (const Reading &reading : kReadings) {
        for (const uint32_t size : {0U, 40U}) {
            SCOPED_TRACE(testing::Message()
                         << reading.stays << reading.cut << reading.more << ", pages of " << size);
            Bench b(reading.Taken());
            b.Trace(1, 2);
            std::string text = kTitles[0];
            if (size != 0) {
                b.StartPass(size);
                text = b.Page(size);
            }
            for (uint32_t line = 3; line < 12; ++line) { // each time, but the last, for three reads in a row
                const uint64_t from = b.world.Calls(Op::kReadBlackBox) + 2;
                b.world.Fail({.op = Op::kReadBlackBox, .from = from, .count = line < 11 ? 3U : 2U});
                b.Trace(line, line);
                b.world.LiftAll();
            }
            EXPECT_LE(static_cast<size_t>(GetBlackBoxContentLength(b.d.nd->blackBox[0].bbHandle)),
                      2 * Lines(1, 11).size() + 4 * 11);
            if (size == 0) {
                EXPECT_EQ(b.Stored(), Lines(1, 11));
            } else {
                EXPECT_EQ(text + b.RestOfBox(4096), kTitles[0] + Lines(1, 11) + "\n");
            }
        }
    }
    Bench b({.shortReads = true});
    for (uint32_t line = 1; line < 12; ++line) {
        for (uint64_t read = 1; read < 600; read += 3) { // two of three fail, never three in a row
            b.world.Fail(
                {.op = Op::kReadBlackBox, .from = b.world.Calls(Op::kReadBlackBox) + read, .count = 2});
        }
        b.Trace(line, line);
        b.world.LiftAll();
    }
    EXPECT_EQ(b.Kilobytes(), 100);
    EXPECT_EQ(b.Stored(), Lines(1, 11));
}

TEST_F(Debug, CallsWithoutABoxAreAnswered) {
    va_list none = {};
    const char *const volatile noFormat = nullptr;
    uint32_t count = 0;
    ND_LIB_ReadBlackBox(d.nd, 2, nullptr, 0, &count);
    EXPECT_EQ(ND_LIB_WriteBlackBoxEx(2, d.nd, "x", none), 0);
    EXPECT_EQ(ND_LIB_WriteBlackBox(nullptr, "x", none), -1);
    EXPECT_EQ(ND_LIB_CheckBlackBoxNeedExpand(nullptr) + ND_LIB_CheckBlackBoxNeedExpand(d.nd->blackBox), 0U);
    ND_LIB_ExpandBlackBox(nullptr, d.nd);
    ND_LIB_ExpandBlackBox(d.nd->blackBox, d.nd);
    EXPECT_EQ(d.nd->blackBox[0].bbHandle, nullptr);
    Trace(1, 1);
    EXPECT_EQ(ND_LIB_WriteBlackBox(d.nd->blackBox[0].bbHandle, noFormat, none), -1);
    ND_LIB_ReadBlackBox(d.nd, 0, nullptr, 1, &count); // no room
    ND_LIB_Printf(&count, nullptr, 0, "no page");
    EXPECT_EQ(count, 0U);
}

TEST_F(Debug, ForgetsTheOldestLinesUnderAPass) {
    Trace(1, 5000);
    const uint32_t first = Oldest();
    EXPECT_GT(first, 2000U);
    StartPass(4096); // what it has read goes, nothing that it has before it
    uint32_t last = 5000;
    std::string text = RestOfBox(4096, [&] {
        if (last < 5400) {
            Trace(last + 1, last + 20);
            last += 20;
        }
    });
    EXPECT_EQ(text, kTitles[0] + Lines(first, last) + "\n");
    const uint32_t stopped = Oldest();
    StartPass(60);
    text = Page(60); // ends inside a line, which is still shown whole when it goes
    Trace(last + 1, last + 1000);
    text += RestOfBox(4096);
    EXPECT_GT(Oldest(), stopped + 900);
    EXPECT_EQ(text, kTitles[0] + Lines(stopped, stopped) + Lines(Oldest(), last + 1000) + "\n");
}

TEST_F(Debug, StampsLinesWithLocalTimeAndItsDistance) {
    const struct {
        SysTime gmt;
        int32_t minutesEast;
        std::string stamp;
    } cases[] = {
        {{2024, 12, 31, 23, 59, 58, 0, 999}, 0, "12-31 23:59:58:999 "},
        {{2024, 3, 15, 10, 5, 6, 0, 7}, 480, "3-15 18:5:6:7-08:00 "},
        {{2024, 3, 15, 20, 5, 6, 0, 70}, -480, "3-15 12:5:6:70-08:00 "},
        {{2024, 3, 1, 20, 0, 0, 0, 0}, 480, "3-2 4:0:0:0-08:00 "},
        {{2024, 3, 2, 2, 0, 0, 0, 0}, -480, "3-1 18:0:0:0-08:00 "},
        {{2024, 3, 1, 10, 0, 0, 0, 0}, 330, "3-1 15:30:0:0-05:30 "},
        {{2024, 3, 1, 0, 0, 0, 0, 0}, 610, "3-1 10:10:0:0-10:10 "},
        {{2024, 3, 1, 0, 0, 0, 0, 0}, -1, "2-29 23:59:0:0-23:59 "}, // the days count as numbers, which
        {{2024, 1, 31, 20, 0, 0, 0, 0}, 480, "2-1 4:0:0:0-16:00 "}, // is odd at the end of a month
    };
    std::string expected;
    char zone[8];
    for (const auto &c : cases) {
        world.SetGmt(c.gmt);
        world.SetZone(c.minutesEast);
        Trace(1, 1);
        expected += c.stamp + Text(1) + "\n";
        SysTime local{};
        uint32_t flag = 1;
        EXPECT_EQ(ZEP_Gmt2LocalTime(&c.gmt, &local, &flag), 0U);
        EXPECT_EQ(ND_LIB_GetTimeZone(c.gmt, local, zone, sizeof(zone)), 0U);
        EXPECT_EQ(c.stamp.find(zone) == std::string::npos, c.minutesEast == 0);
    }
    world.FailNext(Op::kGmtToLocal); // GMT is better than nothing
    Trace(1, 1);
    world.FailNext(Op::kGmtGet); // without any time there is no line
    Trace(2, 2);
    EXPECT_EQ(Stored(), expected + "1-31 20:0:0:0 " + Text(1) + "\n");
    EXPECT_EQ(ND_LIB_GetTimeZone({}, {}, zone, 0), 1U);
    EXPECT_EQ(ND_LIB_GetTimeZone({}, {0, 0, 0, 0, 59, 59, 0, 0}, zone, sizeof(zone)), 0U);
    EXPECT_STREQ(zone, "-00:59");
}

TEST_F(Debug, CutsLongLinesAndDropsThoseWithoutABox) {
    world.FailNext(Op::kCreateBlackBox, 2);
    Trace(1, 3); // tried again at each line
    EXPECT_EQ(Kilobytes(), 10);
    ND_LIB_BlackBox(nullptr, 0, "nobody's");
    ND_LIB_BlackBox(d.nd, 2, "no such box");
    d.nd->blackBox[0].maxSize = 10; // or a larger box would take its place
    static_cast<BlackBoxHead *>(d.nd->blackBox[0].bbHandle)->usable = 0;
    Trace(4, 4);
    static_cast<BlackBoxHead *>(d.nd->blackBox[0].bbHandle)->usable = 1;
    std::string expected = Lines(3, 3);
    const size_t room = 254 - kStamp.size();
    for (const size_t length : {size_t{0}, room - 1, room, room + 1, size_t{300}, size_t{5000}}) {
        ND_LIB_BlackBox(d.nd, 0, "%s", std::string(length, 'x').c_str());
        expected += kStamp + std::string(std::min(length, room), 'x') + "\n";
    }
    EXPECT_EQ(Stored(), expected);
}

} // namespace
} // namespace pegeir::tests
