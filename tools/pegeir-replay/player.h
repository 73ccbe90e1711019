/*
 * The session played into a library instance on the sim platform, one step at a time.
 */
#ifndef PEGEIR_REPLAY_PLAYER_H
#define PEGEIR_REPLAY_PLAYER_H

#include <cstdarg>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pegeir/pegeir.h>
#include <pegeir/sim.hpp>

#include "consumer.h"
#include "counters.h"
#include "session.h"

namespace pegeir::replay {

// Something that came of a step.
struct Event {
    enum class Kind : uint8_t { kSent, kState, kRecord, kNotify, kPack, kRefused };
    Kind kind = Kind::kSent;
    std::string text;                   // in words
    uint32_t code = 0;                  // receiver, notification or answer
    uint16_t type = 0;                  // of a record
    Bytes bytes = {};                   // of a message or a record
    std::vector<Request> requests = {}; // made in answering
};

// Where the library does not do what it did: a message, or what is wrong in words.
struct Difference {
    std::string text;
    std::optional<Sent> then;
    std::optional<Sent> now;
};

// A step as it was played.
struct Played {
    size_t index = 0;            // of the step in the session
    std::vector<Request> before; // requests made ahead of it
    bool pass = false;           // a verification pass was allowed
    std::vector<Event> events = {};
    std::optional<Difference> difference = std::nullopt; // the first one of the step
};

class Player {
public:
    // The session must outlive the player.  There is one player at a time.
    explicit Player(const Session &aSession);
    ~Player();
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    // Plays the step; the steps are played in order.
    [[nodiscard]] Played Play(size_t index);

    // The pages of the diagnose reports, up to so many.
    [[nodiscard]] std::vector<std::string> Diagnose(size_t most = SIZE_MAX);

    // Releases the instance.  Returns what was leaked and which rules of the platform were broken, a line
    // each.
    [[nodiscard]] std::string Finish();

private:
    struct Callbacks; // the C side of the members below

    void SetClocks(const Step &step);
    void RefuseAsThen(const Step &step);
    void Feed(const Step &step);
    void FeedMessage(const sim::Record &record);
    void OnSent(const sim::Record &record);
    void OnLog(const char *format, va_list arguments) ND_LIB_PRINTF(2, 0);
    uint32_t OnPack();
    void Request(const replay::Request &request);
    void CheckCounters(const Step &step);
    void Differs(const std::string &text, const Sent *then, const Sent *now);

    const Session &session;
    sim::World world;
    Consumer consumer;
    Counters counters;
    ND_LIB_Instance *instance = nullptr;
    std::optional<sim::Record> expiry; // of the library's timer, to be handed over when one is due

    Played played;                      // the present step
    std::vector<const Sent *> accepted; // what went out on it then
    size_t matched = 0;                 // messages of it that have gone out now
};

} // namespace pegeir::replay

#endif
