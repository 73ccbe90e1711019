/* Byte order and bounds, in as few lines as they take. */
#include "protocol/wire.h"

#include "protocol/report.h"

#include <algorithm>

namespace pegeir::component {

namespace {

constexpr size_t kFlagsOffset = 2;
constexpr size_t kTypeOffset = 3;
constexpr uint16_t kSubscribeRecord = 18;

} // namespace

ByteView Reader::Take(size_t count) {
    if (count > bytes_.size()) {
        ok_ = false;
        bytes_ = {};
        return {};
    }
    const ByteView taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
}

uint32_t Reader::Number(size_t width) {
    uint32_t value = 0;
    for (const uint8_t byte : Take(width)) {
        value = value << 8U | byte;
    }
    return value;
}

void Writer::U16(uint16_t value) {
    U8(static_cast<uint8_t>(value >> 8U));
    U8(static_cast<uint8_t>(value));
}

void Writer::U32(uint32_t value) {
    U16(static_cast<uint16_t>(value >> 16U));
    U16(static_cast<uint16_t>(value));
}

void Writer::Head(uint16_t type, size_t length) {
    U16(type);
    U16(static_cast<uint16_t>(length));
}

std::optional<Message> ReadMessage(ByteView bytes, std::string &wrong) {
    if (bytes.size() < kHeaderLen) {
        wrong = Text(bytes.size(), " bytes, shorter than a header");
        return std::nullopt;
    }
    Reader reader(bytes);
    const uint16_t length = reader.U16();
    if (length != bytes.size()) {
        wrong = Text("the header says ", length, " bytes, ", bytes.size(), " were delivered");
        return std::nullopt;
    }
    Message message;
    message.ack = (reader.U8() & kAckFlag) != 0;
    const unsigned type = reader.U8();
    if (type < unsigned{static_cast<uint8_t>(MsgType::kRegister)} ||
        type > unsigned{static_cast<uint8_t>(MsgType::kSequenceError)}) {
        wrong = Text("no message has type ", type);
        return std::nullopt;
    }
    message.type = static_cast<MsgType>(type);
    message.transNumber = reader.U32();
    (void)reader.U32();
    message.sequenceNum = reader.U32();
    message.body = bytes.subspan(kHeaderLen);
    return message;
}

std::optional<std::vector<Item>> ReadItems(ByteView body, std::string &wrong) {
    std::vector<Item> items;
    Reader reader(body);
    while (!reader.AtEnd()) {
        const uint16_t type = reader.U16();
        Reader value(reader.Take(reader.U16()));
        Item item;
        item.topic.keyType = value.U16();
        const ByteView key = value.Take(value.U16());
        item.topic.dataType = value.U16();
        (void)value.Take(value.U16());
        if (!reader.Ok() || !value.Ok() || !value.AtEnd() || type != kSubscribeRecord) {
            wrong = Text("subscription record ", items.size() + 1, " is malformed");
            return std::nullopt;
        }
        item.key.assign(key.begin(), key.end());
        items.push_back(std::move(item));
    }
    return items;
}

Item ItemOf(Topic topic, uint32_t index) {
    std::string key;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        key.push_back(static_cast<char>(index >> shift & 0xFFU));
    }
    return {topic, key};
}

std::optional<uint32_t> KeyIndex(const Item &item) {
    if (item.key.size() != sizeof(uint32_t)) {
        return std::nullopt;
    }
    uint32_t index = 0;
    for (const char byte : item.key) {
        index = index << 8U | static_cast<uint8_t>(byte);
    }
    return index;
}

void WriteHeader(Bytes &message, MsgType type, uint8_t flags, uint32_t transNumber, uint32_t sequenceNum) {
    Bytes header;
    Writer writer(header);
    writer.U16(static_cast<uint16_t>(message.size()));
    writer.U8(flags);
    writer.U8(static_cast<uint8_t>(type));
    writer.U32(transNumber);
    writer.U32(0);
    writer.U32(sequenceNum);
    std::copy(header.begin(), header.end(), message.begin());
}

MsgType TypeOf(const Bytes &message) {
    return static_cast<MsgType>(message[kTypeOffset]);
}

bool IsAck(const Bytes &message) {
    return (message[kFlagsOffset] & kAckFlag) != 0;
}

} // namespace pegeir::component
