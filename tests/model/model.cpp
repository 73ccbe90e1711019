// The library as a few tables, written from its rules and sharing nothing with its code.  The store is a vector
// in which an entry goes to the end whenever it goes to the tail of a list, the machine a grid of letters, time
// a number.

#include "model/model.h"

#include <algorithm>
#include <utility>

namespace pegeir::tests::model {
namespace {

constexpr uint32_t kStay = 16;

// Rows are states, columns events, letters the rows of Model::Handle; a point ignores the event.
constexpr std::array<const char *, 16> kMachine = {
    // Component up; acks of register, subscribe begin, data and end; smooth begin, data and end; real update;
    // sequence error ack, sequence error; unsubscribe ack; timeout; two that never come; component down; acks
    // of verify begin and end; verify data begin and end
    "c...................", // init
    ".C..........c..x....", // register
    "............C..x....", // collect
    "..U.........c..x....", // subscribe begin
    "...A........U..x....", // subscribe data
    "....>.......c..x....", // subscribe end
    ".....B.........x....", // wait smooth
    ".....BDE..c....x....", // wait smooth data
    "...A...EN..AT..x...V", // ready
    ".........>..c..x....", // sequence error
    "........N...C..x....", // verify collect
    "........N...c..xU...", // verify subscribe begin
    "...A.......AU..x....", // verify subscribe data
    "............c..x.>..", // verify subscribe end
    "...............x..G.", // verify wait data begin
    "......D...c....x..GV", // verify wait data
};

// clang-format off
// The control message that a state sends: its type, its statistic, and the state that follows.
const std::map<uint32_t, std::array<uint32_t, 3>> kControl = {
    {0, {16, 0, 1}}, {1, {16, 0, kStay}}, {3, {17, 2, kStay}}, {5, {19, 6, kStay}}, {7, {29, 13, 9}},
    {9, {29, 13, kStay}}, {11, {21, 20, kStay}}, {13, {22, 22, kStay}}, {15, {29, 13, 9}}};

// What a received type from 16 on has to be, what counts it, and its event.  n: acknowledgement of the last
// number, a: of any, b: begin, counted by its handler, d: numbered data, e: numbered end, u: update.
const std::vector<std::tuple<char, uint32_t, uint32_t>> kRules = {
    {'n', 1, 1}, {'n', 3, 2}, {'a', 5, 3}, {'n', 7, 4}, {'a', 19, 11}, {'n', 21, 16}, {'n', 23, 17},
    {'b', 0, 5}, {'d', 12, 6}, {'e', 10, 7}, {'u', 16, 8}, {'b', 0, 18}, {'e', 26, 19}, {'n', 14, 9}};
// clang-format on

class Model final : public Subject {
public:
    Model(Flaw aFlaw, bool aNothingIsNull) : flaw(aFlaw), nothingIsNull(aNothingIsNull) { Renew(); }
    const View &Look() override { return Sorted(); }

    void Apply(const Call &call) override {
        const bool badCycle = call.a < 60 || call.a > 3600;
        switch (call.what) {
        case Do::kRegister: return Register();
        case Do::kSubscribe: return Tell('=', Request(0, IdOf(call.item), call.item.data));
        case Do::kUnSubscribe: return Tell('=', Request(1, IdOf(call.item), call.item.data));
        case Do::kOptionData:
            option = call.bytes;
            At(kOption) = Alloc(call.a);
            return Tell('=', 1 - At(kOption));
        case Do::kComponent: return Notify(call.a);
        case Do::kVerify: At(kNeedVerify) = call.a; return Tell('=', 0);
        case Do::kCycle: At(kCycle) = badCycle ? At(kCycle) : call.a; return Tell('=', badCycle ? 6 : 0);
        case Do::kConsumer: consumer = call; return;
        case Do::kTick: return Tick(call.a, call.b == 1);
        case Do::kClock: time += call.a; return;
        case Do::kNumber: At(kTrans) = 0 - call.a; return;
        case Do::kFail: faults[kFallible.at(call.a)] = {call.what, call.a, call.b, call.c + 1}; return;
        case Do::kRenew: return Renew();
        default: return Receive(call);
        }
    }

private:
    uint32_t &At(Number number) { return view.numbers[number]; }
    void Count(uint32_t statistic) { ++view.statistics[statistic]; }
    bool Alloc(size_t size) {
        return size <= 10000 && !Refused(sim::Op::kMalloc) && !(size == 0 && nothingIsNull);
    }

