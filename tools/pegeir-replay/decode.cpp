/*
 * The wire is read with the library's own reader, the component's records with that of pegeir-watch.
 */
#include "decode.h"

#include <array>
#include <functional>
#include <variant>

#include "output.h"
#include "records.h"
#include "tlv/ndpi.h"

namespace pegeir::replay {
namespace {

using watch::HexText;

constexpr std::array<const char *, 14> kTypeNames = {
    "register",         "subscribe begin",   "subscribe data",  "subscribe end", "unsubscribe data",
    "verify begin",     "verify end",        "smooth begin",    "smooth data",   "smooth end",
    "real-time update", "verify data begin", "verify data end", "sequence error"};

bool IsControl(uint8_t type) {
    return type >= NDPI_MSG_REGISTER && type <= NDPI_MSG_SEQUENCE_ERROR;
}

bool HoldsRequests(uint8_t type) {
    return type == NDPI_MSG_SUBSCRIBE_DATA || type == NDPI_MSG_UNSUBSCRIBE_DATA;
}

std::string TypeText(const Kind &kind) {
    return std::to_string(kind.type) + ' ' +
           (IsControl(kind.type) ? kTypeNames.at(kind.type - NDPI_MSG_REGISTER) : "unknown") +
           (kind.ack ? " acknowledgement" : "");
}

// Visits each element of the body, which ends where the header says as it does for the library, and returns
// what is left over behind the last.
ByteView ForEachElement(ByteView message, const std::function<void(uint16_t, ByteView)> &visit) {
    if (message.size() < NDPI_HEADER_LEN) {
        return message;
    }
    const size_t length = std::min<size_t>(message.size(), ndpi::ReadHeader(message.data()).msgLen);
    if (length < NDPI_HEADER_LEN) {
        return message.subspan(NDPI_HEADER_LEN);
    }
    ByteView rest = message.subspan(NDPI_HEADER_LEN, length - NDPI_HEADER_LEN);
    while (rest.size() >= ndpi::kTlvHeadLen) {
        const uint16_t valueLength = wire::LoadU16(rest.data() + 2);
        if (rest.size() - ndpi::kTlvHeadLen < valueLength) {
            break;
        }
        visit(wire::LoadU16(rest.data()), rest.subspan(ndpi::kTlvHeadLen, valueLength));
        rest = rest.subspan(ndpi::kTlvHeadLen + valueLength);
    }
    return message.last(message.size() - length + rest.size());
}

// Reads the value of a subscription record.  The data bytes may be missing, as they may in an
// acknowledgement.
bool ReadRequest(ByteView value, Request &request) {
    wire::Reader reader(value.data(), value.size());
    uint16_t keyLen = 0;
    uint16_t dataLen = 0;
    const uint8_t *key = nullptr;
    if (!reader.U16(request.keyType) || !reader.U16(keyLen) || (key = reader.Bytes(keyLen)) == nullptr ||
        !reader.U16(request.dataType) || !reader.U16(dataLen)) {
        return false;
    }
    request.key.assign(key, key + keyLen);
    if (const uint8_t *const data = reader.Bytes(dataLen)) {
        request.data.assign(data, data + dataLen);
    }
    return true;
}

} // namespace

Kind KindOf(ByteView message) {
    if (message.size() < NDPI_HEADER_LEN) {
        return {};
    }
    const ndpi::Header header = ndpi::ReadHeader(message.data());
    return {header.msgType, header.IsAck(), header.transNumber};
}

std::vector<Request> RequestsOf(ByteView message) {
    std::vector<Request> requests;
    const Kind kind = KindOf(message);
    const uint8_t type = kind.type;
    if (HoldsRequests(type)) {
        (void)ForEachElement(message, [&](uint16_t element, ByteView value) {
            Request request;
            request.subscribe = type == NDPI_MSG_SUBSCRIBE_DATA;
            // Of what is acknowledged the library does not look at the type of the element.
            if ((kind.ack || element == NDPI_TLV_SUBSCRIBE_RECORD) && ReadRequest(value, request)) {
                requests.push_back(std::move(request));
            }
        });
    }
    return requests;
}

std::string RecordText(uint16_t type, ByteView value) {
    const auto decoded = watch::DecodeRecord(type, value);
    if (const auto *const record = std::get_if<watch::Record>(&decoded)) {
        return watch::ItemText(record->item, {}) + (record->gone ? " [gone]" : "");
    }
    return "type " + std::to_string(type) + ", " + std::to_string(value.size()) + " bytes " + HexText(value);
}

std::string RequestText(const Request &request) {
    return "key " + std::to_string(request.keyType) + ' ' + HexText(request.key) + ", data " +
           std::to_string(request.dataType) + (request.data.empty() ? "" : ' ' + HexText(request.data));
}

std::string MessageText(ByteView message) {
    if (message.size() < NDPI_HEADER_LEN) {
        return std::to_string(message.size()) + " bytes, too few for a message: " + HexText(message);
    }
    const ndpi::Header header = ndpi::ReadHeader(message.data());
    size_t elements = 0;
    (void)ForEachElement(message, [&elements](uint16_t, ByteView) { ++elements; });
    std::string text = TypeText(KindOf(message)) + ", number " + std::to_string(header.transNumber);
    if (header.sequenceNum != 0) {
        text += ", sequence " + std::to_string(header.sequenceNum);
    }
    if (elements != 0) {
        text += ", " + std::to_string(elements) + (elements == 1 ? " record" : " records");
    }
    return text;
}

std::vector<Field> MessageFields(ByteView message) {
    if (message.size() < NDPI_HEADER_LEN) {
        return {{"bytes", HexText(message)}};
    }
    const ndpi::Header header = ndpi::ReadHeader(message.data());
    std::vector<Field> fields = {{"type", TypeText(KindOf(message))},
                                 {"length", std::to_string(header.msgLen)},
                                 {"flags", HexText(message.subspan(ndpi::kFlagsOffset, 1))},
                                 {"number", std::to_string(header.transNumber)},
                                 {"reserved", HexText(message.subspan(8, 4))},
                                 {"sequence", std::to_string(header.sequenceNum)}};
    if (header.msgLen != message.size()) {
        fields.push_back({"sent bytes", std::to_string(message.size())});
    }
    const bool requests = HoldsRequests(header.msgType);
    size_t record = 0;
    const ByteView rest = ForEachElement(message, [&](uint16_t type, ByteView value) {
        Request request;
        const bool readable = requests && type == NDPI_TLV_SUBSCRIBE_RECORD && ReadRequest(value, request);
        fields.push_back({"record " + std::to_string(++record),
                          readable ? RequestText(request) : RecordText(type, value)});
    });
    if (!rest.empty()) {
        fields.push_back({"left over", HexText(rest)});
    }
    return fields;
}

} // namespace pegeir::replay
