// A whole life of an instance, told by the input: calls, messages of the component as they should be and as
// they should not, time, clocks that jump, failures of the platform, a consumer that makes requests from
// its callbacks.
//
// After every step the store is consistent.  At the end everything is lifted, the component comes anew, and
// the instance has to reach the ready state with nothing pending; then it is destroyed, and nothing is left.
#include "fuzz.h"

#include <map>
#include <memory>

#include "support/driver.hpp"

namespace pegeir::fuzz {
namespace {

using tests::Bytes;
using tests::Driver;
using tests::Item;
using tests::Join;
using tests::Ndpi;

constexpr uint32_t kMaxSteps = 300;

class Session {
public:
    explicit Session(Input aInput) : input(aInput) {
        BreakCreation();
        d = std::make_unique<Driver>(world, input.Below(8) != 0);
        d->onPack = [this] {
            Request();
            return packAnswer;
        };
        d->onEvent = [this](uint32_t) {
            Request();
            return eventAnswer;
        };
        d->onRecord = [this](const tests::Delivered &) { Request(); };
        d->onLog = [this](const tests::LogLine &) { Request(); };
    }

    void Play() {
        for (uint32_t step = 0; !input.AtEnd() && step < kMaxSteps; ++step) {
            Step();
            (void)d->TakeLog();
            d->records.clear();
            d->events.clear();
            d->optionDataSeen.clear();
            RequireNone(tests::BrokenInvariant(d->nd));
        }
        Recover();
        d->Deinit();
        RequireNone(world.Leaks());
        RequireNone(world.Violations().empty() ? "" : world.Violations().front());
    }

private:
    // Spares the instance itself, without which there is nothing to try.
    void BreakCreation() {
        static constexpr sim::Op kOps[] = {sim::Op::kTimerCreateLib, sim::Op::kTimerCreateInstance,
                                           sim::Op::kMalloc, sim::Op::kGmtGet};
        if (input.Below(16) == 0) {
            const auto op = input.Pick(kOps);
            world.Fail({.op = op, .from = op == sim::Op::kMalloc ? 2U : 1U, .count = 1U + input.Below(3)});
            hasTimer = false;
        }
    }

    void Step() {
        switch (input.Below(16)) {
        case 0:
            Request(0);
            break;
        case 1:
            Setting();
            break;
        case 2:
            d->Notify(input.Below(8) == 0 ? input.U32() : input.Below(2));
            break;
        case 3:
            Break();
            break;
        case 4:
            Callbacks();
            break;
        case 5:
            Page();
            break;
        case 6:
            world.SetSeconds(input.Flag() ? input.U32() : world.Seconds() + input.U8() - 128U);
            break;
        case 7:
            RawMessage();
            break;
        case 8:
        case 9:
            ShapedMessage();
            break;
        case 10:
            BulkRequests();
            break;
        case 11:
            d->Run(input.U8());
            Remember();
            break;
        case 12:
            Answer();
            Download();
            break;
        default: // what leads on, so that inputs get far
            d->Run(1);
            Answer();
        }
    }

    // ---- The consumer ----

    Item MakeItem() {
        static constexpr size_t kKeys[] = {4, 4, 4, 1, 0, 300, 9999, 10000};
        static constexpr size_t kData[] = {0, 0, 8, 40, 2000, 7980, 10000, 10001};
        return {static_cast<uint16_t>(1000 + input.Below(2)), Bytes(input.Pick(kKeys), input.U8()),
                static_cast<uint16_t>(1 + input.Below(3)), Bytes(input.Pick(kData), 3)};
    }

    void Request(uint32_t) {
        const Item item = MakeItem();
        (void)(input.Flag() ? d->Subscribe(item) : d->UnSubscribe(item));
    }

    // From a callback: as often as the input last said, and not from within such a request.
    void Request() {
        if (fromCallbacks == 0 || inCallback) {
            return;
        }
        --fromCallbacks;
        inCallback = true;
        if (input.Below(4) == 0) {
            Setting(false);
        } else {
            Request(0);
        }
        inCallback = false;
    }

