// The sim platform: the contract of pegeir/platform.h on a virtual clock and an in-memory bus.
//
// Nothing here depends on the machine: time passes only when the test says so, messages are delivered
// in one fixed order, chance comes from seeds.  Every call that can fail on a real platform can be
// counted and made to fail; every block, message and timer is accounted to the module and line that
// asked for it; what breaks the contract is written down and never crashes the test.
//
// Link libpegeir and this library, make a World, and test a consumer in it:
//
//     #include <pegeir/pegeir.h>
//     #include <pegeir/sim.hpp>
//
//     namespace sim = pegeir::sim;
//
//     // A registration whose first send is refused is repeated; nothing leaks.  Returns true if so.
//     bool RegistrationIsRepeated(const ND_LIB_FrameRegister &frame, const ND_LIB_ConsumerRegister &consumer) {
//         sim::World world;
//         ND_LIB_Instance *nd = ND_LIB_Init(&frame);
//         const auto feed = [nd](void *message) { ND_LIB_MsgProcess(nd, message); };
//         world.Attach(frame.appPid, feed);            // what is sent to the consumer
//         world.AttachTimers(frame.timerHandle, feed); // its timer messages
//         ND_LIB_RegisterConsumer(nd, &consumer);
//
//         world.FailNext(sim::Op::kSend);
//         const ND_LIB_CompState up = {0, ND_LIB_COMP_AVAILABLE};
//         ND_LIB_NotifyNdCompState(nd, &up);
//         const bool refused = world.TakeSent().empty();
//         world.Run(5000); // five seconds, five timer messages
//         const auto sent = world.TakeSent();
//         const bool repeated = !sent.empty() && sent[0].receiver == frame.ndPid && sent[0].bytes.size() == 16;
//
//         ND_LIB_Deinit(nd);
//         return refused && repeated && world.Leaks().empty() && world.Violations().empty();
//     }
//
// One thread, one World at a time.  The platform operations act on the World that exists; called
// without one they end the program with a message.  Instances of the library and the component's side
// can share a World: each is a process with an id of its own.
#ifndef PEGEIR_SIM_HPP
#define PEGEIR_SIM_HPP

#include <pegeir/platform.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pegeir::sim {

// ---- What can fail -------------------------------------------------------------------------------

// The fallible operations, each with its answer to a failure.
enum class Op : std::uint8_t {
    kMalloc,              // ZEP_Malloc_F: null
    kMsgAlloc,            // ZEP_MsgFlowCtrlAlloc_F: null
    kSend,                // ZEP_SEND_MSG: Fault::code; the message is released
    kTimerCreateLib,      // APPTMR_CreateLib2: 0
    kTimerCreateInstance, // APPTMR_CreateInstance: 0
    kTimerCreate,         // APPTMR_CreatePeriodTimer: 0
    kTimerDelete,         // APPTMR_DeleteTimer: Fault::code; the timer goes on
    kCreateBlackBox,      // CreateBlackBox: null
    kWriteBlackBox,       // WriteBlackBox: -1, nothing written
    kReadBlackBox,        // ReadBlockFromBlackBox: -1, or a short read (Fault::shorten)
    kGmtGet,              // ZEP_GMT_SystimeGet: Fault::code
    kGmtToLocal,          // ZEP_Gmt2LocalTime: Fault::code
};
inline constexpr std::size_t kOps = 12;

// Returns the name of op, such as "Malloc", and the op of a name; for messages and command lines.
[[nodiscard]] std::string_view Name(Op op);
[[nodiscard]] std::optional<Op> OpByName(std::string_view name);

inline constexpr std::uint64_t kForever = ~std::uint64_t{0};

// A rule that makes calls fail: those to which all of its conditions apply.  The default is every
// call from now on.  Calls are numbered from 1 since the World began, per kind when op is given and
// over all kinds otherwise (World::Calls tells how many there have been).
struct Fault {
    std::optional<Op> op = std::nullopt; // which kind; none: every kind
    std::uint64_t from = 1;              // the first call concerned
    std::uint64_t count = kForever;      // how many calls from there on
    std::uint64_t fromMs = 0;            // World::Uptime at or after this
    std::uint64_t untilMs = kForever;    // and before this
    std::uint64_t lastingMs = kForever;  // ends this long after the rule's first failure
    double probability = 1.0;            // of each call concerned
    std::uint64_t seed = 1;              // for probability
    std::uint32_t code = 1;              // what a failing operation answers where it has a code
    // A read that is hit copies at most this many bytes and leaves the others to the next read, in
    // place of failing.  The rule then concerns kReadBlackBox only, and needs that op.
    std::optional<std::uint32_t> shorten = std::nullopt;
};
// Names a rule of a World.
using FaultId = std::size_t;

// ---- What travels --------------------------------------------------------------------------------

