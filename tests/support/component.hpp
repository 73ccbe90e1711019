// The component as a test plays it: it acknowledges, keeps what is subscribed, serves downloads of one
// record an item over four messages or more, sends updates, and repeats what nobody acknowledges.
//
// Requests that are older than one it has taken are ignored, for their numbers only grow: what a link
// has delayed or doubled must not undo what came after it.
#ifndef PEGEIR_TESTS_COMPONENT_HPP
#define PEGEIR_TESTS_COMPONENT_HPP

#include <optional>

#include "support/driver.hpp"

namespace pegeir::tests {

constexpr uint16_t kDownloadRecord = 200;
constexpr uint16_t kUpdateRecord = 300;

class PlayedComponent {
public:
    struct Kept {
        Bytes data;
        uint32_t pass; // the verification pass that confirmed it last
        bool operator==(const Kept &other) const { return data == other.data; }
    };

    // Its numbers begin behind firstNumber.
    PlayedComponent(sim::World &aWorld, uint32_t firstNumber);

    void Restart(); // forgets everything it was told, but goes on numbering
    void Update(const Bytes &value);
    void Tick(); // once a second
    [[nodiscard]] bool IsIdle() const { return !awaited && updates.empty(); }

    std::map<Bytes, Kept> items;         // by Item::Identity
    std::vector<Delivered> lastDownload; // its records in their order
    bool leaveGap = false;               // in the numbers of the next download
    std::function<void()> onMessage = [] {};

private:
    void Take(const Bytes &bytes);
    void TakeRequest(const Ndpi &request);
    void TakeAck(const Ndpi &ack);
    void Change(const Ndpi &request);
    void StartDownload(uint8_t beginType);
    void SendData(uint8_t endType);
    void Send(const Ndpi &message);
    void SendAwaited(uint8_t type);

    sim::World &world;
    uint32_t trans;
    uint32_t seq;
    std::optional<uint32_t> newest; // request taken since the restart
    uint32_t pass = 0;
    uint32_t age = 0; // of awaited, in seconds
    std::optional<Ndpi> awaited;
    std::vector<Bytes> updates;
};

} // namespace pegeir::tests

#endif