    bool Refused(sim::Op op) {
        Step &fault = faults[op];
        return fault.c > 0 && (fault.b > 0 ? fault.b-- == 0 : fault.c-- > 0);
    }

    // ---- Calls ----

    void Renew() {
        view.numbers.assign(kNumbers, 0);
        view.statistics.assign(28, 0);
        view.history.assign(20, {16, 16, 20});
        view.entries.clear();
        At(kCompState) = 1;
        At(kCycle) = 60;
        At(kNow) = time;
        registered = false;
        faults.clear();
    }

    void Register() {
        registered = true;
        view.entries.clear();
        At(kOption) = 0;
        Tell('=', 0);
    }

    void Notify(uint32_t state) {
        At(kNow) = time;
        if (state != std::exchange(At(kCompState), state)) {
            Event(state == 0 ? 0 : 15);
            const bool runs = At(kTimer) == 1;
            At(kTimer) = state == 0 ? runs || (Alloc(1) && !Refused(sim::Op::kTimerCreate))
                                    : runs && Refused(sim::Op::kTimerDelete);
        }
    }

    void Tick(uint32_t seconds, bool late) {
        time += late ? seconds : 0;
        for (; seconds > 0; --seconds) {
            time += late ? 0 : 1;
            if (At(kTimer) == 1) {
                At(kNow) = time;
                Event(12);
            }
        }
    }

    // ---- The store ----

    std::vector<Entry>::iterator Find(const Bytes &id) {
        return std::find_if(view.entries.begin(), view.entries.end(),
                            [&](const Entry &e) { return e.id == id; });
    }

    std::vector<Entry> On(uint32_t list) const {
        std::vector<Entry> found;
        std::copy_if(view.entries.begin(), view.entries.end(), std::back_inserter(found),
                     [&](const Entry &entry) { return entry.list == list; });
        return found;
    }

    void Move(const Bytes &id, uint32_t list) {
        const auto entry = Find(id);
        entry->list = list;
        std::rotate(entry, entry + 1, view.entries.end());
    }

    uint32_t Request(uint32_t kind, const Bytes &id, const Bytes &data) {
        const size_t key = id.size() - 6;
        const bool known = std::any_of(view.entries.begin(), view.entries.end(), [&](const Entry &entry) {
            return std::equal(id.begin(), id.end() - 2, entry.id.begin(), entry.id.end() - 2);
        });
        const bool fresh = Find(id) == view.entries.end();
        const auto copy = [&] { return data.empty() || Alloc(data.size()); };
        if (!registered || key == 0 || !Alloc(1) || !copy() || !Alloc(1) || !Alloc(key) ||
            (!known && !(Alloc(1) && Alloc(key))) || !Raise(kMaxKey, key) ||
            (fresh && !(Alloc(1) && Raise(kMaxValue, data.size()) && copy()))) {
            return registered ? 5 : 1;
        }
        view.entries.resize(view.entries.size() + (fresh ? 1 : 0), {id, data, kNone, kind});
        const auto entry = Find(id);
        *entry = copy() && Raise(kMaxValue, data.size())
                     ? Entry{id, data, entry->list, kind}
                     : Entry{id, {}, entry->list, entry->kind, entry->sends, entry->stamp, entry->due};
        Move(id, entry->kind);
        return 0;
    }

    bool Raise(Number most, size_t length) {
        At(most) = std::max(At(most), static_cast<uint32_t>(length + 4));
        return true;
    }

    // ---- The machine ----

    void Event(uint32_t event, const Call &message = {}) {
        const uint32_t old = At(kState);
        const uint32_t next = Handle(kMachine.at(old)[event], message);
        if (next == kStay) {
            return;
        }
        At(kState) = next;
        At(kNextSend) = At(kSendCount) = 0;
        if (old != 8 || next != 8) {
            const uint32_t slot = At(kRecords) % 20;
            view.history[slot] = {old, next, event};
            At(kRecords) = slot + 1;
        }
    }