inline constexpr std::uint32_t kTimerIid = 3;
inline constexpr std::uint32_t kNdpiInterface = 3;
inline constexpr std::uint32_t kNdpiSubInterface = 164;

// A message with its envelope.  A fresh Record is an ndpi message without bytes.
struct Record {
    std::uint32_t sender = 0;
    std::uint32_t receiver = 0; // the address it was sent to; the timer handle of a timer message
    std::uint32_t arg1 = 0;     // of ZEP_SEND_MSG
    std::uint32_t arg2 = 0;
    std::uint32_t intf = kNdpiInterface;
    std::uint32_t subIntf = kNdpiSubInterface;
    std::uint32_t cid = 0; // receiver address in the envelope
    std::uint32_t iid = 0;
    std::uint32_t allocated = 0; // bytes of the message that the sender had allocated
    std::vector<std::uint8_t> bytes;
};

// Handed each message of a process: the data area of a platform message, valid during the call.
using Handler = std::function<void(void *message)>;

class World;

// Handed each message that a send has accepted, in place of delivery: a link that loses, doubles,
// changes or delays messages is a function that calls World::Post as often and as late as it likes.
using Link = std::function<void(World &world, Record record)>;

// What a bad link does to messages: the probability of each fault, for each message.
struct LinkFaults {
    double drop = 0;
    double duplicate = 0; // arrives twice; what follows may befall either copy
    double delay = 0;     // by 1 to mostDelayMs
    double reorder = 0;   // arrives behind everything else of its moment
    double truncate = 0;  // to any shorter length, 0 included
    double flip = 0;      // one to three bytes get another value
    std::uint64_t mostDelayMs = 1500;
    std::uint64_t seed = 1; // the same seed mistreats the same messages in the same way
};

// Returns a link with these faults.  Copies of it go on together, as one link.
[[nodiscard]] Link BadLink(const LinkFaults &faults);

// ---- What was noticed ----------------------------------------------------------------------------

// A call of ZEP_Assert.
struct Assertion {
    std::string source;
    std::uint32_t line = 0;
    std::uint32_t value = 0;
};

// A live block, with what was handed to ZEP_Malloc_F.
struct Allocation {
    std::string source;
    std::uint32_t line = 0;
    std::uint32_t size = 0;
    std::uint32_t memHandle = 0;
    std::uint8_t partition = 0;
};

// ---- Liberties -----------------------------------------------------------------------------------

// What the contract leaves to a platform.  The sim is friendly: it does what most people would expect.  A
// consumer that also lives with Liberties::Of(seed) for a few seeds relies on nothing but the contract.
struct Liberties {
    // What a request for no bytes is answered with, and what a full trace box does.
    enum class NoBytes : std::uint8_t { kDistinct, kShared, kNull };
    enum class FullBox : std::uint8_t { kForgetsLines, kForgetsBytes, kRefuses };

    std::uint64_t seed = 0;  // of what is left to chance
    bool anyAnswers = false; // error codes, statuses, differences, fields without a promised value: anything
    bool noZeroCounts = false; // memcpy_s and memset_s refuse a count of 0
    bool oddMessages = false;  // begin at odd addresses, with bytes behind their end that keep changing
    bool otherTree = false;    // of another shape, gone through backwards
    bool sameHandles = false;  // timers, too: of the highest value, equal across kinds, given anew at once
    bool boxesStay = false;    // a box that was read to its end does not begin again
    bool shortReads = false;   // of boxes
    bool countedMore = false;  // the content length of a box counts four bytes more for each write
    NoBytes noBytes = NoBytes::kDistinct;
    FullBox fullBox = FullBox::kForgetsLines;
    bool expiriesAtWill = false; // late, twice, and without a timer for those of deleted ones
    bool clockAtWill = false;    // KAL_SecondNow stands, jumps and goes back, by ten seconds at most

    // Returns the liberties that seed picks.  Without time the clock and the expiries are left out, for
    // tests that count seconds.
    [[nodiscard]] static Liberties Of(std::uint64_t seed, bool withTime = true);
};

// ---- The world -----------------------------------------------------------------------------------

// How a World is made.
struct Options {
    Liberties liberties = {};
    // False leaves out what costs time per call: accounting of memory, the pattern in fresh memory,
    // the call log, the checks of blocks and boxes.  Counting and faults stay.  For benchmarks.
    bool checks = true;
    // More deliveries at one moment are taken for messages that answer each other without end.
    std::uint64_t mostAtOnce = 1'000'000;
};

struct State;

// The platform, from the side of the test.
class World {
public:
    // Throws std::logic_error when there is a World already.  The new one is at uptime 0, 1000
    // seconds, 2024-01-01 00:00:00 GMT, in a zone without offset.
    explicit World(Options options = {});
    // Releases what is still held, so that a sanitizer does not report again what Leaks told.
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    // -- Faults

