// What a World is made of, for the files that implement it; users see pegeir/sim.hpp alone.
//
// Each file owns one concern: faults.cpp decides whether a call fails, liberties.cpp what is left to chance,
// memory.cpp accounts for blocks, boxes.cpp keeps what is traced, bus.cpp messages and their way, link.cpp
// makes that way a bad one, clock.cpp and timers.cpp are about time, tree.cpp and text.cpp about what all
// platforms share.
// They meet in State, which has no invariants beyond those of its parts.
#ifndef PEGEIR_SIM_STATE_HPP
#define PEGEIR_SIM_STATE_HPP

#include <pegeir/sim.hpp>

#include <array>
#include <deque>
#include <map>
#include <random>
#include <unordered_map>

namespace pegeir::sim {

inline constexpr int kMemoryPattern = 0xA5;
inline constexpr int kFreedPattern = 0xDD;
inline constexpr int kMessagePattern = 0xC3;
inline constexpr std::uint32_t kRefused = 1; // error code of calls that break the contract

// What a failing call does.
struct Failure {
    std::uint32_t code;
    std::optional<std::uint32_t> shorten;
};

struct Rule {
    Fault fault;
    std::mt19937_64 random;
    std::uint64_t firstFailureMs = kForever;
    bool lifted = false;
};

struct Place {
    const char *source;
    std::uint32_t line;
};

struct Block {
    Place place;
    std::uint32_t size;
    std::uint32_t memHandle;
    std::uint8_t partition;
    bool box;
    std::uint64_t serial;
};

struct LiveMessage {
    Record envelope; // bytes unused: they lie in the data area
    std::uint32_t size;
    bool received;
    Place place;
    std::uint8_t *memory; // that the data area lies in
    std::size_t behind;   // bytes of it behind the data area
};

// A box that takes liberties, beside the object that the library knows it by.
struct WilfulBox {
    std::uint32_t size;
    std::string text = {};
    std::size_t reader = 0;
    std::size_t counted = 0; // in the content length, beside the text
};

struct Queued {
    Record record;
    bool expiry; // for a handler of timers, else for a process
};

struct TimerLib {
    std::uint32_t timerHandle;
    APPTMR_ExpiryFunc expiry;
};

struct Timer {
    std::uint32_t instance;
    std::uint32_t periodMs;
    std::uint64_t dueMs;
    void *param;
    bool lookedUp = false; // and not deleted since
};

struct State {
    World *world = nullptr;
    Options options;

    std::vector<Rule> rules;
    std::array<std::uint64_t, kOps> calls{};
    std::uint64_t allCalls = 0;
    std::uint64_t failures = 0;
    std::vector<Op> callLog;

    std::mt19937_64 whim; // of liberties

    std::uint64_t uptimeMs = 0;
    std::uint32_t seconds = 1000; // at secondsSetMs
    std::uint64_t secondsSetMs = 0;
    std::int64_t wallMs = 0; // Unix time at uptime 0
    std::int32_t zoneMinutes = 0;
    std::int32_t clockOff = 0; // seconds that the monotonic clock errs

    std::unordered_map<void *, Block> blocks;
    std::unordered_map<void *, Place> freed; // where a retired block was freed
    std::deque<void *> retired;              // see Retire
    std::uint64_t blockSerial = 0;
    std::uint64_t liveBytes = 0;
    std::uint64_t peakBytes = 0;
    std::uint64_t noBytes = 0; // live answers to requests for none, where they share one
    std::unordered_map<const void *, WilfulBox> boxes;

    std::unordered_map<const void *, LiveMessage> messages;
    std::map<std::uint32_t, Handler> processes;
    std::map<std::uint32_t, Handler> timerHandlers;
    std::multimap<std::uint64_t, Queued> queue; // by due time; equal times in order of arrival
    std::vector<Record> sent;
    std::vector<Record> expiries;
    Link link;

    std::uint32_t lastTimerId = 0; // of libraries, instances and timers alike
    std::map<std::uint32_t, TimerLib> timerLibs;
    std::map<std::uint32_t, std::uint32_t> timerInstances; // and their libraries
    std::map<std::uint32_t, Timer> timers;

    std::vector<Assertion> assertions;
    std::vector<std::string> violations;
};

// The state of the World that exists; ends the program when there is none.
State &Here();

// Counts a call of op and tells whether and how it fails.
std::optional<Failure> CountCall(State &state, Op op);

// Draws once; true with this probability.
bool Chance(std::mt19937_64 &random, double probability);

// Whether the World takes liberties at all: what costs nothing else asks this first.
extern bool takesLiberties;
std::uint32_t Anything(State &state);
std::uint32_t Below(State &state, std::uint32_t limit); // any number below limit
// Returns what an answer without a promised value is.
std::uint32_t AnyAnswer(std::uint32_t expected);
std::uint32_t AnyError(State &state, std::uint32_t code); // never 0
void Scribble(State &state, void *bytes, std::size_t count);

void Violation(State &state, std::string text);
std::string At(const Place &place);

void *AllocateBlock(State &state, Place place, std::uint32_t size, std::uint32_t memHandle,
                    std::uint8_t partition, bool box);
void FreeBlock(State &state, void *memory, Place place, bool box);
// Takes memory that is in use no more.  It is not handed out again soon, so that a second release of
// it cannot be mistaken for the release of a newer block at the same address.
void Retire(State &state, void *memory);
void ReleaseAll(State &state);

void *MakeMessage(State &state, Record envelope, std::uint32_t size, bool received, Place place);
// Returns the live message at data; null, with a violation in the name of `call`, when there is none.
LiveMessage *FindMessage(State &state, const void *data, const char *call);
void ReleaseMessage(State &state, const void *data);

// Puts a message on its way, past the link.
void Enqueue(State &state, Record record, bool expiry, std::uint64_t dueMs);

// Queues the messages of all expiries up to `untilMs`; tells when the next one is.
void ExpireTimers(State &state, std::uint64_t untilMs);
std::uint64_t NextExpiryMs(const State &state);
std::string TimerLeaks(const State &state);

std::optional<std::int64_t> UnixMs(const SysTime &time);

} // namespace pegeir::sim

#endif
