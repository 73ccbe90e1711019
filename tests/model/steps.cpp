// What the steps are on the wire, which ones are made up, and how they and their effects are printed.

#include <gtest/gtest.h>

#include <algorithm>

#include "model/model.h"

namespace pegeir::tests::model {
namespace {

// clang-format off
constexpr std::array<const char *, 16> kDoNames = {
    "kRegister", "kSubscribe", "kUnSubscribe", "kOptionData", "kComponent", "kVerify", "kCycle", "kConsumer",
    "kAck", "kAckRecords", "kStream", "kTick", "kClock", "kNumber", "kFail", "kRenew"};
constexpr std::array<const char *, kNumbers> kNumberNames = {
    "state", "next send", "send count", "transaction", "sequence", "component", "verify", "cycle", "next verify",
    "now", "max key", "max value", "subscribes", "unsubscribes", "flow control", "flow start", "flow end",
    "flow count", "records", "timer", "option data"};

// What the component, the consumer and the clock do next in each state.
const std::array<Steps, 16> kCourse = {{
    {{Do::kRegister}, {Do::kComponent}},
    {{Do::kAck, 16}, {Do::kAck, 16}, {Do::kTick, 1}, {Do::kRegister}, {Do::kConsumer, 2, 19, 428}},
    {{Do::kConsumer, 2, 40, 8}, {Do::kConsumer, 2, 3, 300}, {Do::kTick, 1}},
    {{Do::kAck, 17}, {Do::kTick, 1}}, {{Do::kAckRecords}, {Do::kAckRecords, 1}, {Do::kTick, 1}},
    {{Do::kAck, 19}, {Do::kTick, 1}}, {{Do::kStream, 23, 7}, {Do::kStream, 23, 1}},
    {{Do::kStream, 24, 0, 3}, {Do::kStream, 24, 0, 1}, {Do::kStream, 25}, {Do::kStream, 24, 1, 1}},
    {{Do::kTick, 1}, {Do::kTick, 70}, {Do::kStream, 26, 0, 2}, {Do::kVerify, 1}, {Do::kAckRecords},
     {Do::kSubscribe, 4, 4}, {Do::kUnSubscribe, 5}},
    {{Do::kAck, 29}, {Do::kTick, 1}}, {{Do::kConsumer, 2, 5, 8}, {Do::kTick, 1}},
    {{Do::kAck, 21}, {Do::kTick, 1}}, {{Do::kAckRecords}, {Do::kAckRecords, 1, 0, 1}, {Do::kTick, 1}},
    {{Do::kAck, 22}, {Do::kTick, 1}}, {{Do::kStream, 27, 3}},
    {{Do::kStream, 24, 0, 2}, {Do::kStream, 28}, {Do::kStream, 27, 3}, {Do::kStream, 28, 1}}}};

// Anything else, with the most that each number can be; kData stands for the longest data of a run.
constexpr uint32_t kAny = 0xFFFFFFFF, kData = 0xDA7A;
const Steps kCommon = {
    {Do::kSubscribe, 47, kData}, {Do::kUnSubscribe, 47, kData}, {Do::kOptionData, kData}, {Do::kVerify, 1},
    {Do::kCycle, 90}, {Do::kConsumer, 3, 12, kData, 7}, {Do::kAck, 30, 1, 0, kAny}, {Do::kTick, 130, 1},
    {Do::kAckRecords, 4, kAny, 1, kAny}, {Do::kStream, 30, 1, 3, kAny}, {Do::kFail, 4, 5, 2}};
const Steps kRare = {
    {Do::kRegister}, {Do::kComponent, 2}, {Do::kCycle, 3700}, {Do::kClock, 7200}, {Do::kClock, kAny}, {Do::kRenew},
    {Do::kNumber, 3}, {Do::kSubscribe, 10002, 9}, {Do::kFail, 4, 5, 2}, {Do::kFail, 2, 9, 1}};
// The longest record, sends until the pace stays (which takes time), a second message for the last byte.
const Steps kLimits = {
    {Do::kSubscribe, 7968, 4}, {Do::kSubscribe, 7968, 4}, {Do::kTick, 3700}, {Do::kConsumer, 2, 19, 428},
    {Do::kConsumer, 2, 19, 428}, {Do::kConsumer, 2, 19, 427}, {Do::kConsumer, 2, 10, 1583}, {Do::kConsumer, 2, 6, 2648}};
// clang-format on

// Damages a message on its way; twist 0 leaves it whole.
void Twist(Call &call, uint32_t twist) {
    const uint32_t how = twist % 8;
    const size_t size = call.bytes.size();
    const size_t where = twist / 8 % (how < 3 ? 16 : size);
    call.a = how == 7 ? 163 : 164;
    call.b = how == 6 ? 0x99 : Driver::kNd;
    if (how == 1 || how == 3) {
        call.bytes[where] = static_cast<uint8_t>(call.bytes[where] ^ twist >> 16);
    }
    call.bytes.resize(how == 4 ? where : how == 5 ? size + where : size);
    if (how == 4 && where >= 16 && twist >> 31 == 0) { // cut short, and consistent about it
        std::tie(call.bytes[0], call.bytes[1]) = std::tuple(where >> 8, where & 255);
    }
}

// Requests item number which: three of them share a key; one key is empty, some are very long.
Call Request(Do what, uint32_t which, uint32_t length) {
    const uint32_t key = which / 3;
    const uint32_t keyLength = which >= 1000 ? which : key == 15 ? 0 : 1 + key % 7;
    return {{what},
            {static_cast<uint16_t>(key % 2 == 0 ? 1000 : 1), Bytes(keyLength, static_cast<uint8_t>(key)),
             static_cast<uint16_t>(which % 3), Bytes(length, static_cast<uint8_t>(which + length))}};
}

// Prints what stands in one of them only.
template <typename T>
std::string Missing(const char *who, const std::vector<T> &from, const std::vector<T> &other) {
    std::string text;
    for (const T &one : from) {
        const bool found = std::find(other.begin(), other.end(), one) != other.end();
        text += found ? "" : who + testing::PrintToString(one) + "\n";
    }
    return text;
}

std::vector<std::string> Named(const View &view) {
    std::vector<std::string> numbers;
    for (size_t i = 0; i < kNumbers; ++i) {
        numbers.push_back(std::string(kNumberNames.at(i)) + " " + std::to_string(view.numbers[i]));
    }
    for (size_t i = 0; i < view.statistics.size(); ++i) {
        numbers.push_back("statistic " + std::to_string(i) + " " + std::to_string(view.statistics[i]));
    }
    return numbers;
}

} // namespace

std::ostream &operator<<(std::ostream &out, const Entry &entry) {
    const auto &[id, data, list, kind, sends, stamp, due] = entry;
    return out << testing::PrintToString(id) << " list " << list << " kind " << kind << " sends " << sends
               << " stamp " << stamp << " due " << due << " data " << testing::PrintToString(data);
}

std::string Difference(const View &library, const View &model) {
    const auto both = [](const auto &left, const auto &right) {
        return Missing("    library ", left, right) + Missing("    model   ", right, left);
    };
    const std::string text = both(Named(library), Named(model)) + both(library.history, model.history) +
                             both(library.entries, model.entries) + both(library.happened, model.happened);
    return text.empty() ? "    only in order\n" : text;
}

std::string Code(const Steps &steps, uint32_t seed) {
    std::string text = "const Steps steps = {\n";
    for (const auto &[what, a, b, c, d] : steps) {
        text += std::string("    {Do::") + kDoNames.at(static_cast<size_t>(what));
        for (const uint32_t number : {a, b, c, d}) {
            text += ", " + std::to_string(number);
        }
        text += "},\n";
    }
    return text + "};\nEXPECT_EQ(Replay(steps, " + std::to_string(seed) + "), \"\");\n";
}

uint32_t Subject::Collect(const Bytes &optionData) {
    Tell('p', 0, optionData);
    for (uint32_t which = 0; which < consumer.b; ++which) {
        Apply(Request(Do::kSubscribe, which, consumer.c));
    }
    return consumer.a;
}

uint32_t Subject::Hear(char what, uint32_t number, const Bytes &bytes) {
    Tell(what, number, bytes);
    if ((consumer.d & (what == 'e' ? 2 : 4)) != 0) {
        Apply(Request(number % 2 == 0 ? Do::kSubscribe : Do::kUnSubscribe, number % 48, consumer.c));
    }
    return consumer.d & 1;
}

const View &Subject::Sorted() {
    std::stable_sort(view.entries.begin(), view.entries.end(), [](const Entry &left, const Entry &right) {
        return left.list != right.list ? left.list < right.list : left.list == kNone && left.id < right.id;
    });
    return view;
}

Call Resolve(const Step &step, const View &model) {
    const auto &[what, a, b, c, d] = step;
    Call call = {step};
    Ndpi message = {.type = static_cast<uint8_t>(a), .flags = 0x80};
    switch (what) {
    case Do::kSubscribe:
    case Do::kUnSubscribe: return Request(what, a, b);
    case Do::kOptionData: call.bytes.assign(a, 'o'); return call;
    case Do::kAck: message.trans = model.numbers[kTrans] - b; break;
    case Do::kAckRecords:
        message.type = c == 0 ? 18 : 20;
        message.trans = model.numbers[kTrans] - a;
        for (uint32_t bit = 0; const Entry &entry : model.entries) {
            const bool left = (b >> (bit++ % 32) & 1) != 0;
            message.body = left ? message.body : Join({message.body, Record(entry.id, {})});
        }
        break;
    case Do::kStream:
        message.flags = 0;
        message.seq = model.numbers[kSequence] + b;
        for (uint8_t i = 0; i < c; ++i) {
            message.body = Join({message.body, Tlv(static_cast<uint16_t>(a + i), Bytes(i * 3U, i))});
        }
        break;
    default: return call;
    }
    call.bytes = message.Wire();
    Twist(call, d);
    return call;
}

Step MakeUp(const std::function<uint32_t(uint32_t)> &upto, uint32_t longest, uint32_t state) {
    const uint32_t chance = upto(99);
    const bool exact = chance < 65 || chance == 99;
    const Steps &pool = chance < 65   ? kCourse.at(state)
                        : chance < 93 ? kCommon
                        : chance < 99 ? kRare
                                      : kLimits;
    Step step = pool[upto(static_cast<uint32_t>(pool.size() - 1))];
    for (uint32_t Step::*number : {&Step::a, &Step::b, &Step::c, &Step::d}) {
        const uint32_t most = step.*number == kData ? longest : step.*number;
        step.*number = exact ? most : upto(most);
    }
    step.d = upto(2) == 0 ? step.d : 0;
    // A long key closes every later message early, so that only runs with long data have them.
    step.a %= step.what == Do::kSubscribe && longest < 4000 ? 48 : kAny;
    return step;
}

// ---- The wire ----

uint32_t Read(const Bytes &from, size_t at, size_t bytes) {
    return bytes == 0 ? 0 : Read(from, at, bytes - 1) << 8 | from.at(at + bytes - 1);
}

Bytes Cut(const Bytes &from, size_t at, size_t bytes) {
    const auto first = from.begin() + static_cast<std::ptrdiff_t>(at);
    return {first, first + static_cast<std::ptrdiff_t>(bytes)};
}

Bytes IdOf(const Item &item) {
    return Join({Tlv(item.keyType, item.key), U16(item.dataType)});
}

Bytes Record(const Bytes &id, const Bytes &data) {
    return Tlv(18, Join({id, U16(static_cast<uint32_t>(data.size())), data}));
}

std::vector<size_t> Elements(const Bytes &message) {
    std::vector<size_t> found;
    const size_t end = Read(message, 0, 2);
    for (size_t at = 16; at + 4 <= end && at + 4 + Read(message, at + 2, 2) <= end;) {
        found.push_back(at);
        at += 4 + Read(message, at + 2, 2);
    }
    return found;
}

} // namespace pegeir::tests::model
