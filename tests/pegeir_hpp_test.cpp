// The header for C++ consumers: whole sessions of two clients side by side, spans of any length, and the end
// of a client at any time.

#include <gtest/gtest.h>

#include <pegeir/pegeir.hpp>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

static_assert(sizeof(Client) == sizeof(void *) && !std::is_copy_constructible_v<Client>);
static_assert(!std::is_assignable_v<ClientRef &, ClientRef>); // would exchange the instance of an owner

const Item kBig = {1, Bytes(4000, 7), 2, Bytes(3972, 8)}; // as much as fits a message

// The components of all consumers: acknowledge every request, and follow an upload with a download of one
// record, the id of the component.
void Serve(sim::World &world, sim::Record record) {
    const uint8_t type = record.bytes[3];
    if (std::exchange(record.bytes[2], NDPI_ACK_FLAG) == NDPI_ACK_FLAG) {
        return; // nobody acknowledges an acknowledgement
    }
    EXPECT_TRUE(type != 18 || std::ranges::equal(std::span(record.bytes).subspan(16), kBig.Record()));
    std::swap(record.sender, record.receiver);
    world.Post(record);
    for (const uint8_t part : type == 19 ? Bytes{23, 24, 25} : type == 22 ? Bytes{27, 24, 28} : Bytes{}) {
        const Bytes body = part == 24 ? Tlv('r', {static_cast<uint8_t>(record.sender)}) : Bytes();
        record.bytes = Ndpi{.type = part, .seq = part % 3 % 2U, .body = body}.Wire(); // 1 at the end
        world.Post(record);
    }
}

// A consumer, which notes what it is told, a letter each.
struct Peer final : Consumer {
    Peer(sim::World &world, uint8_t number) : id(number) {
        const auto feed = [this](void *message) { EXPECT_EQ(client.Process(message), Result::kOk); };
        world.SetLink(Serve);
        world.Attach(id + 100U, feed);
        world.AttachTimers(id, feed);
        client = Client({.component = id, .self = id + 100U, .timerHandle = id}, *this);
        client.NotifyComponent(true);
    }
    Collected OnCollect(ClientRef nd, void *option) override {
        EXPECT_EQ(nd.Subscribe({1, kBig.key}, {2, kBig.data}), Result::kOk);
        return (told += option == nullptr ? 'c' : 'o'), Collected::kDone;
    }
    void OnRecord(ClientRef, const pegeir::Record &record) override {
        told += std::ranges::equal(record.value, Bytes{id}) ? char(record.type) : 'X';
    }
    void OnDownloadBegin(ClientRef) override { told += 'b'; }
    void OnDownloadEnd(ClientRef nd) override { told += nd.StartVerify() == Result::kOk ? 'e' : 'X'; }
    bool OnVerifyRequest(ClientRef) override { return (told += '?').ends_with("??"); }
    void OnVerifyEnd(ClientRef nd) override { told += nd.StopVerify() == Result::kOk ? 'v' : 'X'; }
    void OnLog(ClientRef, LogLevel, const char *, std::va_list arguments) override {
        logged = va_arg(arguments, uint32_t);   // the id of the component comes first
        if (std::exchange(endsInside, false)) { // and makes another one, to which nothing more must come
            client.Close();
            heir->client = Client({.component = id, .self = 1}, *heir);
            heir->logged = 0;
        }
    }
    bool endsInside = false;
    Peer *heir = nullptr;
    uint8_t id;
    uint32_t logged = 0;
    std::string told;
    Client client;
};

TEST(Hpp, TwoClientsAreToldTheirOwnWhereverTheyAreMoved) {
    sim::World world;
    Peer peers[] = {{world, 100}, {world, 101}};
    EXPECT_EQ(peers[1].client.AddOptionData(kBig.key), Result::kOk);
    for (int second = 0; second < 12; ++second) {
        Client moved = std::move(peers[0].client);
        peers[0].client = std::move(moved);
        world.Run(1000);
    }
    EXPECT_EQ(peers[0].told + ' ' + peers[1].told, "cbre??crv obre??crv");
    EXPECT_EQ(peers[0].logged + peers[1].logged, 201U);
}

TEST(Hpp, ResultsAndSpansOfAnyLength) {
    sim::World world;
    Peer peer(world, 100);
    const Bytes most(kMaxItemBytes, 1), wraps(0x10001, 1); // to a length of 1
    EXPECT_EQ(peer.client.Subscribe({1, {}}, {1}), Result::kSubscribe);
    EXPECT_EQ(peer.client.Subscribe({1, most}, {1, wraps}), Result::kSubscribe);
    EXPECT_EQ(peer.client.Unsubscribe({1, most}, {1, most}), Result::kOk);
    EXPECT_EQ(peer.client.AddOptionData({}), Result::kOk);
    EXPECT_EQ(peer.client.SetVerifyCycle(0x10000 + 60), Result::kParameter);
    EXPECT_EQ(peer.client.Diagnose({}, true).result, Result::kBufferLength);
    char all[2048];
    for (const bool restart : {true, false, true}) {
        EXPECT_EQ(peer.client.Diagnose(all, restart).text.find("unsubscribingList num: 1") < 2048, restart);
    }
    Peer heir(world, 101);
    peer.heir = &heir;
    peer.endsInside = true;
    peer.client.NotifyComponent(false); // reports several times, the first of which ends the client
    EXPECT_TRUE(world.Assertions().size() == 1 && !world.Leaks().empty());
    EXPECT_TRUE(heir.client && (heir.logged == 0 || sizeof(void *) == 4));
}

TEST(Hpp, EndsWithoutATraceAtAnyTime) {
    for (uint32_t round = 0; round < 2 * kMaxClients; ++round) { // more than there are places
        sim::World world;
        auto peer = std::make_unique<Peer>(world, 100);
        world.Run(round % 16 * 500);
        EXPECT_FALSE(Client({.component = 0, .self = 1}, *peer));
        EXPECT_FALSE(Client({.component = 1, .self = 1, .funcTable = 0}, *peer));
        EXPECT_TRUE(peer->client = Client({.component = 100, .self = 200}, *peer)); // closes its own first
        peer.reset();
        EXPECT_TRUE(world.Leaks().empty() && world.Violations().empty()) << world.Leaks();
    }
}

} // namespace
} // namespace pegeir::tests
