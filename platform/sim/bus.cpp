// The bus: messages, their envelopes, and their way from a send to a handler.
//
// The data area of a message is a block of its own, exactly as long as the message, and the envelope
// stands in a table beside it, so that a sanitizer guards both ends of the data.  A platform that takes
// liberties has it begin and end within a block.

#include "state.hpp"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace pegeir::sim {
namespace {

constexpr std::uint32_t kLongestMessage = 65535;

Record CopyOf(const LiveMessage &message, const void *data, std::uint32_t length) {
    Record record = message.envelope;
    record.allocated = message.size;
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    record.bytes.assign(bytes, bytes + length);
    return record;
}

void *MakeReceived(State &state, const Record &record) {
    Record envelope = record;
    envelope.bytes = {};
    const auto size = static_cast<std::uint32_t>(record.bytes.size());
    if (state.options.liberties.anyAnswers) {
        envelope.intf = Anything(state); // which nobody looks at
        const std::uint32_t iid = Anything(state);
        envelope.iid = record.iid == kTimerIid || iid == kTimerIid ? record.iid : iid;
    }
    void *data = MakeMessage(state, std::move(envelope), size, true, {"received", 0});
    if (size > 0) {
        std::memcpy(data, record.bytes.data(), size);
    }
    return data;
}

} // namespace

void *MakeMessage(State &state, Record envelope, std::uint32_t size, bool received, Place place) {
    const bool odd = state.options.liberties.oddMessages;
    const std::size_t before = odd ? 1 + 2 * Below(state, 4) : 0;
    const std::size_t behind = odd ? 1 + Below(state, 32) : 0;
    auto *memory = static_cast<std::uint8_t *>(std::malloc(before + size + behind));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(memory, kMessagePattern, before + size + behind);
    state.messages.emplace(memory + before,
                           LiveMessage{std::move(envelope), size, received, place, memory, behind});
    return memory + before;
}

LiveMessage *FindMessage(State &state, const void *data, const char *call) {
    const auto found = state.messages.find(data);
    if (found != state.messages.end()) {
        LiveMessage &message = found->second;
        if (message.behind != 0) {
            Scribble(state,
                     const_cast<std::uint8_t *>(static_cast<const std::uint8_t *>(data)) + message.size,
                     message.behind);
        }
        return &message;
    }
    Violation(state, std::string(call) + " on what is no live message");
    return nullptr;
}

void ReleaseMessage(State &state, const void *data) {
    const auto found = state.messages.find(data);
    void *memory = found->second.memory;
    state.messages.erase(found);
    Retire(state, memory);
}

void Enqueue(State &state, Record record, bool expiry, std::uint64_t dueMs) {
    state.queue.emplace(dueMs, Queued{std::move(record), expiry});
}

void World::Attach(std::uint32_t pid, Handler handler) {
    state->processes[pid] = std::move(handler);
}
void World::AttachTimers(std::uint32_t timerHandle, Handler handler) {
    state->timerHandlers[timerHandle] = std::move(handler);
}
void World::Detach(std::uint32_t pid) {
    state->processes.erase(pid);
}
void World::DetachTimers(std::uint32_t timerHandle) {
    state->timerHandlers.erase(timerHandle);
}
void World::SetLink(Link link) {
    state->link = std::move(link);
}

void World::Post(Record record, std::uint64_t delayMs) {
    Enqueue(*state, std::move(record), false, state->uptimeMs + delayMs);
}

void World::Send(Record record) {
    if (!state->link) {
        Post(std::move(record));
        return;
    }
    const Link link = state->link; // which may replace itself
    link(*this, std::move(record));
}

namespace {

// Moves what is due for nobody out of the queue, into the list it is looked for in.
void SortOut(State &state, bool expiry) {
    auto &handlers = expiry ? state.timerHandlers : state.processes;
    auto &list = expiry ? state.expiries : state.sent;
    const auto end = state.queue.upper_bound(state.uptimeMs);
    for (auto item = state.queue.begin(); item != end;) {
        if (item->second.expiry == expiry && !handlers.contains(item->second.record.receiver)) {
            list.push_back(std::move(item->second.record));
            item = state.queue.erase(item);
        } else {
            ++item;
        }
    }
}

} // namespace

std::vector<Record> World::TakeSent() {
    SortOut(*state, false);
    return std::exchange(state->sent, {});
}

std::vector<Record> World::TakeExpiries() {
    SortOut(*state, true);
    return std::exchange(state->expiries, {});
}

