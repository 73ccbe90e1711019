// What the steps are on the wire, which ones are made up, and how they and their effects are printed.

#include <algorithm>
#include <iterator>
#include <sstream>

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
    {{Do::kAck, 16}, {Do::kTick, 1}, {Do::kRegister}},
    {{Do::kConsumer, 2, 40, 8}, {Do::kConsumer, 2, 3, 300}, {Do::kTick, 1}},
    {{Do::kAck, 17}, {Do::kTick, 1}},
    {{Do::kAckRecords}, {Do::kAckRecords, 1}, {Do::kTick, 1}},
    {{Do::kAck, 19}, {Do::kTick, 1}},
    {{Do::kStream, 23, 7}, {Do::kStream, 23, 1}},
    {{Do::kStream, 24, 0, 3}, {Do::kStream, 24, 0, 1}, {Do::kStream, 25}, {Do::kStream, 24, 1, 1}},
    {{Do::kTick, 1}, {Do::kTick, 70}, {Do::kStream, 26, 0, 2}, {Do::kVerify, 1}, {Do::kAckRecords},
     {Do::kSubscribe, 4, 4}, {Do::kUnSubscribe, 5}},
    {{Do::kAck, 29}, {Do::kTick, 1}},
    {{Do::kConsumer, 2, 5, 8}, {Do::kTick, 1}},
    {{Do::kAck, 21}, {Do::kTick, 1}},
    {{Do::kAckRecords}, {Do::kAckRecords, 1, 0, 1}, {Do::kTick, 1}},
    {{Do::kAck, 22}, {Do::kTick, 1}},
    {{Do::kStream, 27, 3}},
    {{Do::kStream, 24, 0, 2}, {Do::kStream, 28}, {Do::kStream, 27, 3}, {Do::kStream, 28, 1}},
}};

// Anything else, with the most that each number can be; kData stands for the longest data of a run.
constexpr uint32_t kAny = 0xFFFFFFFF, kData = 0xDA7A;
const Steps kCommon = {
    {Do::kSubscribe, 47, kData}, {Do::kUnSubscribe, 47, kData}, {Do::kOptionData, kData}, {Do::kVerify, 1},
    {Do::kCycle, 90}, {Do::kConsumer, 3, 12, kData, 7}, {Do::kAck, 30, 1, 0, kAny}, {Do::kTick, 130, 1},
    {Do::kAckRecords, 4, kAny, 1, kAny}, {Do::kStream, 30, 1, 3, kAny}};
const Steps kRare = {
    {Do::kRegister}, {Do::kComponent, 2}, {Do::kCycle, 3700}, {Do::kClock, 7200}, {Do::kClock, kAny}, {Do::kRenew},
    {Do::kNumber, 3}, {Do::kSubscribe, 10002, 9}, {Do::kFail, 4, 5, 2}, {Do::kFail, 2, 9, 1}};
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
    const Bytes tlv = Tlv(key % 2 == 0 ? 1000 : 1, Bytes(keyLength, static_cast<uint8_t>(key)));
    return {{what, which}, Join({tlv, U16(which % 3)}), Bytes(length, static_cast<uint8_t>(which + length))};
}

std::string Hex(const Bytes &bytes) {
    std::string text;
    for (size_t i = 0; i < std::min<size_t>(bytes.size(), 60); ++i) {
        text += {"0123456789abcdef"[bytes[i] >> 4], "0123456789abcdef"[bytes[i] & 15]};
    }
    return text + " (" + std::to_string(bytes.size()) + ") ";
}

std::vector<std::string> Lines(const View &view) {
    std::stringstream out;
    for (size_t i = 0; i < kNumbers; ++i) {
        out << kNumberNames.at(i) << " " << view.numbers[i] << "\n";
    }
    for (size_t i = 0; i < view.statistics.size(); ++i) {
        out << "statistic " << i << " " << view.statistics[i] << "\n";
    }
    for (const auto &[from, to, event] : view.history) {
        out << "history " << from << " " << to << " " << event << "\n";
    }
    for (const auto &[id, entry] : view.store) {
        out << "entry " << Hex(id) << "kind " << entry.kind << " sends " << entry.sends << " stamp "
            << entry.stamp << " due " << entry.due << " data " << Hex(entry.data) << "\n";
    }
    for (size_t i = 0; i < kLists; ++i) {
        out << "list " << i << ": ";
        std::transform(view.lists.at(i).begin(), view.lists.at(i).end(),
                       std::ostream_iterator<std::string>(out), Hex);
        out << "\n";
    }
    for (const auto &[what, number, bytes] : view.happened) {
        out << what << " " << number << " " << Hex(bytes) << "\n";
    }
    std::vector<std::string> lines;
    for (std::string line; std::getline(out, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace

std::string Difference(const View &view, const View &other) {
    const std::vector<std::string> known = Lines(other);
    std::string text;
    for (const std::string &line : Lines(view)) {
        text += std::count(known.begin(), known.end(), line) == 0 ? "    " + line + "\n" : "";
    }
    return text;
}

std::string Code(const Steps &steps) {
    std::stringstream out;
    out << "const Steps steps = {\n";
    for (const auto &[what, a, b, c, d] : steps) {
        out << "    {Do::" << kDoNames.at(static_cast<size_t>(what)) << ", " << a << ", " << b << ", " << c
            << ", " << d << "},\n";
    }
    out << "};\nEXPECT_EQ(Replay(steps), \"\");\n";
    return out.str();
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
        for (uint32_t bit = 0; const auto &item : model.store) {
            const bool left = (b >> (bit++ % 32) & 1) != 0;
            message.body = left ? message.body : Join({message.body, Record(item.first, {})});
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

Step MakeUp(std::mt19937 &random, uint32_t longest, uint32_t state) {
    const auto upto = [&](uint32_t most) { return static_cast<uint32_t>(random() % (most + 1ULL)); };
    const uint32_t chance = upto(99);
    const Steps &pool = chance < 65 ? kCourse.at(state) : chance < 93 ? kCommon : kRare;
    Step step = pool[upto(static_cast<uint32_t>(pool.size() - 1))];
    for (uint32_t Step::*number : {&Step::a, &Step::b, &Step::c, &Step::d}) {
        const uint32_t most = step.*number == kData ? longest : step.*number;
        step.*number = chance < 65 ? most : upto(most);
    }
    step.d = upto(2) == 0 ? step.d : 0;
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
