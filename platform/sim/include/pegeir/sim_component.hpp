// A component to talk to: the other side of a consumer that is tested in a World.
//
// It acknowledges what an instance sends, keeps what is subscribed, serves downloads and updates, and
// repeats every three seconds what is not acknowledged.  Everything it sends goes over the World's link.
//
//     sim::World world;
//     sim::Component component(world, frame.ndPid, frame.appPid);
//     component.recordOf = [](const sim::ItemName &item) { return RecordOf(item.key); };
//     ... attach the consumer, tell it that the component is there ...
//     world.Run(10'000);                   // registered, uploaded, downloaded
//     component.Update(RecordOf(key));     // a change
//     component.Restart();                 // and tell the consumer that the component went and came
//
// It serves one consumer, which finds all of it: what the protocol leaves to the component is done in the
// simplest way.  Requests not newer than one that it has taken are ignored, for their numbers only grow:
// what a bad link has delayed or doubled does not undo what came after it.  A consumer that is made anew
// begins to number again, which the component has to be told: NewConsumer.
#ifndef PEGEIR_SIM_COMPONENT_HPP
#define PEGEIR_SIM_COMPONENT_HPP

#include <pegeir/sim.hpp>

#include <map>
#include <set>
#include <tuple>

namespace pegeir::sim {

// What makes an item another one than others.
struct ItemName {
    std::uint16_t keyType = 0;
    std::vector<std::uint8_t> key;
    std::uint16_t dataType = 0;
    bool operator<(const ItemName &other) const {
        return std::tie(keyType, key, dataType) < std::tie(other.keyType, other.key, other.dataType);
    }
};

// A component in a World, driven by the test.
class Component {
public:
    // Bytes as they travel.
    using Bytes = std::vector<std::uint8_t>;

    // Attaches itself to the World as process pid, for the consumer's process.  Its transaction and
    // sequence numbers begin behind firstNumber.  It must not outlive the World.
    Component(World &aWorld, std::uint32_t aPid, std::uint32_t aConsumer, std::uint32_t firstNumber = 0);
    ~Component(); // detaches it
    Component(const Component &) = delete;
    Component &operator=(const Component &) = delete;

    // Forgets everything it was told, as a component that starts anew, but goes on numbering.  Whether
    // and when the consumer is told is up to the test.
    void Restart();
    // Call this when the consumer is made anew, before it registers: takes its numbers from wherever they
    // begin.  Without it, what the new consumer sends, its registrations too, counts as not newer than what
    // the one before it sent.  The registration, which comes first, makes the component forget the rest.
    void NewConsumer() { newest.reset(); }
    // Sends an update with these elements, once earlier ones and downloads have been acknowledged.
    void Update(Bytes elements);
    // Makes the next download skip a sequence number.
    void LeaveGap() { gap = true; }

    // The subscribed items with their data bytes.
    [[nodiscard]] const std::map<ItemName, Bytes> &Items() const { return items; }
    // The elements of the last download that was begun, in their order.
    [[nodiscard]] const std::vector<Bytes> &LastDownload() const { return download; }
    // Whether everything it has sent has been acknowledged, and no update waits.
    [[nodiscard]] bool IsIdle() const { return !awaited && updates.empty(); }

    // Returns the elements that an item has in a download, as on the wire.  At first one element of the
    // item's data type, which holds its key.
    std::function<Bytes(const ItemName &item)> recordOf;
    // Most bytes of a data message's body; an item with more has a message of its own.
    std::size_t mostBody = 7984;
    // Called before each message for the component is looked at; may call Restart.
    std::function<void()> beforeMessage = [] {};

private:
    struct Message {
        std::uint8_t type = 0;
        std::uint32_t trans = 0;
        std::uint32_t seq = 0;
        Bytes body = {};
        std::uint8_t flags = 0;
    };

    void Take(const Bytes &bytes);
    void TakeRequest(const Message &request);
    void TakeAck(const Message &ack);
    void Change(const Message &request);
    void StartDownload(std::uint8_t beginType);
    void SendData(std::uint8_t endType);
    void Send(const Message &message);
    void SendAwaited(std::uint8_t type);
    void Repeat(std::uint32_t number);

    World &world;
    std::uint32_t pid;
    std::uint32_t consumer;
    std::uint32_t trans;
    std::uint32_t seq;
    std::optional<std::uint32_t> newest; // request taken of this consumer since the restart
    std::optional<Message> awaited;
    std::vector<Bytes> updates;
    std::map<ItemName, Bytes> items;
    std::set<ItemName> unconfirmed; // by the verification pass under way
    std::vector<Bytes> download;
    bool gap = false;
};

} // namespace pegeir::sim

#endif
