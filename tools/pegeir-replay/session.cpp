/*
 * Whose session it is follows from the registration, the one message that only a consumer sends first.
 */
#include "session.h"

#include <algorithm>
#include <set>

#include "tlv/ndpi.h"

namespace pegeir::replay {
namespace {

constexpr uint32_t kTimerPeriodMs = 1000; // of the library's one timer

bool IsMessage(const Packet &packet, uint8_t direction) {
    return packet.Is(PEGEIR_CAPTURE_MESSAGE, direction) && packet.subIntf == NDPI_MSG_SUB_INTF;
}

// Finds the process and its component.
bool FindWho(const Recording &recording, Session &session, std::string &error) {
    bool serves = false;
    const Packet *watch = nullptr;
    for (const Packet &packet : recording.packets) {
        const bool registers = KindOf(packet.data).IsRequest(NDPI_MSG_REGISTER);
        if (IsMessage(packet, PEGEIR_CAPTURE_OUT) && registers) {
            session.process = packet.sender;
            session.component = packet.receiver;
            return true;
        }
        serves = serves || (IsMessage(packet, PEGEIR_CAPTURE_IN) && registers);
        if (watch == nullptr && packet.Is(PEGEIR_CAPTURE_PEER, PEGEIR_CAPTURE_IN)) {
            watch = &packet;
        }
    }
    if (serves) {
        error = "this is a component's recording; only a consumer's can be played back";
    } else if (watch == nullptr) {
        error = "there is nothing to play back: the recorded process saw no component";
    } else {
        session.process = watch->receiver; // it never registered
        session.component = watch->sender;
        return true;
    }
    return false;
}

void ReadStart(const Packet &packet, Session &session) {
    wire::Reader reader(packet.data.data(), packet.data.size());
    uint32_t processId = 0;
    uint32_t offset = 0;
    uint16_t length = 0;
    const uint8_t *name = nullptr;
    if (reader.U32(processId) && reader.U32(offset) && reader.U16(length) &&
        (name = reader.Bytes(length)) != nullptr) {
        session.utcOffset = static_cast<int32_t>(offset);
        session.program.assign(name, name + length);
    }
}

// Distributes the packets over the steps.
class Builder {
public:
    explicit Builder(Session &aSession) : session(aSession) {}

    void Add(const Packet &packet) {
        if (packet.Process() != session.process) {
            ++foreign;
            return;
        }
        if (packet.number != nextNumber) {
            session.notes.push_back("packets are missing before packet " + std::to_string(packet.position) +
                                    ": what is different from there on may be due to that");
        }
        nextNumber = packet.number + 1;
        if (packet.number == 0 || !begun) {
            begun = true;
            beginMs = packet.clockMs;
        }
        ended = packet.kind == PEGEIR_CAPTURE_END;
        switch (packet.kind) {
        case PEGEIR_CAPTURE_START:
            ReadStart(packet, session);
            break;
        case PEGEIR_CAPTURE_MESSAGE:
            packet.direction == PEGEIR_CAPTURE_IN ? Begin(Input::kMessage, packet) : AddSent(packet);
            break;
        case PEGEIR_CAPTURE_PEER:
            fresh = false;
            if (packet.sender == session.component) {
                Begin(Word(packet, 0) != 0 ? Input::kAvailable : Input::kGone, packet);
            }
            break;
        case PEGEIR_CAPTURE_EXPIRY:
            Begin(timers.contains(Word(packet, 0)) ? Input::kSecond : Input::kOtherTimer, packet);
            break;
        case PEGEIR_CAPTURE_TIMER:
            AddTimer(packet);
            break;
        case PEGEIR_CAPTURE_CLOCK:
            // The library reads the clock at once; later than that, it was the consumer.
            if (fresh && packet.clockMs < session.steps.back().packet.clockMs + 1000) {
                session.steps.back().seconds = packet.seconds;
            }
            break;
        default:
            break;
        }
    }