    uint32_t Handle(char action, const Call &message) {
        const uint32_t pass = At(kState) >= 8 ? 8 : 0; // a verification pass has states of its own
        switch (action) {
        case 'c': return Control();
        case 'C': return AskForItems(pass);
        case 'U': return Upload(pass);
        case 'T': return Ready();
        case 'A': return Settle(message.bytes);
        case '>': return At(kState) == 13 ? 14 : 6;
        case 'B': Hear('e', 0); return Begin(message, 9, 8, 7);
        case 'G': return Begin(message, 25, 24, 15);
        case 'N': Acknowledge(message, 17); return Deliver(message.bytes);
        case 'D': return Deliver(message.bytes);
        case 'E':
            Acknowledge(message, 11);
            Hear('e', 1);
            return 8;
        case 'V':
            Acknowledge(message, 27);
            Hear('e', 3);
            return Postpone(At(kNow) + At(kCycle), 8);
        case 'x': view.entries.clear(); return 0;
        default: return kStay;
        }
    }

    uint32_t Control() {
        const auto &[type, statistic, next] = kControl.at(At(kState));
        if (At(kNow) < At(kNextSend)) {
            return kStay;
        }
        if (AllocMessage() && Send(type, statistic, {})) {
            At(kSendCount) = std::min(At(kSendCount) + 1, 255U);
            At(kNextSend) = Due(At(kSendCount));
        }
        return next;
    }

    uint32_t AskForItems(uint32_t pass) {
        const uint32_t answer = registered ? Collect(At(kOption) == 1 ? option : Bytes{'-'}) : 1;
        At(kOption) = answer == 2 ? 0 : At(kOption);
        return answer == 2 ? pass + 3 : answer == 0 ? pass + 2 : kStay;
    }

    // The first upload leaves requests to unsubscribe alone.
    uint32_t Upload(uint32_t pass) {
        Overdue();
        if (std::none_of(view.entries.begin(), view.entries.end(), [&](const Entry &entry) {
                return entry.list != kNone && (entry.kind == 0 || pass != 0);
            })) {
            return pass + 5;
        }
        Batch(0);
        if (pass != 0) {
            Batch(1);
        }
        return pass + 4;
    }

    uint32_t Ready() {
        Overdue();
        Batch(0);
        Batch(1);
        if (At(kNeedVerify) == 0 || At(kNow) < At(kNextVerify)) {
            return kStay;
        }
        return Hear('e', 2) == 0 ? AskForItems(8) : Postpone(At(kNextVerify) + 10, kStay);
    }

    uint32_t Postpone(uint32_t verify, uint32_t next) {
        At(kNextVerify) = verify;
        return next;
    }

    // ---- Receiving ----

    void Receive(const Call &message) {
        At(kNow) = time;
        const bool cut = message.bytes.size() < 16;
        Tell('=', message.a != 164 ? 7 : At(kCompState) == 1 ? 1 : cut ? 7 : Check(message));
    }

    uint32_t Check(const Call &message) {
        const uint32_t type = Read(message.bytes, 3, 1);
        if (type < 16 || type > 29) {
            return 0;
        }
        const auto &[check, statistic, event] = kRules.at(type - 16);
        const bool acknowledges = Read(message.bytes, 2, 1) >= 0x80;
        const bool bare = Read(message.bytes, 0, 2) <= 16;
        if (message.bytes.size() < Read(message.bytes, 0, 2) ||
            acknowledges != (check == 'n' || check == 'a') || (bare && (check == 'd' || check == 'u')) ||
            (check == 'n' && Read(message.bytes, 4, 4) != At(kTrans))) {
            return 7;
        }
        const bool gap = (check == 'd' || check == 'e') && Read(message.bytes, 12, 4) != At(kSequence);
        At(kSequence) += check == 'd' && !gap ? 1 : 0;
        view.statistics[statistic] += check == 'b' || (check == 'd' && gap) ? 0 : 1;
        Event(gap ? 10 : event, message);
        return gap ? 8 : 0;
    }

    void Acknowledge(const Call &message, uint32_t statistic) {
        Bytes copy = Cut(message.bytes, 0, Read(message.bytes, 0, 2));
        if (copy.size() < 16 || Refused(sim::Op::kMsgAlloc) || Refused(sim::Op::kSend)) {
            return Count(15);
        }
        copy[2] |= 0x80;
        Tell('s', message.b, copy);
        Count(statistic);
    }