    // Adds a rule; several may hold at once, the oldest that hits decides.
    // Throws std::invalid_argument for a rule that makes no sense.
    FaultId Fail(const Fault &fault);
    // Makes the next `count` calls of op fail.
    FaultId FailNext(Op op, std::uint64_t count = 1);
    // Takes back one rule, or all of them.
    void Lift(FaultId id);
    void LiftAll();

    // Calls so far of one kind, of all kinds, and those made to fail.
    [[nodiscard]] std::uint64_t Calls(Op op) const;
    [[nodiscard]] std::uint64_t Calls() const;
    [[nodiscard]] std::uint64_t Failures() const;
    // The kind of every call so far, the first at index 0.
    [[nodiscard]] const std::vector<Op> &CallLog() const;

    // -- Clock

    // Milliseconds since the World began.  Never jumps.
    [[nodiscard]] std::uint64_t Uptime() const;
    // The monotonic clock as KAL_SecondNow tells it; it may be set to any value, also backwards.
    [[nodiscard]] std::uint32_t Seconds() const;
    void SetSeconds(std::uint32_t seconds);
    // The GMT wall clock, which moves on with uptime, and the minutes of local time east of it.
    // SetGmt does not read weekday; it throws std::invalid_argument for a date that does not exist.
    void SetGmt(const SysTime &gmt);
    void SetZone(std::int32_t minutesEast);

    // Lets time pass without delivering anything.  Timers that expire queue their messages.
    void Advance(std::uint64_t ms);

    // -- Bus

    // Makes handler the receiver of what is sent to pid, and of the timers of timer libraries that
    // were created with timerHandle.  A second call replaces the first.  The handler may do anything
    // that a test may, also attach, detach and post, but not run the World.
    void Attach(std::uint32_t pid, Handler handler);
    void AttachTimers(std::uint32_t timerHandle, Handler handler);
    // What is under way to a detached process or timer handle goes to TakeSent or TakeExpiries.
    void Detach(std::uint32_t pid);
    void DetachTimers(std::uint32_t timerHandle);

    // Puts a message on its way to record.receiver, where it arrives after delayMs and behind what is
    // due by then.
    void Post(Record record, std::uint64_t delayMs = 0);
    // Puts a message on its way as an accepted send does: over the link, if there is one.  So a process
    // that the test plays is on the same link as those that call the platform.
    void Send(Record record);
    // Puts a link in the way of all sends; an empty one takes it away.
    void SetLink(Link link);

    // Returns the messages for processes that have no handler, oldest first, and forgets them.
    [[nodiscard]] std::vector<Record> TakeSent();
    // The same for timer messages; make them Messages to hand them over by hand.
    [[nodiscard]] std::vector<Record> TakeExpiries();

    // Delivers the next message that is due.  Returns false when there is none.
    bool Step();
    // Lets ms milliseconds pass: delivers what is due, moves on to the next moment at which a message
    // arrives or a timer expires, and so on.  Returns with nothing due.  Throws std::runtime_error
    // after Options::mostAtOnce deliveries at one moment.
    void Run(std::uint64_t ms);
    // The same until done() is true, which is asked first and after each delivery.  Returns whether
    // it was.
    bool RunUntil(const std::function<bool()> &done, std::uint64_t ms);

    // -- Accounts

    // Live memory of ZEP_Malloc_F and black boxes: blocks in order of allocation, sum, highest sum.
    [[nodiscard]] std::vector<Allocation> Allocations() const;
    [[nodiscard]] std::uint64_t LiveBytes() const;
    [[nodiscard]] std::uint64_t PeakBytes() const;
    // Outgoing messages that were allocated and neither sent nor released.
    [[nodiscard]] std::size_t LiveMessages() const;
    // Everything held now as text, a line per module and line of code: memory, outgoing messages,
    // timer libraries, timer instances, timers.  Empty when nothing is held.
    [[nodiscard]] std::string Leaks() const;

    // Assertions reported by the library.
    [[nodiscard]] const std::vector<Assertion> &Assertions() const;
    void ClearAssertions();
    // Breaches of the platform contract, in words: a block freed twice, a foreign block, a message
    // sent beyond its size, a timer library that was never created, a timer looked up and then not deleted,
    // ...  Such a call does nothing.
    [[nodiscard]] const std::vector<std::string> &Violations() const;
    void ClearViolations();

private:
    friend class Message;
    std::unique_ptr<State> state;
};

// A received message for ND_LIB_MsgProcess: exactly as long as record.bytes, so that a sanitizer sees
// any access behind them.  Released at the end of its life, which must be within its World's.
class Message {
public:
    Message(World &world, const Record &record);
    ~Message();
    Message(Message &&other) noexcept;
    Message &operator=(Message &&) = delete;

    // The data area.
    [[nodiscard]] void *Data() const;

private:
    State *state;
    void *data;
};

} // namespace pegeir::sim

#endif