    void Finish() {
        if (foreign != 0) {
            session.notes.push_back(std::to_string(foreign) + " packets of other processes are left out");
        }
        if (!session.steps.empty() && !ended && !released) {
            session.steps.back().complete = false;
        }
        for (Step &step : session.steps) {
            if (step.input == Input::kMessage && step.packet.sender != session.component) {
                step.handedOn = !step.sent.empty();
            }
        }
    }

private:
    static uint32_t Word(const Packet &packet, size_t index) {
        wire::Reader reader(packet.data.data(), packet.data.size());
        uint32_t word = 0;
        for (size_t i = 0; i <= index; ++i) {
            if (!reader.U32(word)) {
                return 0;
            }
        }
        return word;
    }

    void Begin(Input input, const Packet &packet) {
        fresh = !released;
        if (released) {
            return;
        }
        Step step;
        step.input = input;
        step.packet = packet;
        step.atMs = packet.clockMs - std::min(packet.clockMs, beginMs);
        step.seconds = packet.seconds;
        session.steps.push_back(std::move(step));
    }

    void AddSent(const Packet &packet) {
        fresh = false;
        if (packet.subIntf != NDPI_MSG_SUB_INTF || released) {
            return;
        }
        if (session.steps.empty()) {
            session.notes.push_back("packet " + std::to_string(packet.position) +
                                    " was sent before anything came in; it is left out");
            return;
        }
        session.steps.back().sent.push_back(
            {packet.position, packet.receiver, packet.intf, packet.subIntf, packet.result, packet.data});
    }

    // The library makes its timer when its component has come and ends it when that goes; ended at any
    // other time, it went with the instance.  Other timers are the consumer's own.
    void AddTimer(const Packet &packet) {
        fresh = false;
        const uint32_t id = Word(packet, 1);
        if (session.steps.empty() || released) {
            return;
        }
        Step &step = session.steps.back();
        if (Word(packet, 0) == PEGEIR_CAPTURE_TIMER_CREATE) {
            if (step.input == Input::kAvailable && step.timersMade.empty() &&
                Word(packet, 2) == kTimerPeriodMs) {
                step.timersMade.push_back(packet.result);
                timers.insert(id);
            }
        } else if (timers.contains(id) && step.input == Input::kGone) {
            step.timersEnded.push_back(packet.result);
        } else if (timers.contains(id)) {
            released = true;
        }
    }

    Session &session;
    std::set<uint32_t> timers; // of the library
    uint64_t beginMs = 0;
    uint32_t nextNumber = 0;
    size_t foreign = 0;
    bool begun = false;
    bool fresh = false;    // the step has begun and nothing has come of it yet
    bool ended = false;    // the last packet told the end
    bool released = false; // the instance has been deleted
};

} // namespace

bool Step::Sends(uint8_t type) const {
    return std::ranges::any_of(sent, [type](const Sent &one) { return KindOf(one.bytes).IsRequest(type); });
}

bool Step::Receives(uint8_t type, bool ack) const {
    const Kind kind = KindOf(packet.data);
    return input == Input::kMessage && kind.type == type && kind.ack == ack;
}

std::optional<Session> MakeSession(const Recording &recording, std::string &error) {
    Session session;
    if (!FindWho(recording, session, error)) {
        return std::nullopt;
    }
    Builder builder(session);
    for (const Packet &packet : recording.packets) {
        builder.Add(packet);
    }
    builder.Finish();
    const auto comes = [](const Step &step) { return step.input == Input::kAvailable; };
    const bool registers =
        std::ranges::any_of(session.steps, [](const Step &step) { return step.Sends(NDPI_MSG_REGISTER); });
    if (registers && std::ranges::none_of(session.steps, comes)) {
        error = "the recording does not show component " + std::to_string(session.component) +
                " coming, which the library was told of in another way; that cannot be played back";
        return std::nullopt;
    }
    return session;
}

} // namespace pegeir::replay
