// A model of the library, and the steps that a run does to both.
//
// A step is five numbers, so that a run is a vector that can be replayed, shortened and printed as code.
// What a step means for a message is relative to the model at that moment ("an acknowledgement of the last
// number", "data with the expected number"), so that it stays sensible when steps before it are taken away.
//
// Modelled are all calls, messages, times, and failures of memory, messages, sends and the timer, each
// exactly where the library meets it.  Not modelled: the log and the trace boxes, diagnose pages, bad
// arguments, the order of the data entries of one key, and failures while an instance is made.
#ifndef PEGEIR_TESTS_MODEL_MODEL_H
#define PEGEIR_TESTS_MODEL_MODEL_H

#include <array>
#include <memory>
#include <tuple>

#include "support/driver.hpp"

namespace pegeir::tests::model {

//  kRegister
//  kSubscribe    a: which item, b: data bytes
//  kUnSubscribe  likewise
//  kOptionData   a: bytes
//  kComponent    a: the state notified
//  kVerify       a: 1 starts, 0 stops
//  kCycle        a: seconds
//  kConsumer     a: answer to a collection, b: items it subscribes, c: data bytes, d: mood, of bits: 1 refuses
//                verification, 2 and 4 make requests in each event and in each record
//  kAck          a: type, b: taken from the last number, d: twist
//  kAckRecords   a: taken from the last number, b: bits of pending items left out, c: 1 unsubscribe, d: twist
//  kStream       a: type, b: added to the expected number, c: records, d: twist
//  kTick         a: seconds, b: 1 hands over all timer messages at the end
//  kClock        a: seconds added to the clock at once
//  kNumber       a: the last transaction number, down from 2^32
//  kFail         a: what fails (kFallible), b: calls that still succeed, c: calls that then fail, less one
//  kRenew        destroys the instance and makes another; faults end
// clang-format off
enum class Do : uint8_t {
    kRegister, kSubscribe, kUnSubscribe, kOptionData, kComponent, kVerify, kCycle, kConsumer, kAck, kAckRecords,
    kStream, kTick, kClock, kNumber, kFail, kRenew };
enum Number : size_t {
    kState, kNextSend, kSendCount, kTrans, kSequence, kCompState, kNeedVerify, kCycle, kNextVerify, kNow, kMaxKey,
    kMaxValue, kSubscribes, kUnsubscribes, kFlowState, kFlowStart, kFlowEnd, kFlowCount, kRecords, kTimer, kOption,
    kNumbers };
// clang-format on
enum List : uint32_t { kSubscribing, kUnsubscribing, kWaiting, kTmp, kNone };
inline constexpr std::array kFallible = {sim::Op::kMalloc, sim::Op::kMsgAlloc, sim::Op::kSend,
                                         sim::Op::kTimerCreate, sim::Op::kTimerDelete};

struct Step {
    Do what;
    uint32_t a = 0, b = 0, c = 0, d = 0;
    bool operator==(const Step &) const = default;
};
using Steps = std::vector<Step>;

// A step made concrete: its item and, in bytes, the option data or a message with sub-interface a and sender b.
struct Call : Step {
    Item item = {};
    Bytes bytes = {};
};

struct Entry {
    Bytes id, data;
    uint32_t list = kNone, kind = 0, sends = 0, stamp = 0, due = 0;
    bool operator==(const Entry &) const = default;
};

// All that is compared after a step.
struct View {
    std::vector<uint32_t> numbers, statistics;
    std::vector<std::array<uint32_t, 3>> history;
    std::vector<Entry> entries; // by list, on each in order, those on none by id
    // In the latest step: 's' a message sent to number, 'p' a collection with option data, 'e' an event, 'r' a
    // record of type number, '=' a result, '!' something that must not be.
    std::vector<std::tuple<char, uint32_t, Bytes>> happened;
    bool operator==(const View &) const = default;
};

// What steps are done to: the library, and the model.
class Subject {
public:
    virtual ~Subject() = default;
    virtual void Apply(const Call &call) = 0;
    virtual const View &Look() = 0;

    void Tell(char what, uint32_t number, const Bytes &bytes = {}) {
        view.happened.emplace_back(what, number, bytes);
    }
    // The consumer's callbacks: they tell, and behave as Do::kConsumer said.
    uint32_t Collect(const Bytes &optionData);
    uint32_t Hear(char what, uint32_t number, const Bytes &bytes = {});
    // Brings the entries into the order of View.
    const View &Sorted();

    Step consumer = {Do::kConsumer, 2};
    View view;
};

// Mistakes that a model can be given, to see them found.
enum class Flaw { kNone, kPacing, kAnyStamp };

// On a platform that takes these liberties; the library in a World of its own, one at a time.
std::unique_ptr<Subject> MakeModel(Flaw flaw, const sim::Liberties &liberties);
std::unique_ptr<Subject> MakeLibrary(const sim::Liberties &liberties);

uint32_t Read(const Bytes &from, size_t at, size_t bytes);
Bytes Cut(const Bytes &from, size_t at, size_t bytes);
Bytes IdOf(const Item &item);
Bytes Record(const Bytes &id, const Bytes &data);
std::vector<size_t> Elements(const Bytes &message); // where each begins

Call Resolve(const Step &step, const View &model);
std::string Code(const Steps &steps, uint32_t seed);
std::string Difference(const View &library, const View &model);
std::ostream &operator<<(std::ostream &out, const Entry &entry);

// Returns a step that may come next in state: mostly one that leads on, else anything, seldom one that ends
// every course.  upto returns a random number up to another one.
Step MakeUp(const std::function<uint32_t(uint32_t)> &upto, uint32_t longest, uint32_t state);

} // namespace pegeir::tests::model

#endif
