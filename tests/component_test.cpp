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
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <net/if.h>
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

/* A source's data message record as it is now. */
Bytes Encoded(const auto &source, const RecordId &id) {
    Bytes record;
    Writer writer(record);
    source.Encode(id, writer);
    return record;
}

class Rig : public Transport {
public:
    explicit Rig(uint32_t items, Limits limits = {.messageBurst = 2})
        : source(items, ND_DATA_SYNTHETIC_LEN, [this](const RecordId &id) { server.OnChange(id); }),
          server(
              *this, catalog, [this] { return now += reads; },
              [this](Severity severity, uint32_t consumer, const std::string &text) {
                  reports += severity <= Severity::kWarning ? Text(consumer, ": ", text, "\n") : "";
              },
              limits) {
        catalog.Add(source);
    }

    SendResult Send(uint32_t, ByteView bytes) override {
        if (room == 0) {
            return SendResult::kFull;
        }
        --room;
        got.emplace_back(bytes.begin(), bytes.end());
        return SendResult::kSent;
    }
    bool WhenWritable(uint32_t) override {
        asked = true;
        return !gone;
    }
    SendResult StartOver(uint32_t consumer) override {
        startedOver += room == 0 ? "" : Text(consumer, ' ');
        return room == 0 ? SendResult::kFull : SendResult::kSent;
    }

    void Ask(unsigned type, Bytes message = {}, uint8_t flags = 0, uint32_t number = 0) {
        message.insert(message.begin(), kHeaderLen, 0);
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
        for (const Bytes &bytes : std::exchange(got, {})) {
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
            std::string records;
            for (Reader reader(message->body); !reader.AtEnd() && reader.Ok();) {
                EXPECT_EQ(reader.U16(), ND_DATA_TLV_SYNTHETIC);
                Reader value(reader.Take(reader.U16()));
                const bool set = value.U8() == ND_DATA_SET;
                (void)value.Take(3);
                const uint32_t index = value.U32();
                records += Text(records.empty() ? "" : " ", index, set ? Text('r', value.U32()) : "x");
            }
            all += records.empty() ? "" : Text('[', records, ']');
        }
        return all;
    }

    /* Registers, uploads and asks for the download, which begins at this number. */
    void Start(std::initializer_list<uint32_t> items, uint32_t begin = 1) {
        Ask(16);
        Ask(18, Items(items));
        Ask(19);
        EXPECT_EQ(Got(), Text("16+ 18+ 19+ 23#", begin));
    }
    void BecomeReady(std::initializer_list<uint32_t> items) {
        Start(items);
        Ack(23);
        (void)Got();
        Ack(25);
        EXPECT_EQ(Got(), "");
    }

    size_t room = SIZE_MAX;
    bool asked = false;
    bool gone = false;
    uint64_t now = 1000;
    uint64_t reads = 0; /* ms that each reading of the clock takes */
    uint32_t lastNumber = 0;
    std::set<std::pair<unsigned, uint32_t>> requests;
    uint32_t newest[30] = {};
    std::string reports;
    std::string startedOver; /* the consumers that were told to */
    std::vector<Bytes> got;
    Catalog catalog;
    SyntheticSource source;
    Server server;
};

