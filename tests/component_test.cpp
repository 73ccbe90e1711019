/*
 * The component as its consumers see it: a scripted consumer plays the protocol against the server, and
 * a test is a few lines of what it sends and what it gets.
 *
 * What the consumer gets is written as text: "16+" is the acknowledgement of type 16, "23#5" a begin
 * with sequence number 5, "24#5[0r1 1r1]" a data message with revision 1 of the items 0 and 1, "x" in
 * place of a revision says deleted.
 */
#include "protocol/server.h"
#include "sources/kernel_source.h"
#include "sources/ra_source.h"
#include "sources/synthetic_source.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pegeir/linux.h>
#include <pegeir/nd_data.h>
#include <poll.h>
#include <random>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace pegeir::component;

constexpr Topic kSynthetic = {ND_DATA_KEY_SYNTHETIC, ND_DATA_SYNTHETIC};
constexpr uint32_t kAll = 0xFFFFFFFF;
constexpr uint32_t kConsumer = 7;

Bytes Record(const Item &item) {
    Bytes record;
    Writer writer(record);
    writer.Head(18, 8 + item.key.size());
    writer.U16(item.topic.keyType);
    writer.U16(static_cast<uint16_t>(item.key.size()));
    writer.Append(Bytes(item.key.begin(), item.key.end()));
    writer.U16(item.topic.dataType);
    writer.U16(0);
    return record;
}

Bytes Items(std::initializer_list<uint32_t> indexes) {
    Bytes body;
    for (const uint32_t index : indexes) {
        const Bytes record = Record(ItemOf(kSynthetic, index));
        body.insert(body.end(), record.begin(), record.end());
    }
    return body;
}

class Rig : public Transport {
public:
    explicit Rig(uint32_t items, Limits limits = {})
        : source(items, ND_DATA_SYNTHETIC_LEN, [this](const RecordId &id) { server.OnChange(id); }),
          server(
              *this, catalog, [this] { return now; },
              [this](Severity severity, uint32_t consumer, const std::string &text) {
                  if (severity <= Severity::kWarning) {
                      reports += Text(consumer, ": ", text, "\n");
                  }
              },
              limits) {
        catalog.Add(source);
    }

    SendResult Send(uint32_t consumer, ByteView bytes) override {
        if (gone) {
            return SendResult::kGone;
        }
        if (room == 0) {
            return SendResult::kFull;
        }
        --room;
        got.emplace_back(consumer, Bytes(bytes.begin(), bytes.end()));
        return SendResult::kSent;
    }
    bool WhenWritable(uint32_t) override {
        asked = true;
        return !gone;
    }

    void Ask(unsigned type, const Bytes &body = {}, uint8_t flags = 0, uint32_t number = 0) {
        Bytes message(kHeaderLen);
        message.insert(message.end(), body.begin(), body.end());
        number = number != 0 ? number : ++lastNumber;
        requests.emplace(type, number);
        WriteHeader(message, static_cast<MsgType>(type), flags, number, 0);
        server.OnMessage(kConsumer, message);
    }

    /* Acknowledges the newest message of a type. */
    void Ack(unsigned type) { Ask(type, {}, kAckFlag, newest[type]); }

    void Wait(unsigned seconds) {
        for (unsigned tick = 0; tick < 4 * seconds; ++tick) {
            now += 250;
            server.OnTick();
        }
    }

    /* What has arrived since the last call. */
    std::string Got() {
        std::string all;
        for (const auto &[consumer, bytes] : std::exchange(got, {})) {
            std::string wrong;
            const auto message = ReadMessage(bytes, wrong);
            EXPECT_TRUE(message) << wrong;
            EXPECT_LE(bytes.size(), kMaxMessageLen);
            const unsigned type = static_cast<unsigned>(message->type);
            all += Text(all.empty() ? "" : " ", type);
            if (message->ack) {
                EXPECT_TRUE(requests.contains({type, message->transNumber})) << "the number of a request";
                all += '+';
                continue;
            }
            newest[type] = message->transNumber;
            all += type == 26 ? "" : Text('#', message->sequenceNum);
            all += Records(message->body);
        }
        return all;
    }

    /* Registers, uploads and downloads; the first download begins at number 1. */
    void BecomeReady(std::initializer_list<uint32_t> items) {
        Ask(16);
        Ask(17);
        Ask(18, Items(items));
        Ask(19);
        (void)Got();
        Ack(23);
        (void)Got();
        Ack(25);
        EXPECT_EQ(Got(), "");
    }

