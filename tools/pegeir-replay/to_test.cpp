/*
 * The test is a table of the steps behind the few lines that play it.  Those lines are the player's, but
 * need no recording: everything that the player looked up in it stands in the table.
 */
#include "to_test.h"

#include <algorithm>
#include <string_view>

#include "output.h"
#include "print.h"

namespace pegeir::replay {
namespace {

using watch::HexText;

constexpr std::string_view kHead = R"(
#include <gtest/gtest.h>

#include <pegeir/pegeir.h>
#include <pegeir/sim.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

namespace sim = pegeir::sim;

enum Input { kAvailable, kGone, kSecond, kOtherTimer, kMessage };

struct Request {
    bool subscribe = true;
    uint16_t keyType = 0;
    const char *key = "";
    uint16_t dataType = 0;
    const char *data = "";
};

struct Sent {
    uint32_t receiver = 0;
    const char *bytes = "";
    uint32_t result = 0; // other than 0: the platform refuses it
};

struct Pack {
    uint32_t answer = ND_LIB_PACK_DONE;
    std::vector<Request> requests = {};
};

struct Step {
    uint64_t ms = 0;      // since the beginning
    uint32_t seconds = 0; // of the library's clock
    Input input = kMessage;
    const char *bytes = ""; // of a message, and who sent it
    uint32_t sender = 0;
    uint32_t subIntf = sim::kNdpiSubInterface;
    std::vector<Request> before = {}; // requests made ahead of the step
    bool pass = false;                // a verification pass is allowed
    std::vector<Pack> packs = {};     // answers to the question for subscriptions
    std::vector<Sent> sent = {};      // what has to go out
    uint32_t timerMade = 0;           // other than 0: the platform refuses to start or stop the timer
    uint32_t timerEnded = 0;
};

std::vector<uint8_t> Bytes(const char *hex) {
    std::vector<uint8_t> bytes;
    for (; *hex != '\0'; hex += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(std::string(hex, 2), nullptr, 16)));
    }
    return bytes;
}

std::string Hex(const std::vector<uint8_t> &bytes) {
    std::string hex;
    for (const uint8_t byte : bytes) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::vector<uint16_t> Item(uint16_t type, const char *hex) {
    const std::vector<uint8_t> bytes = Bytes(hex);
    std::vector<uint16_t> item(2 + (bytes.size() + 1) / 2);
    item[0] = type;
    item[1] = static_cast<uint16_t>(bytes.size());
    if (!bytes.empty()) {
        std::memcpy(&item[2], bytes.data(), bytes.size());
    }
    return item;
}

void Make(ND_LIB_Instance *nd, const std::vector<Request> &requests) {
    for (const Request &request : requests) {
        const auto key = Item(request.keyType, request.key);
        const auto data = Item(request.dataType, request.data);
        const auto *keyHead = reinterpret_cast<const ND_LIB_ItemHead *>(key.data());
        const auto *dataHead = reinterpret_cast<const ND_LIB_ItemHead *>(data.data());
        EXPECT_EQ((request.subscribe ? ND_LIB_Subscribe : ND_LIB_UnSubscribe)(nd, keyHead, dataHead), ND_LIB_OK);
    }
}

const Step *now = nullptr; // the step that is played
size_t asked = 0;          // for subscriptions, in this step

uint32_t OnLog(ND_LIB_Instance *, uint32_t, const char *, ...) {
    return 0;
}
uint32_t OnPack(ND_LIB_Instance *nd, void *) {
    if (asked == now->packs.size()) {
        ADD_FAILURE() << "asked for subscriptions at " << now->ms << " ms";
        return 1;
    }
    const Pack &pack = now->packs[asked++];
    Make(nd, pack.requests);
    return pack.answer;
}
uint32_t OnEvent(ND_LIB_Instance *, uint32_t code, uint32_t) {
    return code == ND_LIB_NOTIFY_VERIFY_REQUEST && !now->pass ? 1 : 0;
}
uint32_t OnRecord(ND_LIB_Instance *, const ND_LIB_TlvHead *) {
    return 0;
}

void Feed(sim::World &world, ND_LIB_Instance *nd, const Step &step, const sim::Record &expiry) {
    if (step.input == kAvailable || step.input == kGone) {
        const ND_LIB_CompState state = {0, step.input == kGone ? 1U : 0U};
        ND_LIB_NotifyNdCompState(nd, &state);
        return;
    }
    sim::Record record;
    record.sender = step.sender;
    record.subIntf = step.subIntf;
    record.bytes = Bytes(step.bytes);
    if (step.input == kOtherTimer) {
        record.iid = sim::kTimerIid;
        record.bytes.assign(4, 0xFF);
    }
    const sim::Message message(world, step.input == kSecond ? expiry : record);
    ND_LIB_MsgProcess(nd, message.Data());
}

void Play(uint32_t process, uint32_t component, const std::vector<Step> &steps) {
    sim::World world;
    sim::Record expiry;
    const ND_LIB_FrameRegister frame = {component, process, 1, 1, 1, OnLog, 0, 0};
    const ND_LIB_ConsumerRegister consumer = {1, OnPack, OnEvent, OnRecord};
    ND_LIB_Instance *nd = ND_LIB_Init(&frame);
    ASSERT_EQ(ND_LIB_RegisterConsumer(nd, &consumer), ND_LIB_OK);
    for (const Step &step : steps) {
        now = &step;
        asked = 0;
        const uint64_t left = step.ms > world.Uptime() ? step.ms - world.Uptime() : 0;
        world.Advance(std::min<uint64_t>(left, 3'600'000)); // the timer needs no more to expire
        world.SetSeconds(step.seconds);
        for (const sim::Record &expired : world.TakeExpiries()) {
            expiry = expired;
        }
        world.LiftAll();
        std::string expected;
        for (size_t i = 0; i < step.sent.size(); ++i) {
            const Sent &sent = step.sent[i];
            if (sent.result != 0) {
                world.Fail({.op = sim::Op::kSend, .from = world.Calls(sim::Op::kSend) + i + 1, .count = 1, .code = sent.result});
            } else {
                expected += "\nto " + std::to_string(sent.receiver) + ": " + sent.bytes;
            }
        }
        if (step.timerMade != 0) {
            world.FailNext(sim::Op::kTimerCreate);
        }
        if (step.timerEnded != 0) {
            world.FailNext(sim::Op::kTimerDelete);
        }
        Make(nd, step.before);
        if (step.pass) {
            ND_LIB_StartVerify(nd);
        }
        if (step.input != kSecond || !expiry.bytes.empty()) {
            Feed(world, nd, step, expiry);
        }
        if (step.pass) {
            ND_LIB_StopVerify(nd);
        }
        std::string sent;
        for (const sim::Record &record : world.TakeSent()) {
            sent += "\nto " + std::to_string(record.receiver) + ": " + Hex(record.bytes);
        }
        ASSERT_EQ(sent, expected) << "at " << step.ms << " ms";
    }
    world.LiftAll();
    ND_LIB_Deinit(nd);
    EXPECT_EQ(world.Leaks(), "");
    EXPECT_TRUE(world.Violations().empty());
}

)";

