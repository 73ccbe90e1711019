#include "support/component.hpp"

#include <algorithm>
#include <utility>

namespace pegeir::tests {

PlayedComponent::PlayedComponent(sim::World &aWorld, uint32_t firstNumber)
    : world(aWorld), trans(firstNumber), seq(firstNumber) {
    world.Attach(Driver::kNd, [this](void *message) {
        const auto *bytes = static_cast<const uint8_t *>(message);
        const Bytes copy(bytes, bytes + DMS_MsgDataLenGet(message));
        onMessage();
        Take(copy);
    });
}

void PlayedComponent::Restart() {
    items.clear();
    updates.clear();
    awaited.reset();
    newest.reset();
}

void PlayedComponent::Update(const Bytes &value) {
    updates.push_back(Tlv(kUpdateRecord, value));
    SendAwaited(NDPI_MSG_REAL_UPDATE);
}

void PlayedComponent::Tick() {
    constexpr uint32_t kRepeatSeconds = 3;
    if (awaited && ++age % kRepeatSeconds == 0) {
        Send(*awaited);
    }
}

void PlayedComponent::Take(const Bytes &bytes) {
    if (bytes.size() < NDPI_HEADER_LEN) {
        return;
    }
    const auto header = ndpi::ReadHeader(bytes.data());
    if (header.msgLen < NDPI_HEADER_LEN || header.msgLen > bytes.size()) {
        return;
    }
    const Ndpi message = {header.msgType, header.transNumber, header.sequenceNum,
                          Bytes(bytes.begin() + NDPI_HEADER_LEN, bytes.begin() + header.msgLen),
                          header.flags};
    message.IsAck() ? TakeAck(message) : TakeRequest(message);
}

void PlayedComponent::TakeRequest(const Ndpi &request) {
    constexpr uint32_t kWindow = 64; // numbers further back are none of an earlier request
    const bool known = newest ? *newest - request.trans >= kWindow : request.type == NDPI_MSG_REGISTER;
    if (!known) {
        return;
    }
    newest = request.trans;
    const bool carriesRecords =
        request.type == NDPI_MSG_SUBSCRIBE_DATA || request.type == NDPI_MSG_UNSUBSCRIBE_DATA;
    Send({.type = request.type,
          .trans = request.trans,
          .body = carriesRecords ? request.body : Bytes{},
          .flags = NDPI_ACK_FLAG});
    switch (request.type) {
    case NDPI_MSG_REGISTER:
        Restart();
        newest = request.trans;
        break;
    case NDPI_MSG_SUBSCRIBE_DATA:
    case NDPI_MSG_UNSUBSCRIBE_DATA:
        Change(request);
        break;
    case NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN:
        awaited.reset();
        ++pass;
        break;
    case NDPI_MSG_VERIFY_SUBSCRIBE_END:
        std::erase_if(items, [this](const auto &item) { return item.second.pass != pass; });
        StartDownload(NDPI_MSG_VERIFY_DATA_BEGIN);
        break;
    case NDPI_MSG_SUBSCRIBE_END:
    case NDPI_MSG_SEQUENCE_ERROR:
        StartDownload(NDPI_MSG_SMOOTH_BEGIN);
        break;
    default:
        break;
    }
}

void PlayedComponent::Change(const Ndpi &request) {
    wire::Reader body(request.body.data(), request.body.size());
    uint16_t type = 0;
    uint16_t len = 0;
    while (body.U16(type) && body.U16(len)) {
        const uint8_t *value = body.Bytes(len);
        wire::Reader record(value, value == nullptr ? 0 : len);
        Item item;
        uint16_t keyLen = 0;
        uint16_t dataLen = 0;
        const uint8_t *key = nullptr;
        const uint8_t *data = nullptr;
        if (!record.U16(item.keyType) || !record.U16(keyLen) || (key = record.Bytes(keyLen)) == nullptr ||
            !record.U16(item.dataType) || !record.U16(dataLen) || (data = record.Bytes(dataLen)) == nullptr) {
            continue;
        }
        item.key.assign(key, key + keyLen);
        if (request.type == NDPI_MSG_SUBSCRIBE_DATA) {
            items[item.Identity()] = {Bytes(data, data + dataLen), pass};
        } else {
            items.erase(item.Identity());
        }
    }
}

void PlayedComponent::TakeAck(const Ndpi &ack) {
    if (!awaited || awaited->type != ack.type || awaited->trans != ack.trans) {
        return;
    }
    awaited.reset();
    if (ack.type == NDPI_MSG_SMOOTH_BEGIN) {
        SendData(NDPI_MSG_SMOOTH_END);
    } else if (ack.type == NDPI_MSG_VERIFY_DATA_BEGIN) {
        SendData(NDPI_MSG_VERIFY_DATA_END);
    } else if (ack.type == NDPI_MSG_REAL_UPDATE) {
        updates.erase(updates.begin());
    }
    SendAwaited(NDPI_MSG_REAL_UPDATE);
}

void PlayedComponent::StartDownload(uint8_t beginType) {
    awaited.reset();
    lastDownload.clear();
    for (const auto &[identity, kept] : items) {
        lastDownload.push_back(
            {kDownloadRecord,
             Bytes(identity.begin(), identity.begin() + std::min<ptrdiff_t>(8, std::ssize(identity)))});
    }
    ++seq; // so that no number of an earlier download fits this one
    SendAwaited(beginType);
}

void PlayedComponent::SendData(uint8_t endType) {
    const size_t perMessage = std::min<size_t>(lastDownload.size() / 4 + 1, 600);
    seq += std::exchange(leaveGap, false) ? 1U : 0U;
    for (size_t first = 0; first < lastDownload.size(); first += perMessage) {
        Bytes body;
        for (size_t i = first; i < std::min(first + perMessage, lastDownload.size()); ++i) {
            const Bytes record = Tlv(lastDownload[i].type, lastDownload[i].value);
            body.insert(body.end(), record.begin(), record.end());
        }
        Send({.type = NDPI_MSG_SMOOTH_DATA, .trans = ++trans, .seq = seq++, .body = body});
    }
    SendAwaited(endType);
}

void PlayedComponent::Send(const Ndpi &message) {
    sim::Record record;
    record.sender = Driver::kNd;
    record.receiver = Driver::kApp;
    record.bytes = message.Wire();
    world.Send(std::move(record));
}

// Updates wait for their turn; everything else replaces what was awaited.
void PlayedComponent::SendAwaited(uint8_t type) {
    const bool isUpdate = type == NDPI_MSG_REAL_UPDATE;
    if (isUpdate && (awaited || updates.empty())) {
        return;
    }
    age = 0;
    awaited = Ndpi{.type = type, .trans = ++trans, .seq = seq, .body = isUpdate ? updates[0] : Bytes{}};
    Send(*awaited);
}

} // namespace pegeir::tests