    size_t room = SIZE_MAX;
    bool gone = false;
    bool asked = false;
    uint64_t now = 1000;
    uint32_t lastNumber = 0;
    std::set<std::pair<unsigned, uint32_t>> requests;
    uint32_t newest[30] = {};
    std::string reports;
    std::vector<std::pair<uint32_t, Bytes>> got;
    Catalog catalog;
    SyntheticSource source;
    Server server;

private:
    static std::string Records(ByteView body) {
        std::string all;
        for (Reader reader(body); !reader.AtEnd() && reader.Ok();) {
            const unsigned type = reader.U16();
            EXPECT_EQ(type, unsigned{ND_DATA_TLV_SYNTHETIC});
            Reader value(reader.Take(reader.U16()));
            const bool set = value.U8() == ND_DATA_SET;
            (void)value.Take(3);
            const uint32_t index = value.U32();
            all += Text(all.empty() ? "" : " ", index, set ? Text('r', value.U32()) : "x");
        }
        return all.empty() ? "" : Text('[', all, ']');
    }
};

TEST(Server, LeadsAConsumerFromItsRegistrationToUpdates) {
    Rig rig(3);
    rig.Ask(16);
    EXPECT_EQ(rig.Got(), "16+");
    rig.Ask(17);
    rig.Ask(17); /* the acknowledgement may have been lost */
    rig.got.erase(rig.got.begin());
    EXPECT_EQ(rig.Got(), "17+");
    rig.Ask(18, Items({0, 2, 99}));
    const Bytes upload = rig.got.at(0).second;
    EXPECT_EQ(Bytes(upload.begin() + 16, upload.end()), Items({0, 2, 99})) << "echoed byte for byte";
    EXPECT_EQ(rig.Got(), "18+");
    rig.Ask(19);
    EXPECT_EQ(rig.Got(), "19+ 23#1");
    rig.Ack(23);
    EXPECT_EQ(rig.got.at(0).second, (Bytes{0, 48,  0, 24, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, /* header */
                                           0, 103, 0, 12, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                                           0, 103, 0, 12, 1, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1}));
    EXPECT_EQ(rig.Got(), "24#1[0r1 2r1] 25#2");
    rig.Ack(25);
    rig.source.Change(3); /* the items 1, 2 and 0 */
    EXPECT_EQ(rig.Got(), "26[2r2]");
    rig.source.Change(3);
    EXPECT_EQ(rig.Got(), "") << "one update at a time";
    rig.Ack(26);
    EXPECT_EQ(rig.Got(), "26[0r3 2r3]") << "what waited is sent once, as it is now";
    rig.Ack(26);
    rig.source.Resize(1);
    EXPECT_EQ(rig.Got(), "26[2x]");
    rig.Ask(16);
    EXPECT_EQ(rig.Got(), "16+");
    rig.source.Change(1);
    rig.Wait(5);
    EXPECT_EQ(rig.Got(), "") << "a new registration has no subscriptions";
    EXPECT_EQ(rig.reports, "");
}

TEST(Server, RepeatsWhatIsNotAcknowledged) {
    Rig rig(1);
    rig.Ask(16);
    rig.Ask(18, Items({0}));
    rig.Ask(19);
    (void)rig.Got();
    rig.Wait(2);
    EXPECT_EQ(rig.Got(), "23#1 23#1");
    rig.Ask(19);
    EXPECT_EQ(rig.Got(), "19+ 23#1")
        << "the consumer has dropped the begin: it waits for the acknowledgement";
    rig.Ask(23, {}, kAckFlag, 4711);
    EXPECT_EQ(rig.Got(), "") << "an acknowledgement of something else";
    rig.Ack(23);
    rig.Ask(19);
    EXPECT_EQ(rig.Got(), "24#1[0r1] 25#2 19+") << "no restart once the begin was acknowledged";
    rig.source.Change(1);
    rig.Wait(3);
    EXPECT_EQ(rig.Got(), "25#2 25#2 25#2") << "no update before the end";
    rig.Wait(70);
    std::string got = rig.Got();
    EXPECT_EQ(std::count(got.begin(), got.end(), '#'), 56) << "60 sends in all, then it is taken as received";
    EXPECT_NE(got.find("26[0r2] 26[0r2]"), std::string::npos);
    rig.Ack(26);
    rig.Wait(9);
    EXPECT_EQ(rig.Got(), "");
}

