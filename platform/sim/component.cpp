// The component's side of the protocol, without any code of the library's: a mistake of one would
// otherwise be a mistake of both.

#include <pegeir/sim_component.hpp>

#include <utility>

namespace pegeir::sim {
namespace {

constexpr std::size_t kHeaderLen = 16;
constexpr std::uint8_t kAckFlag = 0x80;
constexpr std::uint64_t kRepeatMs = 3000;

enum Type : std::uint8_t {
    kRegister = 16,
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

void Put(Component::Bytes &bytes, std::uint32_t value, unsigned width) {
    while (width-- != 0) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * width)));
    }
}

// Reads one field behind the other; what does not fit is not there.
class Fields {
public:
    explicit Fields(const Component::Bytes &someBytes) : bytes(someBytes) {}

    std::optional<std::uint32_t> Number(unsigned width) {
        if (bytes.size() - at < width) {
            return std::nullopt;
        }
        std::uint32_t value = 0;
        while (width-- != 0) {
            value = value << 8 | bytes[at++];
        }
        return value;
    }
    std::optional<Component::Bytes> Counted() { // a length and so many bytes
        const auto length = Number(2);
        if (!length || bytes.size() - at < *length) {
            return std::nullopt;
        }
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        at += *length;
        return Component::Bytes(first, first + static_cast<std::ptrdiff_t>(*length));
    }

private:
    const Component::Bytes &bytes;
    std::size_t at = 0;
};

Component::Bytes KeyRecord(const ItemName &item) {
    Component::Bytes record;
    record.reserve(4 + item.key.size());
    Put(record, item.dataType, 2);
    Put(record, static_cast<std::uint32_t>(item.key.size()), 2);
    record.insert(record.end(), item.key.begin(), item.key.end());
    return record;
}

} // namespace

Component::Component(World &aWorld, std::uint32_t aPid, std::uint32_t aConsumer, std::uint32_t firstNumber)
    : recordOf(KeyRecord), world(aWorld), pid(aPid), consumer(aConsumer), trans(firstNumber),
      seq(firstNumber) {
    world.Attach(pid, [this](void *message) {
        const auto *data = static_cast<const std::uint8_t *>(message);
        const Bytes bytes(data, data + DMS_MsgDataLenGet(message));
        if (DMS_MsgSendCidGet(message) == pid) { // its own reminder
            Repeat(Fields(bytes).Number(4).value_or(0));
            return;
        }
        beforeMessage();
        Take(bytes);
    });
}

Component::~Component() {
    world.Detach(pid);
}

void Component::Restart() {
    items.clear();
    unconfirmed.clear();
    updates.clear();
    awaited.reset();
    newest.reset();
}

void Component::Update(Bytes elements) {
    updates.push_back(std::move(elements));
    SendAwaited(kRealUpdate);
}

void Component::Take(const Bytes &bytes) {
    Fields header(bytes);
    const std::size_t length = header.Number(2).value_or(0);
    if (length < kHeaderLen || length > bytes.size()) {
        return;
    }
    Message message;
    message.flags = static_cast<std::uint8_t>(*header.Number(1));
    message.type = static_cast<std::uint8_t>(*header.Number(1));
    message.trans = *header.Number(4);
    message.body.assign(bytes.begin() + kHeaderLen, bytes.begin() + static_cast<std::ptrdiff_t>(length));
    (message.flags & kAckFlag) != 0 ? TakeAck(message) : TakeRequest(message);
}

