// Plays everything around one instance: the clock, the component and the consumer.  A test says what
// arrives and looks at what went out, what the consumer saw and what was logged.
#ifndef PEGEIR_TESTS_DRIVER_HPP
#define PEGEIR_TESTS_DRIVER_HPP

#include <pegeir/pegeir.h>
#include <pegeir/sim.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "nd_lib/nd_lib.h"
#include "nd_lib_msg_send/nd_lib_msg_send.h"
#include "tlv/ndpi.h"
#include "tlv/tlv.h"

namespace pegeir::tests {

using Bytes = std::vector<uint8_t>;

// A message that the library sent, or one for it.
struct Ndpi {
    uint8_t type = 0;
    uint32_t trans = 0;
    uint32_t seq = 0;
    Bytes body = {};
    uint8_t flags = 0;

    [[nodiscard]] Bytes Wire() const;
    [[nodiscard]] bool IsAck() const { return (flags & NDPI_ACK_FLAG) != 0; }
};

// An item as the consumer names it.
struct Item {
    uint16_t keyType = 1000;
    Bytes key = {0, 0, 0, 7};
    uint16_t dataType = 1;
    Bytes data = {};

    [[nodiscard]] Bytes Record() const; // its subscription record
};

[[nodiscard]] Bytes U16(uint32_t value);
[[nodiscard]] Bytes U32(uint32_t value);
[[nodiscard]] Bytes Tlv(uint16_t type, const Bytes &value);
[[nodiscard]] Bytes Join(const std::vector<Bytes> &parts);
[[nodiscard]] Item NumberedItem(uint32_t number, uint16_t dataType = 1); // key of four bytes

struct LogLine {
    uint32_t level;
    std::string text; // without the prefix, which the driver checks
    bool operator==(const LogLine &) const = default;
};

struct Delivered {
    uint16_t type;
    Bytes value;
    bool operator==(const Delivered &) const = default;
};

class Driver {
public:
    static constexpr uint32_t kNd = 0x64;
    static constexpr uint32_t kApp = 0xC8;

    // Makes an instance in world, and registers the consumer unless told otherwise.
    explicit Driver(sim::World &aWorld, bool registerConsumer = true);
    ~Driver() { Deinit(); }
    Driver(const Driver &) = delete;
    Driver &operator=(const Driver &) = delete;

    // ---- What the consumer does ----
    uint32_t Register();
    uint32_t Subscribe(const Item &item) { return Request(ND_LIB_Subscribe, item); }
    uint32_t UnSubscribe(const Item &item) { return Request(ND_LIB_UnSubscribe, item); }
    void Up() { Notify(0); }
    void Down() { Notify(1); }
    void Notify(uint32_t newState);
    void Deinit();
    void Silently(const std::function<void()> &act); // without a log function

    // ---- What happens to it ----
    void Run(uint64_t seconds) { world.Run(seconds * 1000); }
    // Hands over a message of the component, of an ordinary envelope and length.
    uint32_t Receive(const Ndpi &message) { return ReceiveBytes(message.Wire()); }
    uint32_t ReceiveBytes(const Bytes &bytes, uint32_t subIntf = NDPI_MSG_SUB_INTF, uint32_t sender = kNd);
    // Acknowledges the last message of that type that was taken.
    uint32_t Ack(const Ndpi &request);
    std::vector<Ndpi> Sent();   // what went out since the last look
    Ndpi SentOne(uint8_t type); // the same, which must be one message of that type

    // Registers, uploads what is subscribed by then and takes a download of these data messages, until the
    // instance is ready.  Returns the messages of the upload.
    std::vector<Ndpi> BecomeReady(const std::vector<Bytes> &download = {});

    // ---- What can be seen ----
    [[nodiscard]] uint32_t State() const { return nd->consumer.compFsmState; }
    [[nodiscard]] std::vector<LogLine> TakeLog();
    // The lines written to a box since the last look, without their stamps.
    [[nodiscard]] std::vector<std::string> TakeTrace(uint32_t box);
    // Every page of a diagnose pass from the start.
    [[nodiscard]] std::vector<std::string> Pages(uint32_t bufferLen = 4096);

    // ---- The consumer's answers and what it was told ----
    std::function<uint32_t()> onPack = [] { return uint32_t{ND_LIB_PACK_DONE}; };
    std::function<uint32_t(uint32_t code)> onEvent = [](uint32_t) { return 0U; };
    std::function<void(const Delivered &)> onRecord = [](const Delivered &) {};
    std::function<void(const LogLine &)> onLog = [](const LogLine &) {};
    std::vector<uint32_t> events;
    std::vector<Delivered> records;
    std::vector<void *> optionDataSeen;

    sim::World &world;
    ND_LIB_Instance *nd = nullptr;

private:
    using RequestFunc = uint32_t (*)(ND_LIB_Instance *, const ND_LIB_ItemHead *, const ND_LIB_ItemHead *);
    uint32_t Request(RequestFunc request, const Item &item);

    static Driver &Of(const ND_LIB_Instance *instance);
    static uint32_t Log(ND_LIB_Instance *instance, uint32_t level, const char *format, ...)
        ND_LIB_PRINTF(3, 4);
    static uint32_t Pack(ND_LIB_Instance *instance, void *optionData);
    static uint32_t Event(ND_LIB_Instance *instance, uint32_t code, uint32_t zero);
    static uint32_t Record(ND_LIB_Instance *instance, const ND_LIB_TlvHead *record);

    std::vector<LogLine> log;
    size_t traced[2] = {0, 0};
};

// Every list and tree invariant of the store; returns what is broken, or nothing.
[[nodiscard]] std::string BrokenInvariant(ND_LIB_Instance *instance);

} // namespace pegeir::tests

#endif