    void BulkRequests() {
        const uint32_t first = input.U8();
        const uint16_t dataType = static_cast<uint16_t>(1 + input.Below(2));
        const auto request = input.Flag() ? &Driver::Subscribe : &Driver::UnSubscribe;
        for (uint32_t count = input.U8(); count > 0; --count) {
            (void)((*d).*request)(tests::NumberedItem(first + count, dataType));
        }
    }

    void Setting(bool mayRegister = true) {
        switch (input.Below(mayRegister ? 6 : 5)) {
        case 0:
            (void)ND_LIB_StartVerify(d->nd);
            break;
        case 1:
            (void)ND_LIB_StopVerify(d->nd);
            break;
        case 2:
            (void)ND_LIB_SetVerifyCycle(d->nd, input.U16());
            break;
        case 3:
            Page();
            break;
        case 4: {
            const Bytes option(input.Flag() ? input.U16() : input.U8(), 9);
            static constexpr uint8_t kNothing = 0;
            (void)ND_LIB_AddOptionData(d->nd, option.empty() ? &kNothing : option.data(),
                                       static_cast<uint32_t>(option.size()));
            break;
        }
        default:
            (void)d->Register();
        }
    }

    void Callbacks() {
        static constexpr uint32_t kAnswers[] = {ND_LIB_PACK_DONE, ND_LIB_PACK_MORE, 1, 0xFFFFFFFF};
        packAnswer = input.Pick(kAnswers);
        eventAnswer = input.Below(2);
        fromCallbacks = input.Below(32);
    }

    void Page() {
        const uint32_t size = input.Flag() ? input.U8() : input.U16();
        const auto buffer = std::make_unique<char[]>(size);
        uint32_t length = 0;
        (void)ND_LIB_GetDiagnoseInfo(d->nd, buffer.get(), size, &length, input.Below(2));
    }

    // ---- The platform ----

    void Break() {
        if (input.Below(8) == 0) {
            world.LiftAll();
            return;
        }
        sim::Fault fault{.op = static_cast<sim::Op>(input.Below(sim::kOps))};
        fault.from = world.Calls(*fault.op) + 1 + input.Below(8);
        fault.count = 1 + input.Below(16);
        fault.code = 1 + input.Below(2);
        world.Fail(fault);
    }

    // ---- The component ----

    // Looks at what went out.
    std::vector<Ndpi> Remember() {
        std::vector<Ndpi> requests;
        for (const sim::Record &record : world.TakeSent()) {
            const Bytes &bytes = record.bytes;
            Require(bytes.size() >= NDPI_HEADER_LEN && bytes.size() <= record.allocated, "an odd message");
            const auto header = ndpi::ReadHeader(bytes.data());
            Require(header.msgLen == bytes.size(), "a message of another length than it tells");
            if (!header.IsAck()) {
                requests.push_back({header.msgType, header.transNumber, header.sequenceNum,
                                    Bytes(bytes.begin() + NDPI_HEADER_LEN, bytes.end())});
                last[header.msgType] = requests.back();
            }
        }
        return requests;
    }

    void Answer() {
        for (const Ndpi &request : Remember()) {
            (void)d->Ack(request);
        }
    }

    void Download() {
        const bool verifies = d->State() >= ND_LIB_FSM_VERIFY_COLLECT_SUBSCRIBE;
        const auto begin = verifies ? NDPI_MSG_VERIFY_DATA_BEGIN : NDPI_MSG_SMOOTH_BEGIN;
        const auto end = verifies ? NDPI_MSG_VERIFY_DATA_END : NDPI_MSG_SMOOTH_END;
        const uint32_t first = input.U32();
        const uint32_t count = input.Below(4);
        (void)d->Receive({.type = begin, .trans = 1, .seq = first});
        for (uint32_t number = 0; number < count; ++number) {
            (void)d->Receive(
                {.type = NDPI_MSG_SMOOTH_DATA, .trans = 2, .seq = first + number, .body = Elements()});
        }
        (void)d->Receive({.type = end, .trans = 3, .seq = first + count});
    }