std::string Number(uint64_t number) {
    return std::to_string(number);
}

std::string RequestList(const std::vector<Request> &requests) {
    std::string text;
    for (const Request &request : requests) {
        text += (text.empty() ? "{" : ", {") + std::string(request.subscribe ? "true" : "false") + ", " +
                Number(request.keyType) + ", \"" + HexText(request.key) + "\", " + Number(request.dataType) +
                ", \"" + HexText(request.data) + "\"}";
    }
    return '{' + text + '}';
}

std::string SentList(const std::vector<Sent> &sent) {
    std::string text;
    for (const Sent &one : sent) {
        text += (text.empty() ? "{" : ", {") + Number(one.receiver) + ", \"" + HexText(one.bytes) + '"' +
                (one.result != 0 ? ", " + Number(one.result) : "") + '}';
    }
    return '{' + text + '}';
}

std::string PackList(const std::vector<Event> &events) {
    std::string text;
    for (const Event &event : events) {
        if (event.kind == Event::Kind::kPack) {
            text +=
                (text.empty() ? "{" : ", {") + Number(event.code) + ", " + RequestList(event.requests) + '}';
        }
    }
    return text.empty() ? "" : '{' + text + '}';
}

std::string StepRow(const Session &session, const Played &played) {
    static constexpr std::string_view kInputs[] = {"kMessage", "kAvailable", "kGone", "kSecond",
                                                   "kOtherTimer"};
    const Step &step = session.steps.at(played.index);
    // A message kept back from the library is none: nothing happens on a timer that nobody knows.
    const bool message = step.input == Input::kMessage && step.handedOn;
    const std::string_view input =
        step.input == Input::kMessage && !message ? "kOtherTimer" : kInputs[static_cast<size_t>(step.input)];
    std::string row = "    // " + watch::Printable(InputText(session, step)) +
                      "\n    {.ms = " + Number(step.atMs) + ", .seconds = " + Number(step.seconds) +
                      "U, .input = " + std::string(input);
    if (message) {
        row += ", .bytes = \"" + HexText(step.packet.data) + "\", .sender = " + Number(step.packet.sender);
        row += step.packet.subIntf == sim::kNdpiSubInterface ? ""
                                                             : ", .subIntf = " + Number(step.packet.subIntf);
    }
    row += played.before.empty() ? "" : ", .before = " + RequestList(played.before);
    row += played.pass ? ", .pass = true" : "";
    const std::string packs = PackList(played.events);
    row += packs.empty() ? "" : ", .packs = " + packs;
    row += step.sent.empty() ? "" : ",\n     .sent = " + SentList(step.sent);
    const auto result = [&row](const char *name, const std::vector<uint32_t> &results) {
        if (!results.empty() && results.front() != 0) {
            row += std::string(", ") + name + " = " + Number(results.front());
        }
    };
    result(".timerMade", step.timersMade);
    result(".timerEnded", step.timersEnded);
    return row + "},\n";
}

} // namespace

std::string TestSource(const Session &session, const std::vector<Played> &played) {
    std::string text = "// A recorded session: process " + Number(session.process) +
                       (session.program.empty() ? "" : " (" + watch::Printable(session.program) + ')') +
                       " with component " + Number(session.component) + ", " + Number(played.size()) +
                       " of " + Number(session.steps.size()) +
                       " steps.\n// Link it with pegeir, pegeir_sim and gtest_main.";
    text += kHead;
    text += "const std::vector<Step> kSteps = {\n";
    for (const Played &one : played) {
        text += StepRow(session, one);
        if (one.difference) {
            text += "    // first difference: " + one.difference->text + '\n';
            text += one.difference->now ? "    // now: " + HexText(one.difference->now->bytes) + '\n' : "";
        }
    }
    text += "};\n\nTEST(RecordedSession, IsRepeated) {\n    Play(" + Number(session.process) + ", " +
            Number(session.component) + ", kSteps);\n}\n\n} // namespace\n";
    return text;
}

} // namespace pegeir::replay