void Component::TakeRequest(const Message &request) {
    constexpr std::uint32_t kWindow = 64; // numbers further back are of another sequence
    if (newest ? *newest - request.trans < kWindow : request.type != kRegister) {
        return;
    }
    newest = request.trans;
    const bool carriesRecords = request.type == kSubscribeData || request.type == kUnsubscribeData;
    Send({request.type, request.trans, 0, carriesRecords ? request.body : Bytes{}, kAckFlag});
    switch (request.type) {
    case kRegister:
        Restart();
        newest = request.trans;
        break;
    case kSubscribeData:
    case kUnsubscribeData:
        Change(request);
        break;
    case kVerifySubscribeBegin:
        awaited.reset();
        for (const auto &[name, data] : items) {
            unconfirmed.insert(name);
        }
        break;
    case kVerifySubscribeEnd:
        for (const ItemName &name : std::exchange(unconfirmed, {})) {
            items.erase(name);
        }
        StartDownload(kVerifyDataBegin);
        break;
    case kSubscribeEnd:
    case kSequenceError:
        StartDownload(kSmoothBegin);
        break;
    default:
        break;
    }
}

void Component::Change(const Message &request) {
    Fields body(request.body);
    while (body.Number(2)) { // the type of the element
        const auto record = body.Counted();
        if (!record) {
            return;
        }
        Fields fields(*record);
        const auto keyType = fields.Number(2);
        const auto key = fields.Counted();
        const auto dataType = fields.Number(2);
        const auto data = fields.Counted();
        if (!key || !data) {
            continue;
        }
        const ItemName name = {static_cast<std::uint16_t>(*keyType), *key,
                               static_cast<std::uint16_t>(*dataType)};
        unconfirmed.erase(name);
        if (request.type == kSubscribeData) {
            items[name] = *data;
        } else {
            items.erase(name);
        }
    }
}

void Component::TakeAck(const Message &ack) {
    if (!awaited || awaited->type != ack.type || awaited->trans != ack.trans) {
        return;
    }
    awaited.reset();
    if (ack.type == kSmoothBegin) {
        SendData(kSmoothEnd);
    } else if (ack.type == kVerifyDataBegin) {
        SendData(kVerifyDataEnd);
    } else if (ack.type == kRealUpdate) {
        updates.erase(updates.begin());
    }
    SendAwaited(kRealUpdate);
}

void Component::StartDownload(std::uint8_t beginType) {
    awaited.reset();
    download.clear();
    for (const auto &[name, data] : items) {
        download.push_back(recordOf(name));
    }
    ++seq; // so that no number of an earlier download fits this one
    SendAwaited(beginType);
}

void Component::SendData(std::uint8_t endType) {
    seq += std::exchange(gap, false) ? 1U : 0U;
    Bytes body;
    for (const Bytes &record : download) {
        if (!body.empty() && body.size() + record.size() > mostBody) {
            Send({kSmoothData, ++trans, seq++, std::exchange(body, {})});
        }
        body.insert(body.end(), record.begin(), record.end());
    }
    if (!body.empty()) {
        Send({kSmoothData, ++trans, seq++, std::move(body)});
    }
    SendAwaited(endType);
}

void Component::Send(const Message &message) {
    Record record;
    record.sender = pid;
    record.receiver = record.cid = consumer;
    Put(record.bytes, static_cast<std::uint32_t>(kHeaderLen + message.body.size()), 2);
    Put(record.bytes, message.flags, 1);
    Put(record.bytes, message.type, 1);
    Put(record.bytes, message.trans, 4);
    Put(record.bytes, 0, 4);
    Put(record.bytes, message.seq, 4);
    record.bytes.insert(record.bytes.end(), message.body.begin(), message.body.end());
    world.Send(std::move(record));
}

// Updates wait for their turn; everything else takes the place of what was awaited.
void Component::SendAwaited(std::uint8_t type) {
    const bool isUpdate = type == kRealUpdate;
    if (isUpdate && (awaited || updates.empty())) {
        return;
    }
    awaited = Message{type, ++trans, seq, isUpdate ? updates.front() : Bytes{}};
    Repeat(trans);
}

// Sends what is awaited under that number, and reminds itself to do so again.
void Component::Repeat(std::uint32_t number) {
    if (!awaited || awaited->trans != number) {
        return;
    }
    Send(*awaited);
    Record reminder;
    reminder.sender = reminder.receiver = pid;
    Put(reminder.bytes, number, 4);
    world.Post(std::move(reminder), kRepeatMs);
}

} // namespace pegeir::sim