TEST(Server, DownloadsAsFastAsTheTransportTakesItAndLosesNothing) {
    constexpr uint32_t kItems = 5000; /* 499 records of 16 bytes to a message: 11 messages */
    Rig rig(kItems, {.messageBurst = 2});
    rig.Ask(16);
    rig.Ask(18, Items({kAll, 3}));
    rig.room = 2;
    rig.Ask(19);
    rig.got.clear();
    rig.newest[23] = 1;
    rig.Ack(23);
    rig.source.Change(kItems - 1); /* every item but 0, all unsent */
    EXPECT_EQ(rig.Got(), "");
    std::string all;
    for (int round = 0; round < 100 && std::exchange(rig.asked, false); ++round) {
        rig.room = round % 2 == 0 ? 1 : 5; /* full after one message, or others' turn after two */
        rig.server.OnWritable(kConsumer);
        all += rig.Got() + ' ';
    }
    std::string expected;
    for (uint32_t index = 0; index < kItems; ++index) {
        expected += index % 499 == 0 ? Text(index == 0 ? "24#" : "] 24#", 1 + index / 499, '[') : " ";
        expected += Text(index, index < 499 ? "r1" : "r2"); /* the first message had been built */
    }
    EXPECT_EQ(all, expected + "] 25#12 ");
    rig.room = SIZE_MAX;
    rig.Ack(25);
    EXPECT_EQ(rig.Got().substr(0, 14), "26[1r2 2r2 3r2") << "what changed during the download follows";
}

TEST(Server, ServesNewSubscriptionsOfAReadyConsumerAtOnce) {
    Rig rig(4);
    rig.BecomeReady({0});
    rig.Ask(18, Items({1, 2}));
    EXPECT_EQ(rig.Got(), "18+ 26[1r1 2r1]");
    rig.Ack(26);
    rig.Ask(18, Items({2}));
    EXPECT_EQ(rig.Got(), "18+") << "a repetition brings nothing new";
    rig.Ask(20, Items({1, 3}));
    rig.source.Change(1);
    EXPECT_EQ(rig.Got(), "20+") << "item 1 is given up";
    rig.source.Change(3); /* the items 2, 3 and 0 */
    rig.Ask(20, Items({0}));
    EXPECT_EQ(rig.Got(), "26[2r2] 20+");
    rig.Ack(26);
    EXPECT_EQ(rig.Got(), "") << "given up while its change waited";
    rig.Ask(18, Items({kAll}));
    EXPECT_EQ(rig.Got(), "18+ 26[0r2 1r2 2r2 3r2]");
}

TEST(Server, TakesAReadyConsumersRequestForTheLostAcknowledgementOfTheEnd) {
    for (const unsigned type : {18U, 20U, 21U}) {
        Rig rig(1);
        rig.Ask(16);
        rig.Ask(18, Items({0}));
        rig.Ask(19);
        (void)rig.Got();
        rig.Ack(23);
        (void)rig.Got();
        rig.Ask(type, type == 21 ? Bytes{} : Items({5}));
        rig.Wait(3);
        EXPECT_EQ(rig.Got(), Text(type, '+')) << "the end is not repeated";
    }
}

TEST(Server, VerifiesSubscriptionsAndHoldsUpdatesBackMeanwhile) {
    Rig rig(4);
    rig.BecomeReady({0, 1, 2});
    rig.source.Change(4); /* the items 1, 2, 3 and 0 */
    EXPECT_EQ(rig.Got(), "26[1r2]") << "the others wait when the pass begins";
    rig.Ask(21);
    rig.source.Change(1);
    rig.Wait(3);
    EXPECT_EQ(rig.Got(), "21+");
    rig.Ask(18, Items({1, 3}));
    rig.Ask(20, Items({0}));
    (void)rig.Got();
    rig.Ask(22);
    EXPECT_EQ(rig.Got(), "22+ 27#3");
    rig.Ask(22);
    EXPECT_EQ(rig.Got(), "22+ 27#3");
    rig.Ack(27);
    EXPECT_EQ(rig.Got(), "24#3[1r3 3r2] 28#4") << "item 2 was not confirmed";
    rig.Ask(22);
    EXPECT_EQ(rig.Got(), "22+");
    rig.source.Change(2); /* the items 2 and 3 */
    rig.Wait(1);
    EXPECT_EQ(rig.Got(), "28#4");
    rig.Ack(28);
    EXPECT_EQ(rig.Got(), "26[3r3]") << "what was in the download does not come again";
    rig.Ack(26);
    EXPECT_EQ(rig.Got(), "");
}

