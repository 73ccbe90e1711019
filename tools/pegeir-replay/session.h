/*
 * A recording as a session of one library instance: what it was fed, step by step, and what it sent on
 * each.
 *
 * Everything that the library does, it does because of something that comes in.  So each packet of a
 * message, of a peer's coming or going, or of an expiry begins a step, and what went out up to the next one
 * belongs to it.
 */
#ifndef PEGEIR_REPLAY_SESSION_H
#define PEGEIR_REPLAY_SESSION_H

#include <optional>
#include <string>
#include <vector>

#include "capture_file.h"
#include "decode.h"

namespace pegeir::replay {

// A message that the library sent, or that the platform refused to send.
struct Sent {
    uint64_t position = 0; // in the file
    uint32_t receiver = 0;
    uint32_t intf = 0;
    uint32_t subIntf = 0;
    uint32_t result = 0; // 0: it was sent
    Bytes bytes;
};

enum class Input : uint8_t { kMessage, kAvailable, kGone, kSecond, kOtherTimer };

struct Step {
    Input input = Input::kMessage;
    Packet packet;                    // that began it
    uint64_t atMs = 0;                // since the recording began
    uint32_t seconds = 0;             // the clock as the library read it
    bool handedOn = true;             // to the library; a stranger's message may have been kept back
    std::vector<Sent> sent;           // in order
    std::vector<uint32_t> timersMade; // results of the requests to the timer service
    std::vector<uint32_t> timersEnded;
    bool complete = true; // the recording shows everything that came of the step

    [[nodiscard]] bool Sends(uint8_t type) const; // a request of that type, accepted or not
    // Got a message of that type.
    [[nodiscard]] bool Receives(uint8_t type, bool ack) const;
};

struct Session {
    uint32_t process = 0;
    uint32_t component = 0;
    std::string program; // empty: the recording does not tell
    int32_t utcOffset = 0;
    std::vector<Step> steps;
    std::vector<std::string> notes; // what of the recording is not in it
};

// Takes the consumer's session out of a recording.  Returns nothing, with the reason in error, when it
// holds none.
[[nodiscard]] std::optional<Session> MakeSession(const Recording &recording, std::string &error);

} // namespace pegeir::replay

#endif
