// A model of the library, and the steps that a run does to both.
//
// A step is five numbers, so that a run is a vector that can be replayed, shortened and printed as code.
// What a step means for a message is relative to the model at that moment ("an acknowledgement of the last
// number", "data with the expected number"), so that it stays sensible when steps before it are taken away.
//
// Modelled are all calls, messages, times, and failures of memory, messages, sends and the timer, each
// exactly where the library meets it.  Not modelled: the log and the trace boxes, diagnose pages, the order of
// the data entries of one key, and failures while an instance is made.
#ifndef PEGEIR_TESTS_MODEL_MODEL_H
#define PEGEIR_TESTS_MODEL_MODEL_H

#include <array>
#include <memory>
#include <random>
#include <tuple>

#include "support/driver.hpp"

namespace pegeir::tests::model {

enum class Do : uint8_t {
    kRegister,
    kSubscribe,   // a: which item, b: data bytes
    kUnSubscribe, // likewise
    kOptionData,  // a: bytes
    kComponent,   // a: the state notified
    kVerify,      // a: 1 starts, 0 stops
    kCycle,       // a: seconds
    kConsumer,    // a: answer to a collection, b: items it subscribes, c: data bytes, d: mood bits: 1 refuses
                  // verification, 2 and 4 make requests in each event and in each record
    kAck,         // a: type, b: taken from the last number, d: twist
    kAckRecords, // a: taken from the last number, b: bits of pending items left out, c: 1 unsubscribe, d: twist
    kStream,     // a: type, b: added to the expected number, c: records, d: twist
    kTick,       // a: seconds, b: 1 hands over all timer messages at the end
    kClock,      // a: seconds added to the clock at once
    kNumber,     // a: the last transaction number, down from 2^32
    kFail,       // a: a Service, b: calls that still succeed, c: calls that then fail, less one
    kRenew,      // destroys the instance and makes another; faults end
};

enum Service : uint32_t { kMalloc, kMsgAlloc, kSend, kTimerCreate, kTimerDelete };

struct Step {
    Do what;
    uint32_t a = 0, b = 0, c = 0, d = 0;
    bool operator==(const Step &) const = default;
};
using Steps = std::vector<Step>;

// A step made concrete: bytes are the data of the item id, the option data, or a message with sub-interface a
// and sender b.
struct Call : Step {
    Bytes id = {}, bytes = {};
};

struct Entry {
    Bytes data;
    uint32_t kind = 0, sends = 0, stamp = 0, due = 0;
    bool operator==(const Entry &) const = default;
};

// clang-format off
enum Number : size_t {
    kState, kNextSend, kSendCount, kTrans, kSequence, kCompState, kNeedVerify, kCycle, kNextVerify, kNow, kMaxKey,
    kMaxValue, kSubscribes, kUnsubscribes, kFlowState, kFlowStart, kFlowEnd, kFlowCount, kRecords, kTimer, kOption,
    kNumbers };
// clang-format on
enum List : size_t { kSubscribing, kUnsubscribing, kWaiting, kTmp, kLists }; // kLists is none of them

// 's' a message sent to number, 'p' a collection with option data, 'e' an event, 'r' a record of type number,
// '=' a result, '!' something that must not be.
using Happening = std::tuple<char, uint32_t, Bytes>;

// All that is compared after a step.
struct View {
    std::vector<uint32_t> numbers, statistics;
    std::vector<std::array<uint32_t, 3>> history;
    std::map<Bytes, Entry> store; // by item
    std::array<std::vector<Bytes>, kLists> lists;
    std::vector<Happening> happened; // in the latest step
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

    Step consumer = {Do::kConsumer, 2};
    View view;
};

// Mistakes that a model can be given, to see them found.
enum class Flaw { kNone, kPacing, kAnyStamp };

std::unique_ptr<Subject> MakeModel(Flaw flaw);
std::unique_ptr<Subject> MakeLibrary(); // in a World of its own; one at a time

// The wire.
uint32_t Read(const Bytes &from, size_t at, size_t bytes);
Bytes Record(const Bytes &id, const Bytes &data);
Bytes Cut(const Bytes &from, size_t at, size_t bytes);
std::vector<size_t> Elements(const Bytes &message); // where each begins

Call Resolve(const Step &step, const View &model);
// A step that may come next: mostly one that leads on, else anything, seldom one that ends every course.
Step MakeUp(std::mt19937 &random, uint32_t longest, uint32_t state);
// The steps as code, and the lines of view that are not in other.
std::string Code(const Steps &steps);
std::string Difference(const View &view, const View &other);

} // namespace pegeir::tests::model

#endif