bool World::Step() {
    while (!state->queue.empty() && state->queue.begin()->first <= state->uptimeMs) {
        const Queued item = std::move(state->queue.begin()->second);
        state->queue.erase(state->queue.begin());
        const auto &handlers = item.expiry ? state->timerHandlers : state->processes;
        const auto found = handlers.find(item.record.receiver);
        if (found == handlers.end()) {
            (item.expiry ? state->expiries : state->sent).push_back(item.record);
            continue;
        }
        const Handler handler = found->second; // which may detach itself
        const Message message(*this, item.record);
        handler(message.Data());
        return true;
    }
    return false;
}

Message::Message(World &world, const Record &record)
    : state(world.state.get()), data(MakeReceived(*state, record)) {}

Message::~Message() {
    if (data != nullptr) {
        ReleaseMessage(*state, data);
    }
}

Message::Message(Message &&other) noexcept : state(other.state), data(std::exchange(other.data, nullptr)) {}

void *Message::Data() const {
    return data;
}

} // namespace pegeir::sim

using namespace pegeir::sim;

void *ZEP_MsgFlowCtrlAlloc_F(uint32_t sender, uint32_t receiver, uint32_t size, const char *source,
                             uint32_t line) {
    State &state = Here();
    if (CountCall(state, Op::kMsgAlloc)) {
        return nullptr;
    }
    if (size == 0 || size > kLongestMessage) {
        Violation(state, At({source, line}) + " allocates a message of " + std::to_string(size) + " bytes");
        return nullptr;
    }
    Record envelope;
    envelope.sender = sender;
    envelope.receiver = envelope.cid = receiver;
    envelope.intf = envelope.subIntf = 0; // the sender has to set them
    return MakeMessage(state, std::move(envelope), size, false, {source, line});
}

uint32_t ZEP_SEND_MSG(uint32_t receiver, uint32_t arg1, uint32_t arg2, void *message, uint32_t length) {
    State &state = Here();
    const auto failure = CountCall(state, Op::kSend);
    LiveMessage *live = FindMessage(state, message, "ZEP_SEND_MSG");
    if (live == nullptr) {
        return kRefused;
    }
    if (live->received) {
        Violation(state, "ZEP_SEND_MSG of a received message");
        return kRefused;
    }
    uint32_t result = failure ? failure->code : 0;
    if (length > live->size) {
        Violation(state, "ZEP_SEND_MSG of " + std::to_string(length) + " bytes of a message of " +
                             std::to_string(live->size) + " bytes from " + At(live->place));
        result = kRefused;
    }
    Record record;
    if (result == 0) {
        record = CopyOf(*live, message, length);
        record.receiver = receiver;
        record.arg1 = arg1;
        record.arg2 = arg2;
    }
    ReleaseMessage(state, message);
    if (result == 0) {
        state.world->Send(std::move(record));
    }
    return result;
}

void DMS_MsgFree(uint32_t owner, void *message) {
    State &state = Here();
    const LiveMessage *live = FindMessage(state, message, "DMS_MsgFree");
    if (live == nullptr) {
        return;
    }
    if (live->received || live->envelope.sender != owner) {
        Violation(state, "DMS_MsgFree by " + std::to_string(owner) + " of a message of " +
                             std::to_string(live->envelope.sender) + " from " + At(live->place));
        return;
    }
    ReleaseMessage(state, message);
}

uint32_t DMS_MsgSendCidGet(const void *message) {
    const LiveMessage *live = FindMessage(Here(), message, "DMS_MsgSendCidGet");
    return live == nullptr ? 0 : live->envelope.sender;
}

void DMS_MsgRecvCidSet(void *message, uint32_t cid) {
    if (LiveMessage *live = FindMessage(Here(), message, "DMS_MsgRecvCidSet")) {
        live->envelope.cid = cid;
    }
}

uint32_t DMS_MsgRecvIidGet(const void *message) {
    const LiveMessage *live = FindMessage(Here(), message, "DMS_MsgRecvIidGet");
    return live == nullptr ? 0 : live->envelope.iid;
}

void DMS_ZEP_MSG_SET_INTF(void *message, uint32_t value) {
    if (LiveMessage *live = FindMessage(Here(), message, "DMS_ZEP_MSG_SET_INTF")) {
        live->envelope.intf = value;
    }
}

void DMS_ZEP_MSG_SET_SUB_INTF(void *message, uint32_t value) {
    if (LiveMessage *live = FindMessage(Here(), message, "DMS_ZEP_MSG_SET_SUB_INTF")) {
        live->envelope.subIntf = value;
    }
}

uint32_t DMS_ZEP_MSG_GET_SUB_INTF(const void *message) {
    const LiveMessage *live = FindMessage(Here(), message, "DMS_ZEP_MSG_GET_SUB_INTF");
    return live == nullptr ? 0 : live->envelope.subIntf;
}

uint32_t DMS_MsgDataLenGet(const void *message) {
    const LiveMessage *live = FindMessage(Here(), message, "DMS_MsgDataLenGet");
    return live == nullptr ? 0 : live->size;
}
