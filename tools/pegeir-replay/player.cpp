/*
 * The sim platform in the place of the device: its clocks follow the recording, its timer service is asked
 * for an expiry when the recording has one, and what the device's platform refused is refused again.
 */
#include "player.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "tlv/ndpi.h"

namespace pegeir::replay {
namespace {

constexpr uint32_t kHandle = 1; // of what the library only wants to be nonzero
constexpr uint32_t kReportSize = 65536;

// A recording may be silent for months, and a damaged one claim it.  The timer needs no more than this to
// expire.
constexpr uint64_t kLongestAdvanceMs = 3'600'000;

// The library hands its callbacks 32 bits, too few for a pointer.
Player *playing = nullptr;

SysTime GmtOf(uint64_t wallMs) {
    const auto seconds = static_cast<time_t>(wallMs / 1000);
    std::tm parts = {};
    (void)gmtime_r(&seconds, &parts);
    return {static_cast<uint16_t>(parts.tm_year + 1900), static_cast<uint8_t>(parts.tm_mon + 1),
            static_cast<uint8_t>(parts.tm_mday),         static_cast<uint8_t>(parts.tm_hour),
            static_cast<uint8_t>(parts.tm_min),          static_cast<uint8_t>(parts.tm_sec),
            static_cast<uint8_t>(parts.tm_wday),         static_cast<uint32_t>(wallMs % 1000)};
}

// A head with its bytes behind it, as requests want it.
std::vector<uint16_t> ItemOf(uint16_t type, const Bytes &bytes) {
    std::vector<uint16_t> item(2 + (bytes.size() + 1) / 2);
    item[0] = type;
    item[1] = static_cast<uint16_t>(bytes.size());
    if (!bytes.empty()) {
        std::memcpy(&item[2], bytes.data(), bytes.size());
    }
    return item;
}

const char *NotificationName(uint32_t code) {
    constexpr std::array<const char *, 4> kNames = {"the download begins", "the download is complete",
                                                    "a verification pass is due",
                                                    "the verification pass is complete"};
    return code < kNames.size() ? kNames.at(code) : "unknown notification";
}

const char *ResultName(uint32_t result) {
    return result == ND_LIB_ERR_SEQUENCE ? "out of sequence"
           : result == ND_LIB_ERR_MSG    ? "refused as no valid message"
                                         : "refused";
}

} // namespace

struct Player::Callbacks {
    static uint32_t Log(ND_LIB_Instance * /*instance*/, uint32_t level, const char *format, ...)
        ND_LIB_PRINTF(3, 4);
    static uint32_t Pack(ND_LIB_Instance * /*instance*/, void * /*option*/) { return playing->OnPack(); }
    static uint32_t Notify(ND_LIB_Instance * /*instance*/, uint32_t code, uint32_t /*zero*/) {
        playing->played.events.push_back({Event::Kind::kNotify, NotificationName(code), code});
        return code == ND_LIB_NOTIFY_VERIFY_REQUEST && !playing->played.pass ? 1 : 0;
    }
    static uint32_t Updata(ND_LIB_Instance * /*instance*/, const ND_LIB_TlvHead *record) {
        const auto *const value = reinterpret_cast<const uint8_t *>(record + 1);
        const Bytes bytes(value, value + record->tlvLen);
        playing->played.events.push_back(
            {Event::Kind::kRecord, RecordText(record->tlvType, bytes), 0, record->tlvType, bytes});
        return 0;
    }
};

uint32_t Player::Callbacks::Log(ND_LIB_Instance * /*instance*/, uint32_t level, const char *format, ...) {
    if (level == ND_LIB_LOG_EVENT) {
        va_list arguments;
        va_start(arguments, format);
        playing->OnLog(format, arguments);
        va_end(arguments);
    }
    return 0;
}

Player::Player(const Session &aSession) : session(aSession), consumer(aSession) {
    playing = this;
    world.SetZone(session.utcOffset / 60);
    world.SetLink([this](sim::World &, const sim::Record &record) { OnSent(record); });
    if (!session.steps.empty()) {
        SetClocks(session.steps.front());
    }
    const ND_LIB_FrameRegister frame = {session.component, session.process, kHandle, kHandle,
                                        kHandle,           Callbacks::Log,  0,       0};
    const ND_LIB_ConsumerRegister table = {kHandle, Callbacks::Pack, Callbacks::Notify, Callbacks::Updata};
    instance = ND_LIB_Init(&frame);
    (void)ND_LIB_RegisterConsumer(instance, &table);
}

Player::~Player() {
    ND_LIB_Deinit(instance);
    playing = nullptr;
}

// The milliseconds of the sim lag behind the recording by less than one, and the library makes its timer
// when its packet says or later.  So whenever the recorded timer has expired, that of the sim has, too.
void Player::SetClocks(const Step &step) {
    if (step.atMs > world.Uptime()) {
        world.Advance(std::min(step.atMs - world.Uptime(), kLongestAdvanceMs));
    }
    world.SetSeconds(step.seconds);
    world.SetGmt(GmtOf(step.packet.wallMs));
    const auto expiries = world.TakeExpiries();
    if (!expiries.empty()) {
        expiry = expiries.back();
    }
}

void Player::RefuseAsThen(const Step &step) {
    world.LiftAll();
    const auto refuse = [this](sim::Op op, uint64_t call, uint32_t result) {
        if (result != 0) {
            world.Fail({.op = op, .from = world.Calls(op) + call + 1, .count = 1, .code = result});
        }
    };
    for (size_t i = 0; i < step.sent.size(); ++i) {
        refuse(sim::Op::kSend, i, step.sent[i].result);
    }
    for (size_t i = 0; i < step.timersMade.size(); ++i) {
        refuse(sim::Op::kTimerCreate, i, step.timersMade[i]);
    }
    for (size_t i = 0; i < step.timersEnded.size(); ++i) {
        refuse(sim::Op::kTimerDelete, i, step.timersEnded[i]);
    }
}

Played Player::Play(size_t index) {
    const Step &step = session.steps.at(index);
    played = {.index = index, .before = consumer.Before(index), .pass = consumer.BeginsPass(index)};
    accepted.clear();
    matched = 0;
    for (const Sent &sent : step.sent) {
        if (sent.result == 0) {
            accepted.push_back(&sent);
        }
    }
    SetClocks(step);
    RefuseAsThen(step);
    std::ranges::for_each(played.before, [this](const auto &request) { Request(request); });
    const auto count = [this] {
        return std::array{world.Calls(sim::Op::kSend), world.Calls(sim::Op::kTimerCreate),
                          world.Calls(sim::Op::kTimerDelete)};
    };
    const auto before = count();
    if (played.pass) {
        (void)ND_LIB_StartVerify(instance);
    }
    Feed(step);
    if (played.pass) {
        (void)ND_LIB_StopVerify(instance);
    }
    const auto after = count();
    if (matched < accepted.size()) {
        Differs("a message that was sent then is not sent now", accepted[matched], nullptr);
    } else if (step.complete) {
        if (after[0] - before[0] != step.sent.size()) {
            Differs("the platform refused a message then that is not sent now", nullptr, nullptr);
        } else if (after[1] - before[1] != step.timersMade.size() ||
                   after[2] - before[2] != step.timersEnded.size()) {
            Differs("the timer was not started or stopped as then", nullptr, nullptr);
        }
    }
    CheckCounters(step);
    return std::move(played);
}

// What the platform refused is not seen, so the recording is believed.
void Player::CheckCounters(const Step &step) {
    constexpr size_t kStatisticsPage = 3;
    for (const Sent &sent : step.sent) {
        if (sent.result != 0) {
            counters.Sent(KindOf(sent.bytes), true);
        }
    }
    const std::string wrong = counters.Wrong(Diagnose(kStatisticsPage).back());
    if (!wrong.empty()) {
        Differs(wrong, nullptr, nullptr);
    }
}

void Player::Feed(const Step &step) {
    switch (step.input) {
    case Input::kAvailable:
    case Input::kGone: {
        const ND_LIB_CompState state = {0, step.input == Input::kGone ? uint32_t{ND_LIB_COMP_NOT_AVAILABLE}
                                                                      : uint32_t{ND_LIB_COMP_AVAILABLE}};
        expiry.reset(); // the timer it was of ends here
        ND_LIB_NotifyNdCompState(instance, &state);
        break;
    }
    case Input::kSecond:
        if (expiry) {
            FeedMessage(*expiry);
        } else {
            Differs("the library's timer expired then, and does not run now", nullptr, nullptr);
        }
        break;
    case Input::kOtherTimer:
        FeedMessage({.intf = 0, .subIntf = 0, .iid = sim::kTimerIid, .bytes = Bytes(sizeof(uint32_t), 0xFF)});
        break;
    case Input::kMessage:
        if (step.handedOn) {
            FeedMessage({.sender = step.packet.sender,
                         .receiver = session.process,
                         .intf = step.packet.intf,
                         .subIntf = step.packet.subIntf,
                         .cid = session.process,
                         .iid = step.packet.iid,
                         .bytes = step.packet.data});
        }
        break;
    }
}

void Player::FeedMessage(const sim::Record &record) {
    const sim::Message message(world, record);
    const uint32_t result = ND_LIB_MsgProcess(instance, message.Data());
    if (record.subIntf == NDPI_MSG_SUB_INTF && record.iid != sim::kTimerIid) {
        counters.Received(KindOf(record.bytes), result);
    }
    if (result != ND_LIB_OK) {
        played.events.push_back({Event::Kind::kRefused, ResultName(result), result});
    }
}

// ---- What the library does ---------------------------------------------------------------------------

void Player::OnSent(const sim::Record &record) {
    played.events.push_back(
        {Event::Kind::kSent, MessageText(record.bytes), record.receiver, 0, record.bytes});
    counters.Sent(KindOf(record.bytes), false);
    const Sent now = {0, record.receiver, record.intf, record.subIntf, 0, record.bytes};
    const Sent *const then = matched < accepted.size() ? accepted[matched] : nullptr;
    ++matched;
    if (then == nullptr) {
        if (session.steps.at(played.index).complete) {
            Differs("a message is sent now that was not sent then", nullptr, &now);
        }
    } else if (then->receiver != now.receiver || then->intf != now.intf || then->subIntf != now.subIntf ||
               then->bytes != now.bytes) {
        Differs("another message is sent now than then", then, &now);
    }
}

void Player::OnLog(const char *format, va_list arguments) {
    constexpr std::string_view kOld = "oldState: ";
    constexpr std::string_view kNew = "->newState: ";
    constexpr std::string_view kEvent = ", event: ";
    std::array<char, 512> buffer = {};
    (void)std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    const std::string text = buffer.data();
    const size_t from = text.find(kOld);
    const size_t to = text.find(kNew);
    const size_t why = text.find(kEvent);
    if (from < to && to < why && why != std::string::npos) {
        const size_t first = from + kOld.size();
        const size_t second = to + kNew.size();
        played.events.push_back({Event::Kind::kState, text.substr(first, to - first) + " -> " +
                                                          text.substr(second, why - second) + " (" +
                                                          text.substr(why + kEvent.size()) + ')'});
    }
}

uint32_t Player::OnPack() {
    Consumer::Answer answer = consumer.Pack(played.index);
    std::ranges::for_each(answer.requests, [this](const auto &request) { Request(request); });
    const char *const what = answer.code == ND_LIB_PACK_DONE   ? "done"
                             : answer.code == ND_LIB_PACK_MORE ? "more to come"
                                                               : "not yet";
    played.events.push_back(
        {Event::Kind::kPack,
         "asked for the subscriptions: " + std::to_string(answer.requests.size()) + ", " + what,
         answer.code,
         0,
         {},
         std::move(answer.requests)});
    return answer.code;
}

void Player::Request(const replay::Request &request) {
    const auto key = ItemOf(request.keyType, request.key);
    const auto data = ItemOf(request.dataType, request.data);
    (void)(request.subscribe ? ND_LIB_Subscribe : ND_LIB_UnSubscribe)(
        instance, reinterpret_cast<const ND_LIB_ItemHead *>(key.data()),
        reinterpret_cast<const ND_LIB_ItemHead *>(data.data()));
}

void Player::Differs(const std::string &text, const Sent *then, const Sent *now) {
    if (!played.difference) {
        played.difference = {text, then == nullptr ? std::nullopt : std::optional(*then),
                             now == nullptr ? std::nullopt : std::optional(*now)};
    }
}

// ---- Afterwards --------------------------------------------------------------------------------------

std::vector<std::string> Player::Diagnose(size_t most) {
    std::vector<std::string> pages;
    std::vector<char> page(kReportSize);
    for (uint32_t result = ND_LIB_OK; result == ND_LIB_OK && pages.size() < most;) {
        uint32_t length = 0;
        result = ND_LIB_GetDiagnoseInfo(instance, page.data(), kReportSize, &length, pages.empty() ? 1 : 0);
        pages.emplace_back(page.data(), std::min(length, kReportSize));
    }
    return pages;
}

std::string Player::Finish() {
    world.LiftAll();
    ND_LIB_Deinit(std::exchange(instance, nullptr));
    std::string text = world.Leaks();
    for (const std::string &violation : world.Violations()) {
        text += violation + '\n';
    }
    for (const sim::Assertion &assertion : world.Assertions()) {
        text += "assertion failed at " + assertion.source + ':' + std::to_string(assertion.line) + '\n';
    }
    return text;
}

} // namespace pegeir::replay
