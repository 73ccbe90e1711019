#include "map_client.hpp"

#include "tlv/wire.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace pegeir::bench {
namespace {

void PutU16(Bytes &to, size_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

Bytes Copy(const ND_LIB_ItemHead *head) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(head + 1);
    return {bytes, bytes + head->len};
}

} // namespace

bool MapClient::Key::operator<(const Key &other) const {
    return std::forward_as_tuple(type, bytes.size(), bytes) <
           std::forward_as_tuple(other.type, other.bytes.size(), other.bytes);
}

// One line to the trace and to the log, as the library writes both of most things.
void MapClient::Trace(const char *format, ...) {
    SysTime gmt{};
    SysTime local{};
    uint32_t flag = 1;
    (void)ZEP_GMT_SystimeGet(&gmt);
    (void)ZEP_Gmt2LocalTime(&gmt, &local, &flag);
    const int east = (local.hour * 60 + local.minute) - (gmt.hour * 60 + gmt.minute);
    const int distance = std::abs(east) > 720 ? 1440 - std::abs(east) : std::abs(east);
    char zone[16] = "";
    if (distance != 0) {
        (void)snprintf(zone, sizeof zone, "-%02d:%02d", distance / 60, distance % 60);
    }
    char line[256];
    const int stamp = snprintf(line, sizeof line, "%u-%u %u:%u:%u:%u%s ", local.month, local.day, local.hour,
                               local.minute, local.second, local.millisecond, zone);
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(line + stamp, sizeof line - static_cast<size_t>(stamp), format, arguments);
    va_end(arguments);
    box.emplace_back(line);
    boxBytes += box.back().size() + 1;
    while (boxBytes > 100 * 1024) {
        boxBytes -= box.front().size() + 1;
        box.pop_front();
    }
    log.Print("[ND_LIB] NdPid=0X%X, %s", Consumer::kNd, line + stamp);
}

void MapClient::MoveTo(Queue &queue, Item &item) {
    if (item.queue != nullptr) {
        queue.splice(queue.end(), *item.queue, item.place);
    } else {
        item.place = queue.insert(queue.end(), &item);
    }
    item.queue = &queue;
}

void MapClient::Subscribe(const ND_LIB_ItemHead *key, const ND_LIB_ItemHead *data) {
    Trace("ND_LIB_Subscribe start");
    const auto [place, isNew] = store.try_emplace(Key{key->type, Copy(key)});
    auto &items = place->second;
    auto item =
        std::find_if(items.begin(), items.end(), [&](const auto &i) { return i->type == data->type; });
    if (item == items.end()) {
        items.push_back(std::make_unique<Item>(Item{.key = &place->first, .type = data->type, .bytes = {}}));
        item = items.end() - 1;
    }
    (*item)->bytes = Copy(data);
    (*item)->sends = 0;
    (*item)->stamp = 0;
    maxKey = std::max<size_t>(maxKey, key->len + 4U);
    maxData = std::max<size_t>(maxData, data->len + 4U);
    MoveTo(pending, **item);
    Trace("ND_LIB_Subscribe end success");
}

void MapClient::Close(std::vector<Bytes> &messages, Bytes &message, uint32_t now) {
    message[0] = static_cast<uint8_t>(message.size() >> 8);
    message[1] = static_cast<uint8_t>(message.size());
    message[3] = NDPI_MSG_SUBSCRIBE_DATA;
    ++number;
    wire::StoreU32(message.data() + 4, number);
    Trace("ND_LIB_SendMsg msgType:%u, msgLen:%zu", 18U, message.size());
    messages.push_back(std::move(message));
    while (!sending.empty()) {
        Item &item = *sending.front();
        MoveTo(waiting, item);
        Trace("send sub key: %u, len: %zu, data type:%u, len:%zu", item.key->type, item.key->bytes.size(),
              item.type, item.bytes.size());
        item.stamp = number;
        item.sends = static_cast<uint8_t>(std::min(item.sends + 1, 255));
        item.nextSend = now + std::min(2U * item.sends, 120U);
    }
}

std::vector<Bytes> MapClient::Send(uint32_t now) {
    std::vector<Bytes> messages;
    Bytes message(NDPI_HEADER_LEN);
    while (!pending.empty()) {
        if (message.size() + 4 + maxKey + maxData > ND_LIB_MSG_MAX_LEN) {
            Close(messages, message, now);
            message.assign(NDPI_HEADER_LEN, 0);
        }
        Item &item = *pending.front();
        PutU16(message, NDPI_TLV_SUBSCRIBE_RECORD);
        PutU16(message, 8 + item.key->bytes.size() + item.bytes.size());
        PutU16(message, item.key->type);
        PutU16(message, item.key->bytes.size());
        message.insert(message.end(), item.key->bytes.begin(), item.key->bytes.end());
        PutU16(message, item.type);
        PutU16(message, item.bytes.size());
        message.insert(message.end(), item.bytes.begin(), item.bytes.end());
        MoveTo(sending, item);
    }
    if (message.size() > NDPI_HEADER_LEN) {
        Close(messages, message, now);
    }
    return messages;
}

void MapClient::ReceiveAck(const Bytes &message) {
    const uint32_t stamp = wire::LoadU32(message.data() + 4);
    Trace("ProcSubAndUnsubAck msgType=%u, msgLen=%zu", message[3], message.size());
    for (size_t offset = NDPI_HEADER_LEN; offset + 4 <= message.size();) {
        const uint16_t length = wire::LoadU16(message.data() + offset + 2);
        Trace("ProcSubAndUnsubAck tlvType=%u, tlvLen=%u", wire::LoadU16(message.data() + offset), length);
        wire::Reader reader(message.data() + offset + 4, length);
        uint16_t keyType = 0;
        uint16_t keyLen = 0;
        uint16_t dataType = 0;
        if (reader.U16(keyType) && reader.U16(keyLen)) {
            if (const uint8_t *key = reader.Bytes(keyLen); key != nullptr && reader.U16(dataType)) {
                Settle(keyType, key, keyLen, dataType, stamp);
            }
        }
        offset += 4U + length;
    }
}

void MapClient::Settle(uint16_t keyType, const uint8_t *key, uint16_t keyLen, uint16_t dataType,
                       uint32_t stamp) {
    const auto place = store.find(Key{keyType, Bytes(key, key + keyLen)});
    if (place == store.end()) {
        return;
    }
    auto &items = place->second;
    const auto item =
        std::find_if(items.begin(), items.end(), [&](const auto &i) { return i->type == dataType; });
    if (item == items.end() || (*item)->sends == 0 || (*item)->stamp != stamp) {
        return;
    }
    (*item)->queue->erase((*item)->place);
    items.erase(item);
    if (items.empty()) {
        store.erase(place);
    }
}

} // namespace pegeir::bench