    Bytes Elements() {
        Bytes body;
        for (uint32_t count = input.Below(6); count > 0; --count) {
            Bytes element = tests::Tlv(input.U8(), input.Bytes(input.Below(24)));
            element[3] = static_cast<uint8_t>(element[3] + (input.Below(8) == 0 ? input.U8() : 0));
            body = Join({body, element});
        }
        return body;
    }

    // A message whose fields are what they should be, or not.
    void ShapedMessage() {
        Ndpi message;
        const uint32_t type = input.Below(16);
        message.type = type < NDPI_MSG_PROC_NUM ? g_ndpiMsgProc[type].msgType : input.U8();
        const auto known = last.find(message.type);
        static constexpr uint8_t kFlags[] = {0, 0, NDPI_ACK_FLAG, NDPI_ACK_FLAG, 0x7F, 0xFF};
        message.flags = input.Pick(kFlags);
        const uint32_t trans = input.Below(4);
        message.trans = trans == 0                          ? input.U32()
                        : trans == 1 || known == last.end() ? d->nd->transNumber
                                                            : known->second.trans;
        const uint32_t seq = input.Below(4);
        message.seq = seq == 0 ? input.U32() : d->nd->consumer.sequenceNum + (seq == 1 ? 1 : 0);
        const uint32_t body = input.Below(4);
        message.body = body == 0                          ? Bytes{}
                       : body == 1 && known != last.end() ? known->second.body
                       : body == 2                        ? input.Bytes(input.U8())
                                                          : Elements();
        Bytes bytes = message.Wire();
        if (input.Below(4) == 0) { // msgLen does not tell the truth
            bytes[input.Flag()] = input.U8();
        }
        if (input.Below(8) == 0) { // or not all is delivered
            bytes.resize(bytes.size() - std::min<size_t>(bytes.size(), input.U8()));
        }
        (void)d->ReceiveBytes(bytes, input.Below(16) == 0 ? input.U8() : NDPI_MSG_SUB_INTF,
                              input.Below(8) == 0 ? input.U32() : Driver::kNd);
    }

    void RawMessage() {
        sim::Record record;
        record.sender = Driver::kNd;
        record.receiver = Driver::kApp;
        record.iid = input.Below(2) * sim::kTimerIid;
        record.bytes = input.Bytes(input.U8());
        const sim::Message message(world, record);
        (void)ND_LIB_MsgProcess(d->nd, message.Data());
    }

    // ---- The end ----

    void Recover() {
        world.LiftAll();
        packAnswer = ND_LIB_PACK_DONE;
        eventAnswer = 1; // no verification pass now
        fromCallbacks = 0;
        d->Down();
        (void)d->Register();
        const bool driven = d->nd->tmrCtx != nullptr && d->nd->tmrCtx->tmrInstHandle != 0;
        Require(driven || !hasTimer, "the timer service is gone");
        if (!driven) {
            return;
        }
        (void)Remember();
        for (uint32_t number = 0; number < 20; ++number) {
            Require(d->Subscribe(tests::NumberedItem(number)) == ND_LIB_OK, "a request is refused");
        }
        d->Up();
        const auto isDone = [&] {
            return d->State() == ND_LIB_FSM_READY && d->nd->consumer.subscribeTree.count == 0;
        };
        for (uint32_t second = 0; second < 30 && !isDone(); ++second) {
            Answer();
            if (d->State() == ND_LIB_FSM_WAIT_SMOOTH) {
                Download();
            }
            d->Run(1);
        }
        Require(isDone(), "the instance does not become ready with every request delivered");
        RequireNone(tests::BrokenInvariant(d->nd));
    }

    Input input;
    sim::World world;
    std::unique_ptr<Driver> d;
    bool hasTimer = true;
    std::map<uint8_t, Ndpi> last; // requests by type
    uint32_t packAnswer = ND_LIB_PACK_DONE;
    uint32_t eventAnswer = 0;
    uint32_t fromCallbacks = 0;
    bool inCallback = false;
};

} // namespace

void Run(Input input) {
    Session(input).Play();
}

} // namespace pegeir::fuzz
