/*
 * The bytes on the wire.  Everything that knows byte order or a field's offset is here.
 *
 *   message := u16 length of all of it, u8 flags, u8 type, u32 transaction number, u32 zero,
 *              u32 sequence number, element*
 *   element := u16 type, u16 length of the value, value
 *   subscription record := element of type 18 with the value
 *              u16 key type, u16 K, K key bytes, u16 data type, u16 D, D data bytes
 *
 * All numbers are big-endian, nothing is padded.
 */
#ifndef PEGEIR_COMPONENT_WIRE_H
#define PEGEIR_COMPONENT_WIRE_H

#include "protocol/records.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace pegeir::component {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline constexpr size_t kHeaderLen = 16;
inline constexpr size_t kMaxMessageLen = 8000;
inline constexpr uint8_t kAckFlag = 0x80;

enum class MsgType : uint8_t {
    kRegister = 16,
    kSubscribeBegin = 17,
    kSubscribeData = 18,
    kSubscribeEnd = 19,
    kUnsubscribeData = 20,
    kVerifySubscribeBegin = 21,
    kVerifySubscribeEnd = 22,
    kSmoothBegin = 23,
    kSmoothData = 24,
    kSmoothEnd = 25,
    kRealUpdate = 26,
    kVerifyDataBegin = 27,
    kVerifyDataEnd = 28,
    kSequenceError = 29
};

/* Reads numbers and bytes front to back.  A read past the end yields zero or nothing, and Ok() is false
 * from then on. */
class Reader {
public:
    explicit Reader(ByteView bytes) : bytes_(bytes) {}

    uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
    uint32_t U32() { return Number(4); }
    ByteView Take(size_t count);

    [[nodiscard]] bool Ok() const { return ok_; }
    [[nodiscard]] bool AtEnd() const { return bytes_.empty(); }

private:
    uint32_t Number(size_t width);

    ByteView bytes_;
    bool ok_ = true;
};

/* Appends numbers and bytes to a buffer, which stays the caller's. */
class Writer {
public:
    explicit Writer(Bytes &out) : out_(out) {}

    void U8(uint8_t value) { out_.push_back(value); }
    void U16(uint16_t value);
    void U32(uint32_t value);
    void Append(ByteView bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
    void Fill(size_t count, uint8_t value) { out_.insert(out_.end(), count, value); }

    /* The head of an element whose value of length bytes follows. */
    void Head(uint16_t type, size_t length);

private:
    Bytes &out_;
};

/* A received message; body points into the received bytes. */
struct Message {
    MsgType type = {};
    bool ack = false;
    uint32_t transNumber = 0;
    uint32_t sequenceNum = 0;
    ByteView body;
};

/* Reads a message that was delivered as exactly these bytes.  Returns nothing, and in wrong the reason,
 * when they are none. */
[[nodiscard]] std::optional<Message> ReadMessage(ByteView bytes, std::string &wrong);

/* Reads the items that the subscription records of a body name; their data bytes are of no use here.
 * Returns nothing, and in wrong the reason, when any record is malformed. */
[[nodiscard]] std::optional<std::vector<Item>> ReadItems(ByteView body, std::string &wrong);

/* Returns the item whose key is this number, and the number that a key is: nothing unless it has four
 * bytes. */
[[nodiscard]] Item ItemOf(Topic topic, uint32_t index);
[[nodiscard]] std::optional<uint32_t> KeyIndex(const Item &item);

/* Writes the header over the first kHeaderLen bytes of message, whose size becomes its length.
 * REQUIRES: kHeaderLen <= message.size() <= 65535. */
void WriteHeader(Bytes &message, MsgType type, uint8_t flags, uint32_t transNumber, uint32_t sequenceNum);

/* Returns the type of a message that WriteHeader completed, and whether it is an acknowledgement. */
[[nodiscard]] MsgType TypeOf(const Bytes &message);
[[nodiscard]] bool IsAck(const Bytes &message);

} // namespace pegeir::component

#endif