    uint32_t Begin(const Call &message, uint32_t acknowledged, uint32_t received, uint32_t next) {
        Acknowledge(message, acknowledged);
        Count(received);
        At(kSequence) = Read(message.bytes, 12, 4);
        return next;
    }

    uint32_t Deliver(const Bytes &message) {
        for (const size_t at : Elements(message)) {
            Hear('r', Read(message, at, 2), Cut(message, at + 4, Read(message, at + 2, 2)));
        }
        return kStay;
    }

    uint32_t Settle(const Bytes &message) {
        for (const size_t at : Elements(message)) {
            const uint32_t length = Read(message, at + 2, 2);
            const uint32_t key = length < 4 ? 0 : Read(message, at + 6, 2);
            if (length >= key + 4 && (key == 0 || Alloc(key)) && length >= key + 8) {
                std::erase_if(view.entries, [&](const Entry &entry) {
                    return entry.id == Cut(message, at + 4, key + 6) && entry.sends > 0 &&
                           (entry.stamp == Read(message, 4, 4) || flaw == Flaw::kAnyStamp);
                });
            }
        }
        return kStay;
    }

    // ---- Sending ----

    bool AllocMessage() {
        const bool refused = Refused(sim::Op::kMsgAlloc);
        At(kFlowStart) = refused && At(kFlowState) == 0 ? time : At(kFlowStart);
        At(kFlowState) |= refused ? 1 : 0;
        At(kFlowCount) += refused ? 1 : 0;
        return !refused;
    }

    bool Send(uint32_t type, uint32_t statistic, const Bytes &body) {
        Count(statistic);
        const Ndpi message = {.type = static_cast<uint8_t>(type), .trans = ++At(kTrans), .body = body};
        if (Refused(sim::Op::kSend)) {
            return false;
        }
        Tell('s', Driver::kNd, message.Wire());
        return true;
    }

    uint32_t Due(uint32_t sends) {
        return At(kNow) + std::min((flaw == Flaw::kPacing ? 3 : 2) * sends, 120U);
    }

    void Overdue() {
        for (const Entry &entry : On(kWaiting)) {
            if (At(kNow) >= entry.due) {
                Move(entry.id, entry.kind);
            }
        }
    }

    void Batch(uint32_t kind) {
        const std::vector<Entry> entries = On(kind);
        if (entries.empty() || !AllocMessage()) {
            return;
        }
        Bytes body;
        for (const Entry &entry : entries) {
            const bool full = At(kMaxKey) + 16 + body.size() + At(kMaxValue) + 4 > 8000;
            Flush(kind, full ? std::exchange(body, {}) : Bytes());
            if (full && !AllocMessage()) {
                break;
            }
            const Bytes record = Record(entry.id, entry.data);
            const bool fits = record.size() <= 7984;
            Move(entry.id, fits ? kTmp : kNone); // what fits no message stays in the store only
            body = fits ? Join({body, record}) : body;
        }
        Flush(kind, body);
        for (const Entry &entry : On(kTmp)) {
            Move(entry.id, entry.kind);
        }
    }

    void Flush(uint32_t kind, const Bytes &body) {
        if (body.empty() || !Send(kind == 0 ? 18 : 20, kind == 0 ? 4 : 18, body)) {
            return;
        }
        for (const Entry &sent : On(kTmp)) {
            const auto entry = Find(sent.id);
            ++At(entry->kind == 0 ? kSubscribes : kUnsubscribes);
            entry->stamp = At(kTrans);
            entry->sends = std::min(entry->sends + 1, 255U);
            entry->due = Due(entry->sends);
            Move(sent.id, kWaiting);
        }
    }

    Flaw flaw;
    bool nothingIsNull;             // a request for no bytes is answered so
    std::map<sim::Op, Step> faults; // what is left of the latest of each
    uint32_t time = 1000;
    bool registered = false;
    Bytes option;
};

} // namespace

std::unique_ptr<Subject> MakeModel(Flaw flaw, const sim::Liberties &liberties) {
    return std::make_unique<Model>(flaw, liberties.noBytes == sim::Liberties::NoBytes::kNull);
}

} // namespace pegeir::tests::model
