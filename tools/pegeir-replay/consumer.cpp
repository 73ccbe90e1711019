/*
 * Looking ahead in the recording for what the consumer must have answered.
 */
#include "consumer.h"

#include <algorithm>
#include <iterator>

#include <pegeir/pegeir.h>

#include "tlv/ndpi.h"

namespace pegeir::replay {
namespace {

constexpr uint32_t kPackNeither = 1; // an answer that takes no step

// No upload, or none any more, that the step could belong to.
bool EndsUpload(const Step &step) {
    return step.input == Input::kGone || step.Sends(NDPI_MSG_SUBSCRIBE_END) ||
           step.Sends(NDPI_MSG_VERIFY_SUBSCRIBE_END) || step.Sends(NDPI_MSG_REGISTER);
}

} // namespace

// A pass begins with the timeout before the one that sends the first begin of its upload.
Consumer::Consumer(const Session &aSession) : session(aSession), begins(aSession.steps.size()) {
    bool passing = false;
    std::optional<size_t> second;
    for (size_t i = 0; i < session.steps.size(); ++i) {
        const Step &step = session.steps[i];
        if (step.Sends(NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN) && !passing && second) {
            begins[*second] = true;
            passing = true;
        } else if (step.input == Input::kGone || step.Receives(NDPI_MSG_VERIFY_DATA_END, false) ||
                   step.Receives(NDPI_MSG_SMOOTH_BEGIN, false)) {
            passing = false;
        }
        if (step.input == Input::kSecond) {
            second = i;
        }
    }
}

std::vector<Request> Consumer::Before(size_t index) {
    const Step &step = session.steps.at(index);
    Settle(step);
    std::vector<Request> made;
    for (const Sent &sent : step.sent) {
        const Kind kind = KindOf(sent.bytes);
        if (kind.ack) {
            continue;
        }
        for (Request &request : RequestsOf(sent.bytes)) {
            const auto [place, isNew] = pending.try_emplace({request.keyType, request.key, request.dataType});
            Pending &known = place->second;
            const bool again = !isNew && known.subscribe == request.subscribe && known.data == request.data;
            known = {request.subscribe, request.data, kind.number};
            if (!again && uploaded != index) {
                made.push_back(std::move(request));
            }
        }
    }
    return made;
}

void Consumer::Settle(const Step &step) {
    if (step.input == Input::kGone) {
        pending.clear();
    }
    const Kind kind = KindOf(step.packet.data);
    if (step.input != Input::kMessage || !kind.ack) {
        return;
    }
    for (const Request &request : RequestsOf(step.packet.data)) {
        const auto found = pending.find({request.keyType, request.key, request.dataType});
        if (found != pending.end() && found->second.number == kind.number) {
            pending.erase(found);
        }
    }
}

Consumer::Answer Consumer::Pack(size_t index) {
    Answer answer = {Code(index), {}};
    if (answer.code != ND_LIB_PACK_DONE) {
        return answer;
    }
    for (size_t i = index + 1; i < session.steps.size() && !EndsUpload(session.steps[i]); ++i) {
        for (const Sent &sent : session.steps[i].sent) {
            if (!KindOf(sent.bytes).ack) {
                std::ranges::move(RequestsOf(sent.bytes), std::back_inserter(answer.requests));
            }
        }
        if (!answer.requests.empty()) {
            uploaded = i;
            break;
        }
    }
    return answer;
}

// Done: the next second sends the begin of the upload.  Otherwise the question comes again, in a second
// or, when the registration goes out once more before, with its next acknowledgement.
uint32_t Consumer::Code(size_t index) const {
    bool seconds = false;
    for (size_t i = index + 1; i < session.steps.size(); ++i) {
        const Step &step = session.steps[i];
        if (step.input == Input::kGone || step.Sends(NDPI_MSG_SUBSCRIBE_BEGIN) ||
            step.Sends(NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN)) {
            break;
        }
        if (step.Sends(NDPI_MSG_REGISTER)) {
            return kPackNeither;
        }
        seconds = seconds || step.input == Input::kSecond;
    }
    return seconds ? ND_LIB_PACK_MORE : ND_LIB_PACK_DONE;
}

} // namespace pegeir::replay