TEST(Server, AnswersASequenceErrorWithAFreshSmoothDownload) {
    Rig rig(1000);
    rig.Ask(16);
    rig.Ask(18, Items({kAll}));
    rig.Ask(19);
    (void)rig.Got();
    rig.room = 1;
    rig.Ack(23);
    EXPECT_EQ(rig.Got().substr(0, 8), "24#1[0r1");
    rig.Ask(29);
    rig.room = SIZE_MAX;
    rig.server.OnWritable(kConsumer);
    EXPECT_EQ(rig.Got(), "29+ 23#4") << "what the transport had not taken yet is gone";
    rig.Ask(29);
    EXPECT_EQ(rig.Got(), "29+ 23#5");
    rig.Ask(21);
    rig.Ask(18, Items({4}));
    rig.Ask(22);
    rig.Ask(29);
    rig.got.erase(rig.got.begin(), rig.got.end() - 2);
    EXPECT_EQ(rig.Got(), "29+ 23#7") << "also out of a verification";
    rig.Ack(23);
    EXPECT_EQ(rig.Got(), "24#7[4r1] 25#8");
}

TEST(Server, DropsAndReportsWhatIsNoMessageForIt) {
    const Bytes goodItem = Record(ItemOf(kSynthetic, 0));
    struct {
        unsigned type;
        uint8_t flags;
        Bytes body;
        const char *report;
    } const cases[] = {
        {15, 0, {}, "no message has type 15"},
        {30, 0, {}, "no message has type 30"},
        {16, kAckFlag, {}, "acknowledgement of type 16"},
        {23, 0, {}, "request of type 23"},
        {24, kAckFlag, {}, "acknowledgement of type 24"},
        {18, 0, {0}, "record 1 is malformed"},
        {18, 0, Bytes(goodItem.begin(), goodItem.end() - 1), "record 1 is malformed"},
        {20, 0, {0, 18, 0, 7, 0, 1, 0, 0, 0, 0, 0}, "record 1 is malformed"},
        {18, 0, {0, 19, 0, 8, 0, 1, 0, 0, 0, 0, 0, 0}, "record 1 is malformed"},    /* another element */
        {18, 0, {0, 18, 0, 8, 0, 1, 0, 1, 0, 0, 0, 0}, "record 1 is malformed"},    /* the key too long */
        {18, 0, {0, 18, 0, 9, 0, 1, 0, 0, 0, 0, 0, 0, 9}, "record 1 is malformed"}, /* a byte too many */
    };
    Rig rig(1);
    rig.BecomeReady({});
    uint64_t dropped = 0;
    for (const auto &testCase : cases) {
        rig.reports.clear();
        rig.Ask(testCase.type, testCase.body, testCase.flags);
        EXPECT_NE(rig.reports.find(testCase.report), std::string::npos)
            << testCase.report << ": " << rig.reports;
        EXPECT_EQ(rig.server.DroppedCount(), ++dropped) << testCase.report;
    }
    for (const Bytes &bytes : {Bytes{}, Bytes(15), Bytes{0, 17, 0, 16, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0},
                               Bytes{0, 15, 0, 16, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}) {
        rig.server.OnMessage(kConsumer, bytes);
        EXPECT_EQ(rig.server.DroppedCount(), ++dropped);
    }
    rig.server.OnMessage(8, Bytes{0, 16, 0, 17, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_NE(rig.reports.find("8: message dropped: type 17 from a consumer that has not"),
              std::string::npos);
    EXPECT_EQ(rig.Got(), "") << "nothing of that is answered";
}

TEST(Server, SurvivesRandomMessagesAndKeepsOthersServed) {
    std::mt19937 random(20240501);
    const auto pick = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    Rig rig(50, {.messageBurst = 2});
    for (int round = 0; round < 20000; ++round) {
        Bytes message(kHeaderLen);
        for (uint32_t count = pick(4); count > 0; --count) {
            const Bytes record = Record(ItemOf({static_cast<uint16_t>(1999 + pick(2)), 3}, pick(60)));
            message.insert(message.end(), record.begin(), record.end());
        }
        const uint32_t type = 16 + pick(14);
        const bool ours = type >= 23 && type <= 28;
        WriteHeader(message, static_cast<MsgType>(type), ours ? kAckFlag : 0, 1 + pick(64), 0);
        if (pick(4) == 0) {
            message[pick(static_cast<uint32_t>(message.size()))] = static_cast<uint8_t>(random());
            message.resize(message.size() - pick(3));
        }
        rig.room = pick(3);
        rig.server.OnMessage(pick(5), message);
        rig.server.OnWritable(pick(5));
        rig.source.Resize(40 + pick(20));
        rig.source.Change(pick(3));
        rig.now += pick(400);
        rig.server.OnTick();
    }
    EXPECT_GT(rig.server.DroppedCount(), 100U);
    rig.room = SIZE_MAX;
    rig.Wait(1);
    rig.got.clear();
    rig.source.Resize(1);
    rig.BecomeReady({0});
    rig.Wait(1);
    rig.got.clear();
    rig.source.Change(1);
    EXPECT_EQ(rig.Got().substr(0, 4), "26[0");
}

TEST(Server, ForgetsWhoIsGoneAndBoundsWhatItKeeps) {
    Rig rig(4, {.subscriptions = 2, .waitingChanges = 1, .waitingAckBytes = 100});
    rig.BecomeReady({0, 1, 2});
    EXPECT_NE(rig.reports.find("limit at 2 items"), std::string::npos);
    rig.room = 0;
    for (int i = 0; i < 20; ++i) {
        rig.Ask(20);
    }
    rig.room = SIZE_MAX;
    rig.server.OnWritable(kConsumer);
    EXPECT_EQ(rig.got.size(), 6U) << "acknowledgements of 16 bytes in 100 bytes";
    EXPECT_NE(rig.reports.find("given up"), std::string::npos);
    rig.source.Change(4); /* one under way, the other waits */
    EXPECT_EQ(rig.server.ConsumerCount(), 1U);
    rig.source.Change(4);
    EXPECT_EQ(rig.server.ConsumerCount(), 0U) << rig.reports;

    rig.BecomeReady({});
    rig.gone = true;
    rig.Wait(30);
    rig.gone = false;
    rig.Wait(12);
    rig.gone = true;
    rig.Wait(25);
    EXPECT_EQ(rig.server.ConsumerCount(), 1U) << "it was back in between";
    rig.Wait(25);
    EXPECT_EQ(rig.server.ConsumerCount(), 0U) << "a silent consumer is looked for";
}

/* ---- Router-advertisement intervals ---------------------------------------------------------- */

TEST(RadvdConfig, ReadsIntervalsAndPassesOverTheRest) {
    const char *text =
        "# a comment with { and ;\n"
        "interface eth0 # and here\n{\n AdvSendAdvert on; MinRtrAdvInterval 20 ;\n"
        " MaxRtrAdvInterval 60;\n"
        " prefix 2001:db8::/64 { AdvOnLink on; nested { a; { b; }; }; };\n"
        " RDNSS 2001:db8::1 2001:db8::2 { AdvRDNSSLifetime 30; };\n clients { fe80::1; fe80::2; };\n};\n"
        "interface defaults{};interface max4 { MaxRtrAdvInterval 4; };\n"
        "interface max8 { MaxRtrAdvInterval 8; }; interface max9 { MaxRtrAdvInterval 9; };\n"
        "interface max1800 { MaxRtrAdvInterval 1800; MinRtrAdvInterval 1350; };";
    const RaConfig expected = {{"eth0", {20, 60}}, {"defaults", {198, 600}}, {"max4", {3, 4}},
                               {"max8", {6, 8}},   {"max9", {3, 9}},         {"max1800", {1350, 1800}}};
    const auto parsed = ParseRadvdConfig(text);
    ASSERT_TRUE(std::holds_alternative<RaConfig>(parsed)) << std::get<ConfigError>(parsed).message;
    EXPECT_EQ(std::get<RaConfig>(parsed), expected);
    EXPECT_EQ(std::get<RaConfig>(ParseRadvdConfig("")), RaConfig{});
}

TEST(RadvdConfig, SaysWhatIsWrongAndWhere) {
    struct {
        const char *text;
        unsigned line;
        const char *message;
    } const cases[] = {
        {"\n# x\ninterfaces eth0 {};", 3, "expected 'interface', found 'interfaces'"},
        {"interface {};", 1, "expected the name of an interface, found '{'"},
        {"interface sixteen-letters0 {};", 1, "name of an interface"},
        {"interface eth0\n\n;", 3, "expected '{'"},
        {"interface a {};\ninterface a {};", 2, "a second time"},
        {"interface a {\n AdvSendAdvert on;\n", 3, "interface a of line 1 is not closed"},
        {"interface a {}\ninterface b {};", 2, "expected ';' behind the '}' of interface a"},
        {"interface a {\n AdvSendAdvert on\n};", 3, "expected ';' behind 'AdvSendAdvert' of line 2"},
        {"interface a {\n prefix ::/64 {\n x;\n", 2, "this '{' is never closed"},
        {"interface a {\n prefix ::/64 { }\n};", 3, "expected ';' behind the '}' of prefix"},
        {"interface a {\n ;\n};", 2, "expected an option"},
        {"interface a { MaxRtrAdvInterval\n ten; };", 2, "whole number of seconds, found 'ten'"},
        {"interface a { MaxRtrAdvInterval 99999999999; };", 1, "whole number"},
        {"interface a { MaxRtrAdvInterval 10.5; };", 1, "whole number"},
        {"interface a { MinRtrAdvInterval 10 s; };", 1, "expected ';'"},
        {"interface a { maxrtradvinterval 10; };", 1, "it is written MaxRtrAdvInterval"},
        {"interface a {\n MaxRtrAdvInterval 3;\n};", 2, "MaxRtrAdvInterval is 3, it must be from 4 to 1800"},
        {"interface a {\n MaxRtrAdvInterval 1801;\n};", 2, "is 1801"},
        {"interface a {\n MinRtrAdvInterval 2;\n};", 2, "MinRtrAdvInterval is 2, it must be from 3 to 450"},
        {"interface a {\n MaxRtrAdvInterval 10;\n MinRtrAdvInterval 8;\n};", 3, "from 3 to 7"},
        {"\x7f\x45LF\x01\x02{{{;;;", 1, "found '?ELF"},
    };
    for (const auto &testCase : cases) {
        const auto parsed = ParseRadvdConfig(testCase.text);
        const auto *error = std::get_if<ConfigError>(&parsed);
        ASSERT_NE(error, nullptr) << testCase.text;
        EXPECT_EQ(error->line, testCase.line) << testCase.text << ": " << error->message;
        EXPECT_NE(error->message.find(testCase.message), std::string::npos) << error->message;
    }
}

class TempDirectory {
public:
    TempDirectory() {
        char name[] = "/tmp/pegeir-component-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDirectory() { std::filesystem::remove_all(path); }
    void Write(const char *name, const std::string &text) const { std::ofstream(path / name) << text; }
    std::filesystem::path path;
};

TEST(RaSource, FollowsTheFileAndTheInterfaces) {
    const TempDirectory temp;
    const std::filesystem::path file = temp.path / "sub" / "radvd.conf";
    std::string changes;
    std::string reports;
    RaSource *self = nullptr;
    const auto onChange = [&](const RecordId &id) {
        Bytes record;
        Writer writer(record);
        self->Encode(id, writer);
        changes +=
            Text(id.index, record.at(4) == ND_DATA_SET ? Text('=', unsigned{record.at(19)}) : "x", ' ');
    };
    RaSource source(file, onChange, [&](Severity, const std::string &text) { reports = text; });
    self = &source;
    const auto changed = [&] {
        pollfd readable = {source.Fd(), POLLIN, 0};
        (void)poll(&readable, 1, 0);
        source.OnReadable();
        source.OnTick();
        return std::exchange(changes, "");
    };
    EXPECT_NE(reports.find("No such file"), std::string::npos) << reports;
    source.SetLinks({{1, "lo"}, {2, "eth0"}, {3, "eth1"}});
    std::filesystem::create_directory(temp.path / "sub");
    temp.Write("sub/radvd.conf", "interface eth0 { MaxRtrAdvInterval 20; };");
    EXPECT_EQ(changed(), "2=20 ");
    temp.Write("sub/new",
               "interface eth0 { MaxRtrAdvInterval 30; }; interface eth1 { MaxRtrAdvInterval 40; };");
    EXPECT_EQ(changed(), "") << "another file";
    std::filesystem::rename(temp.path / "sub/new", file);
    EXPECT_EQ(changed(), "2=30 3=40 ");
    temp.Write("sub/radvd.conf", "interface eth0 {\n MaxRtrAdvInterval x;\n};");
    EXPECT_EQ(changed(), "");
    EXPECT_NE(reports.find("radvd.conf:2: MaxRtrAdvInterval needs"), std::string::npos) << reports;
    std::filesystem::remove(file);
    EXPECT_EQ(changed(), "");
    EXPECT_NE(reports.find("the last good configuration stays in force"), std::string::npos) << reports;
    source.SetLinks({{2, "lan"}, {3, "eth0"}, {4, "eth1"}});
    EXPECT_EQ(std::exchange(changes, ""), "3=30 4=40 2x ");
    temp.Write("real", "interface lan { MaxRtrAdvInterval 50; };");
    std::filesystem::create_symlink(temp.path / "real", file);
    EXPECT_EQ(changed(), "2=50 3x 4x ");
    std::filesystem::rename(temp.path / "sub", temp.path / "old");
    std::filesystem::create_directory(temp.path / "sub");
    temp.Write("sub/radvd.conf", "interface eth0 { MaxRtrAdvInterval 60; };");
    EXPECT_EQ(changed(), "3=60 2x ") << "the directory was replaced";
    temp.Write("sub/radvd.conf", "interface eth0 { MaxRtrAdvInterval 70; };");
    EXPECT_EQ(changed(), "3=70 ");
}

/* ---- The kernel ------------------------------------------------------------------------------ */

TEST(KernelSource, FollowsInterfacesAndNeighboursOfANetworkNamespace) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        GTEST_SKIP() << "no network namespace may be made here: " << std::strerror(errno);
    }
    const auto run = [](const std::string &command) {
        return std::system((command + " 2>/dev/null").c_str());
    };
    if (run("ip link add veth0 type veth peer name veth1") != 0) {
        GTEST_SKIP() << "no veth pair can be made here";
    }
    std::set<RecordId> changes;
    int renamed = 0;
    KernelSource source([&](const RecordId &id) { changes.insert(id); }, [&] { ++renamed; },
                        [](Severity, const std::string &) {});
    std::string error;
    ASSERT_TRUE(source.Open(error, 8192)) << error;
    const auto settle = [&] {
        changes.clear();
        pollfd readable = {source.Fd(), POLLIN, 0};
        while (poll(&readable, 1, 200) > 0) {
            source.OnReadable();
        }
        source.OnTick();
    };
    const auto encoded = [&](const RecordId &id) {
        Bytes bytes;
        Writer writer(bytes);
        source.Encode(id, writer);
        return bytes;
    };
    EXPECT_EQ(source.LinkNames().size(), 3U);
    uint32_t veth = 0;
    for (const auto &[index, name] : source.LinkNames()) {
        veth = name == "veth0" ? index : veth;
    }
    const RecordId link = {{ND_DATA_KEY_INTERFACE, ND_DATA_LINK}, veth, {}};
    RecordId neighbour = {{ND_DATA_KEY_INTERFACE, ND_DATA_NEIGHBOUR}, veth, {}};
    inet_pton(AF_INET6, "fe80::1234", neighbour.address.data());

    run("ip link set veth1 up; ip link set veth0 mtu 1400 address 02:00:00:00:00:01 up");
    run("ip -6 neigh add fe80::1234 lladdr 02:00:00:00:00:02 dev veth0 router");
    settle();
    EXPECT_TRUE(changes.contains(link) && changes.contains(neighbour));
    const auto low = [](uint32_t index) { return static_cast<uint8_t>(index); };
    EXPECT_EQ(encoded(link), (Bytes{0, 100, 0, 23, 1, 3, 0, 5, 0,   0,   0,   low(veth), 0,  0,
                                    5, 120, 2, 0,  0, 0, 0, 1, 'v', 'e', 't', 'h',       '0'}));
    EXPECT_EQ(encoded(neighbour),
              (Bytes{0, 102, 0, 30, 1, 128, 1, 6, 0, 0,    0,    low(veth), 0xfe, 0x80, 0, 0, 0,
                     0, 0,   0, 0,  0, 0,   0, 0, 0, 0x12, 0x34, 2,         0,    0,    0, 0, 2}));

    /* Many more changes than the socket takes while nobody reads: the tables are read again. */
    run("for i in $(seq 1 400); do echo neigh add fe80::9:$i lladdr 02:00:00:00:00:03 dev veth0; "
        "echo neigh del fe80::9:$i dev veth0; done | ip -6 -batch -; "
        "ip -6 neigh del fe80::1234 dev veth0; ip -6 neigh add fe80::5678 lladdr 02:00:00:00:00:04 dev "
        "veth0");
    settle();
    EXPECT_TRUE(changes.contains(neighbour));
    EXPECT_EQ(encoded(neighbour).at(4), ND_DATA_DELETE);
    inet_pton(AF_INET6, "fe80::5678", neighbour.address.data());
    EXPECT_EQ(encoded(neighbour).at(4), ND_DATA_SET);
    RecordId known = {neighbour.topic, 0, {}};
    for (auto id = source.Next(known.topic, veth, nullptr); id; id = source.Next(known.topic, veth, &known)) {
        known = *id;
        EXPECT_NE(known.address[13], 9) << "a neighbour that is gone";
    }

    /* A port that leaves its bridge is said to be gone, by the bridge and from the bridge alone. */
    run("ip link add br0 type bridge && ip link set veth1 master br0 && ip link set veth1 nomaster; "
        "ip link del br0");
    settle();
    EXPECT_EQ(source.LinkNames().size(), 3U);

    renamed = 0;
    run("ip link set veth0 down && ip link set veth0 name lan0");
    settle();
    EXPECT_EQ(source.LinkNames()[veth], "lan0");
    EXPECT_EQ(renamed, 1);
    run("ip link del lan0");
    settle();
    EXPECT_TRUE(changes.contains(link));
    EXPECT_EQ(source.LinkNames().size(), 1U);
    EXPECT_EQ(source.Next(neighbour.topic, veth, nullptr), std::nullopt);
}

/* ---- The program ----------------------------------------------------------------------------- */

TEST(Program, StartsServesAndSaysWhyItCannot) {
    const TempDirectory temp;
    const std::string program = Text(COMPONENT_PROGRAM " --directory ", temp.path.string(), " ");
    const auto exitCode = [&](const std::string &options) {
        const int status = std::system(Text(program, options, " >/dev/null 2>&1").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(exitCode("--help"), 0);
    for (const char *wrong :
         {"--bogus", "--id 0", "--synthetic-size 20", "--no-kernel --ra-config x", "-v -q"}) {
        EXPECT_EQ(exitCode(wrong), 2) << wrong;
    }
    EXPECT_EQ(exitCode("--directory /proc/none"), 2) << "given twice";
    EXPECT_EQ(std::system(COMPONENT_PROGRAM " --no-kernel --directory /proc/none 2>/dev/null") >> 8, 1);

    FILE *running = popen(Text("echo $$; exec ", program, "--no-kernel --synthetic 3").c_str(), "r");
    ASSERT_NE(running, nullptr);
    char line[256] = {};
    ASSERT_NE(std::fgets(line, sizeof(line), running), nullptr);
    const auto pid = static_cast<pid_t>(std::strtol(line, nullptr, 10));
    ASSERT_NE(std::fgets(line, sizeof(line), running), nullptr);
    EXPECT_EQ(line, Text("ready id=100 directory=", temp.path.string(), "\n"));
    EXPECT_EQ(exitCode("--no-kernel"), 1) << "the id is in use";

    Bytes answer;
    PEGEIR_LinuxConfig config = {kConsumer, temp.path.c_str(),
                                 [](void *context, void *message) {
                                     EXPECT_EQ(DMS_ZEP_MSG_GET_SUB_INTF(message), 164U);
                                     EXPECT_EQ(DMS_MsgSendCidGet(message), 100U);
                                     const auto *bytes = static_cast<const uint8_t *>(message);
                                     static_cast<Bytes *>(context)->assign(
                                         bytes, bytes + DMS_MsgDataLenGet(message));
                                     PEGEIR_LinuxStop();
                                 },
                                 &answer};
    char error[256] = {};
    ASSERT_EQ(PEGEIR_LinuxOpen(&config, error, sizeof(error)), 0) << error;
    for (const uint32_t subInterface : {1U, 164U}) { /* the first is ignored */
        void *message = ZEP_MsgFlowCtrlAlloc_F(kConsumer, 100, 16, "test", 1);
        const Bytes request = {0, 16, 0, 16, 0, 0, 0, static_cast<uint8_t>(subInterface),
                               0, 0,  0, 0,  0, 0, 0, 0};
        std::copy(request.begin(), request.end(), static_cast<uint8_t *>(message));
        DMS_ZEP_MSG_SET_SUB_INTF(message, subInterface);
        EXPECT_EQ(ZEP_SEND_MSG(100, 6, 932, message, 16), 0U);
    }
    EXPECT_EQ(PEGEIR_LinuxRun(), 0);
    EXPECT_EQ(answer, (Bytes{0, 16, 0x80, 16, 0, 0, 0, 164, 0, 0, 0, 0, 0, 0, 0, 0}));
    PEGEIR_LinuxClose();
    kill(pid, SIGTERM);
    EXPECT_EQ(pclose(running), 0);
}

} // namespace
