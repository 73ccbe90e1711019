/*
 * An ndpi message in words.  The bytes may be anything; what does not fit is said to be left over.
 */
#ifndef PEGEIR_REPLAY_DECODE_H
#define PEGEIR_REPLAY_DECODE_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pegeir::replay {

using ByteView = std::span<const uint8_t>;

// One request of the consumer, as a subscription record has it.
struct Request {
    bool subscribe = true; // or unsubscribe
    uint16_t keyType = 0;
    std::vector<uint8_t> key;
    uint16_t dataType = 0;
    std::vector<uint8_t> data;
};

// What a message is, and whether it is a request of the library (16 to 22, 29 without the flag of an
// acknowledgement).  All zero for less than a header.
struct Kind {
    uint8_t type = 0;
    bool ack = false;
    uint32_t number = 0;
    [[nodiscard]] bool IsRequest(uint8_t aType) const { return type == aType && !ack; }
};
[[nodiscard]] Kind KindOf(ByteView message);

// The subscription records of a message of type 18 or 20; of another one there are none.
[[nodiscard]] std::vector<Request> RequestsOf(ByteView message);

// A data record as the consumer gets it, a request, and a whole message, in one line.
[[nodiscard]] std::string RecordText(uint16_t type, ByteView value);
[[nodiscard]] std::string RequestText(const Request &request);
[[nodiscard]] std::string MessageText(ByteView message);

struct Field {
    std::string name;
    std::string value;
};

// Every field and record of a message.
[[nodiscard]] std::vector<Field> MessageFields(ByteView message);

} // namespace pegeir::replay

#endif