TEST(Server, LeadsAConsumerFromItsRegistrationToUpdates) {
    Rig rig(3);
    rig.Ask(16);
    rig.Ask(17);
    EXPECT_EQ(rig.Got(), "16+ 17+");
    rig.Ask(18, Items({0, 2, 99}));
    const Bytes upload = rig.got.at(0);
    EXPECT_EQ(Bytes(upload.begin() + 16, upload.end()), Items({0, 2, 99})) << "echoed byte for byte";
    rig.Ask(19);
    EXPECT_EQ(rig.Got(), "18+ 19+ 23#1");
    rig.Ack(23);
    EXPECT_EQ(rig.got.at(0), (Bytes{0, 48,  0, 24, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, /* header */
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
    rig.Ask(18, Items({1, 2}));
    EXPECT_EQ(rig.Got(), "18+ 26[1r3]") << "a new subscription is served at once, an old one is not";
    rig.source.Change(3); /* the items 1, 2 and 0 */
    rig.Ask(20, Items({0, 1}));
    rig.Ack(26);
    EXPECT_EQ(rig.Got(), "20+ 26[2r4]") << "given up while its change waited";
    rig.Ack(26);
    rig.source.Resize(1);
    EXPECT_EQ(rig.Got(), "26[2x]");
    rig.Ask(16);
    rig.source.Change(1);
    rig.Wait(5);
    EXPECT_EQ(rig.Got(), "16+") << "a new registration has no subscriptions";
    EXPECT_EQ(rig.reports, "");
}

TEST(Server, RepeatsWhatIsNotAcknowledged) {
    Rig rig(1);
    rig.Start({0});
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
    const std::string got = rig.Got();
    EXPECT_EQ(std::count(got.begin(), got.end(), '#'), 56) << "60 sends in all, then it is taken as received";
    EXPECT_NE(got.find("26[0r2] 26[0r2]"), std::string::npos);
}

TEST(Server, DownloadsAsFastAsTheTransportTakesItAndLosesNothing) {
    constexpr uint32_t kItems = 5000; /* 499 records of 16 bytes to a message: 11 messages */
    Rig rig(kItems);
    rig.Start({kAll, 3});
    rig.room = 0;
    rig.Ack(23);
    rig.source.Change(kItems - 1); /* every item but 0, all unsent */
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

TEST(Server, HasAConsumerStartOverThatWasTooSlowOrIsNotKnown) {
    Rig rig(20, {.waitingChanges = 10});
    rig.BecomeReady({kAll});
    rig.source.Change(1);
    EXPECT_EQ(rig.Got(), "26[1r2]");
    rig.room = 0; /* suspended */
    rig.source.Change(12);
    rig.Wait(20);
    EXPECT_EQ(rig.reports,
              "7: takes no updates, 11 changes waited: dropped, it has to register and download anew\n");
    EXPECT_EQ(rig.startedOver, "");
    rig.room = SIZE_MAX;
    rig.server.OnWritable(kConsumer);
    EXPECT_EQ(rig.startedOver, "7 ") << "as soon as it takes messages again";
    rig.source.Change(12);
    rig.Wait(4);
    EXPECT_EQ(rig.startedOver, "7 7 ") << "and again while it does not";
    EXPECT_EQ(rig.Got(), "") << "no update could make up for what was dropped";
    rig.Start({3}, 3);
    rig.Ack(23);
    EXPECT_EQ(rig.Got(), "24#3[3r3] 25#4");
    rig.Wait(10);
    EXPECT_EQ(rig.startedOver, "7 7 ");

    const Bytes request{0, 16, 0, 21, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int second = 0; second < 5; ++second) { /* once in three seconds */
        rig.server.OnMessage(8, request);
        rig.server.OnMessage(8, request);
        rig.Wait(1);
    }
    EXPECT_EQ(rig.startedOver, "7 7 8 8 ");
}

TEST(Server, IsAsPatientAsItSaysHoweverLateItLooks) {
    Rig rig(1);
    rig.BecomeReady({0});
    rig.reads = 5; /* the clock goes on between two readings */
    rig.gone = true;
    rig.Wait(29);
    EXPECT_EQ(rig.server.ConsumerCount(), 1U);
    rig.Wait(15);
    EXPECT_EQ(rig.server.ConsumerCount(), 0U);
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
    rig.Ask(22);
    EXPECT_EQ(rig.Got(), "18+ 20+ 22+ 27#3");
    rig.Ack(27);
    EXPECT_EQ(rig.Got(), "24#3[1r3 3r2] 28#4") << "item 2 was not confirmed";
    rig.source.Change(2); /* the items 2 and 3 */
    rig.Ack(28);
    EXPECT_EQ(rig.Got(), "26[3r3]") << "what was in the download does not come again";
}

TEST(Server, AnswersASequenceErrorWithAFreshSmoothDownload) {
    Rig rig(1000);
    rig.Start({kAll});
    rig.room = 1;
    rig.Ack(23);
    EXPECT_EQ(rig.Got().substr(0, 8), "24#1[0r1");
    rig.Ask(29);
    rig.room = SIZE_MAX;
    rig.server.OnWritable(kConsumer);
    EXPECT_EQ(rig.Got(), "29+ 23#4") << "what the transport had not taken yet is gone";
    rig.Ack(23);
    EXPECT_EQ(rig.Got().substr(0, 8), "24#4[0r1");
}

TEST(Server, DropsAndReportsWhatIsNoMessageForIt) {
    struct {
        unsigned type;
        uint8_t flags;
        Bytes body;
        const char *report;
    } const cases[] = {
        {15, 0, {}, "no message has type 15"},
        {16, kAckFlag, {}, "acknowledgement of type 16"},
        {23, 0, {}, "request of type 23"},
        {18, 0, {0, 18, 0, 8, 0, 1, 0, 0, 0, 0, 0}, "record 1 is malformed"},
        {18, 0, {0, 19, 0, 8, 0, 1, 0, 0, 0, 0, 0, 0}, "record 1 is malformed"},    /* another element */
        {18, 0, {0, 18, 0, 8, 0, 1, 0, 1, 0, 0, 0, 0}, "record 1 is malformed"},    /* the key too long */
        {18, 0, {0, 18, 0, 9, 0, 1, 0, 0, 0, 0, 0, 0, 9}, "record 1 is malformed"}, /* a byte too many */
    };
    Rig rig(1);
    rig.BecomeReady({});
    uint64_t dropped = 0;
    for (const auto &[type, flags, body, report] : cases) {
        rig.Wait(5); /* no two lines follow each other sooner */
        rig.reports.clear();
        rig.Ask(type, body, flags);
        EXPECT_NE(rig.reports.find(report), std::string::npos) << report << ": " << rig.reports;
        EXPECT_EQ(rig.server.DroppedCount(), ++dropped) << report;
    }
    rig.server.OnMessage(kConsumer, Bytes{0, 17, 0, 16, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(rig.server.DroppedCount(), ++dropped);
    rig.reports.clear();
    rig.server.OnMessage(8, Bytes{0, 16, 0, 17, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
    rig.Wait(4);
    EXPECT_EQ(rig.reports, "");
    rig.Wait(1);
    EXPECT_EQ(rig.reports, "8: message dropped: type 17 from a consumer that has not registered"
                           " (the last of 2 such)\n");
    EXPECT_EQ(rig.Got(), "") << "nothing of that is answered";
}

TEST(Server, SurvivesRandomMessagesAndKeepsOthersServed) {
    std::mt19937 random(20240501);
    const auto pick = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    Rig rig(50);
    for (int round = 0; round < 20000; ++round) {
        Bytes message(kHeaderLen);
        for (uint32_t count = pick(4); count > 0; --count) {
            const Bytes record = Record(ItemOf({static_cast<uint16_t>(1999 + pick(2)), 3}, pick(60)));
            message.insert(message.end(), record.begin(), record.end());
        }
        const uint32_t type = 16 + pick(14);
        const uint8_t flags = type >= 23 && type <= 28 ? kAckFlag : 0;
        WriteHeader(message, static_cast<MsgType>(type), flags, 1 + pick(64), 0);
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
    rig.source.Change(1);
    EXPECT_EQ(rig.Got().substr(0, 4), "26[0");
}

/* ---- Router-advertisement intervals ---------------------------------------------------------- */

TEST(RadvdConfig, SaysWhatIsWrongAndWhere) {
    struct {
        const char *text;
        unsigned line;
        const char *message;
    } const cases[] = {
        {"\n# x\ninterfaces eth0 {};", 3, "expected 'interface', found 'interfaces'"},
        {"interface a\x1B {};\ninterface a\x1B {};", 2, "a? is configured a second time"},
        {"interface a {\n AdvSendAdvert on\n};", 3, "expected ';' behind 'AdvSendAdvert' of line 2"},
        {"interface a { MaxRtrAdvInterval\n ten; };", 2, "whole number of seconds, found 'ten'"},
        {"interface a {\n MaxRtrAdvInterval 3;\n};", 2, "MaxRtrAdvInterval is 3, it must be from 4 to 1800"},
        {"interface a {\n MaxRtrAdvInterval 10;\n MinRtrAdvInterval 8;\n};", 3, "from 3 to 7"},
    };
    for (const auto &[text, line, message] : cases) {
        const auto parsed = ParseRadvdConfig(text);
        const auto *error = std::get_if<ConfigError>(&parsed);
        ASSERT_NE(error, nullptr) << text;
        EXPECT_EQ(error->line, line) << text << ": " << error->message;
        EXPECT_NE(error->message.find(message), std::string::npos) << error->message;
    }
}

class TempDirectory {
public:
    TempDirectory() { EXPECT_NE(mkdtemp(name), nullptr); }
    ~TempDirectory() { std::filesystem::remove_all(name); }
    char name[34] = "/tmp/pegeir-component-test-XXXXXX";
};

TEST(RaSource, FollowsTheFileAndTheInterfaces) {
    const TempDirectory temp;
    const std::filesystem::path directory = std::filesystem::path(temp.name) / "sub";
    const std::filesystem::path file = directory / "radvd.conf";
    std::string changes;
    std::string reports;
    RaSource *self = nullptr;
    const auto onChange = [&](const RecordId &id) {
        const Bytes record = Encoded(*self, id);
        changes +=
            Text(id.index, record.at(4) == ND_DATA_SET ? Text('=', unsigned{record.at(19)}) : "x", ' ');
    };
    RaSource source(file, onChange, [&](Severity, const std::string &text) { reports = text; });
    self = &source;
    const auto changed = [&](const std::string &text) {
        std::ofstream(file) << text;
        source.OnReadable();
        source.OnTick();
        return std::exchange(changes, "");
    };
    source.SetLinks({{1, "lo"}, {2, "eth0"}, {3, "eth1"}});
    std::filesystem::create_directory(directory);
    EXPECT_EQ(changed("# a comment with { and ;\ninterface eth0 # and here\n{ AdvSendAdvert on;\n"
                      " prefix ::/64 { nested { a; { b; }; }; }; RDNSS ::1 ::2 { c 30; };\n"
                      " MinRtrAdvInterval 9 ; MaxRtrAdvInterval 20; }; interface lan{};"),
              "2=20 ");
    EXPECT_EQ(changed("interface eth0 {\n MaxRtrAdvInterval x;\n};"), "");
    EXPECT_NE(reports.find("radvd.conf:2: MaxRtrAdvInterval needs"), std::string::npos) << reports;
    EXPECT_NE(reports.find("the last good configuration stays in force"), std::string::npos) << reports;
    source.SetLinks({{2, "wan"}, {3, "eth0"}});
    EXPECT_EQ(std::exchange(changes, ""), "3=20 2x ");
    std::filesystem::rename(directory, directory.string() + ".old");
    std::filesystem::create_directory(directory);
    EXPECT_EQ(changed("interface eth0 { MaxRtrAdvInterval 60; };"), "3=60 ") << "the directory was replaced";
}

/* ---- The kernel ------------------------------------------------------------------------------ */

TEST(KernelSource, FollowsInterfacesAndNeighboursOfANetworkNamespace) {
    if (EMULATOR[0] != 0) {
        GTEST_SKIP() << "user-mode emulation answers a request for the neighbours with EOPNOTSUPP";
    }
    if ((unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) ||
        std::system("ip link add veth0 type veth peer name veth1") != 0) {
        GTEST_SKIP() << "no network namespace with a veth pair can be made here";
    }
    std::set<RecordId> changes;
    KernelSource source([&](const RecordId &id) { changes.insert(id); }, [] {},
                        [](Severity, const std::string &) {});
    std::string error;
    ASSERT_TRUE(source.Open(error, 8192)) << error;
    const auto run = [&](const std::string &commands) {
        changes.clear();
        EXPECT_EQ(std::system(commands.c_str()), 0) << commands;
        pollfd readable = {source.Fd(), POLLIN, 0};
        while (poll(&readable, 1, 200) > 0) {
            source.OnReadable();
        }
        source.OnTick();
    };
    const auto veth = static_cast<uint8_t>(if_nametoindex("veth0"));
    const RecordId link = {{ND_DATA_KEY_INTERFACE, ND_DATA_LINK}, veth, {}};
    RecordId neighbour = {{ND_DATA_KEY_INTERFACE, ND_DATA_NEIGHBOUR}, veth, {}};
    inet_pton(AF_INET6, "fe80::1234", neighbour.address.data());

    run("ip link set veth1 up; ip link set veth0 mtu 1400 address 02:00:00:00:00:01 up;"
        "ip -6 neigh add fe80::1234 lladdr 02:00:00:00:00:02 dev veth0 router");
    EXPECT_TRUE(changes.contains(link) && changes.contains(neighbour));
    EXPECT_EQ(Encoded(source, link), (Bytes{0, 100, 0, 23, 1, 3, 0, 5, 0,   0,   0,   veth, 0,  0,
                                            5, 120, 2, 0,  0, 0, 0, 1, 'v', 'e', 't', 'h',  '0'}));
    EXPECT_EQ(Encoded(source, neighbour),
              (Bytes{0, 102, 0, 30, 1, 128, 1, 6, 0, 0,    0,    veth, 0xfe, 0x80, 0, 0, 0,
                     0, 0,   0, 0,  0, 0,   0, 0, 0, 0x12, 0x34, 2,    0,    0,    0, 0, 2}));

    /* Many more changes than the socket takes while nobody reads: the tables are read again. */
    run("for i in $(seq 1 400); do echo neigh add fe80::9:$i lladdr 02:00:00:00:00:03 dev veth0; "
        "echo neigh del fe80::9:$i dev veth0; done | ip -6 -batch -; "
        "ip -6 neigh del fe80::1234 dev veth0; ip -6 neigh add fe80::5678 lladdr 02:00:00:00:00:04 dev "
        "veth0");
    EXPECT_TRUE(changes.contains(neighbour));
    EXPECT_EQ(Encoded(source, neighbour).at(4), ND_DATA_DELETE);
    inet_pton(AF_INET6, "fe80::5678", neighbour.address.data());
    EXPECT_EQ(Encoded(source, neighbour).at(4), ND_DATA_SET);
    run("ip link set veth0 down && ip link set veth0 name lan0");
    EXPECT_EQ(source.LinkNames()[veth], "lan0");
    run("ip link del lan0");
    EXPECT_TRUE(changes.contains(link));
    EXPECT_EQ(source.Next(neighbour.topic, veth, nullptr), std::nullopt);
}

/* ---- The program ----------------------------------------------------------------------------- */

TEST(Program, StartsStopsAndSaysWhyItCannot) {
    const TempDirectory temp;
    const std::string program = Text(COMPONENT_PROGRAM " --directory ", temp.name, " ");
    const auto exitCode = [&](const std::string &options) {
        return WEXITSTATUS(std::system(Text(program, options, " >/dev/null 2>&1").c_str()));
    };
    EXPECT_EQ(exitCode("--synthetic-size 20"), 2);
    EXPECT_NE(std::system(Text(program, "--no-kernel >/dev/full 2>&1").c_str()), 0);
    FILE *running = popen(Text("echo $$; exec ", program, "--no-kernel --synthetic 3").c_str(), "r");
    pid_t pid = 0;
    char line[256] = {};
    ASSERT_EQ(std::fscanf(running, "%d %255[^\n]", &pid, line), 2);
    EXPECT_EQ(line, Text("ready id=100 directory=", temp.name));
    EXPECT_EQ(exitCode("--no-kernel"), 1) << "the id is in use";

    /* Started without standard streams, it must not write its log into what got their numbers. */
    kill(pid, SIGTERM);
    EXPECT_EQ(pclose(running), 0);
    running = popen(Text("(", program, "--no-kernel --synthetic 3 <&- >&- 2>&- & echo $!)").c_str(), "r");
    ASSERT_EQ(std::fscanf(running, "%d", &pid), 1);
    for (int i = 0; i < 100 && !std::filesystem::exists(Text(temp.name, "/100.sock")); ++i) {
        usleep(20'000);
    }
    for (const char *fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(Text("/proc/", pid, "/fd/", fd)), "/dev/null");
    }
    kill(pid, SIGTERM);
    pclose(running);
}

TEST(Program, GoesOnWhenNobodyReadsItsLog) {
    const TempDirectory temp;
    int log[2] = {};
    ASSERT_EQ(pipe2(log, O_NONBLOCK), 0);
    while (write(log[1], "full", 4) > 0 || write(log[1], "!", 1) > 0) {
    }
    fcntl(log[1], F_SETFL, 0); /* as the program gets it */
    FILE *running = popen(Text("echo $$; exec " COMPONENT_PROGRAM " --no-kernel --synthetic 3 --directory ",
                               temp.name, " 2>&", log[1])
                              .c_str(),
                          "r");
    close(log[1]);
    pid_t pid = 0;
    char line[256] = {};
    ASSERT_EQ(std::fscanf(running, "%d %255[^\n]", &pid, line), 2);
    for (int i = 0; i < 2; ++i) { /* which it says that it does */
        kill(pid, SIGHUP);
        usleep(300'000);
    }
    std::string read;
    const auto readAll = [&] {
        char bytes[4096];
        for (ssize_t count = 0; (count = ::read(log[0], bytes, sizeof bytes)) > 0;) {
            read.append(bytes, static_cast<size_t>(count));
        }
    };
    readAll();
    EXPECT_EQ(read.find_first_not_of("ful!"), std::string::npos);
    kill(pid, SIGTERM);
    EXPECT_EQ(pclose(running), 0);
    readAll();
    EXPECT_NE(read.find("warning: 2 lines of this log could not be written\n"), std::string::npos);
    EXPECT_NE(read.find("info: stopped"), std::string::npos);
    close(log[0]);
}

} // namespace
