// The library as a subject.

#include <optional>

#include "model/model.h"

namespace pegeir::tests::model {
namespace {

class Library final : public Subject {
public:
    explicit Library(const sim::Liberties &liberties) : world({.liberties = liberties}) {
        world.SetLink([this](sim::World &, const sim::Record &record) {
            const bool good = std::tuple(record.intf, record.subIntf, record.arg1, record.arg2, record.cid) ==
                              std::tuple(3U, 164U, 6U, 932U, record.receiver);
            Tell(good ? 's' : '!', record.receiver, record.bytes);
        });
        Renew();
    }

    void Apply(const Call &call) override {
        const uint64_t ms = call.a * 1000ULL;
        switch (call.what) {
        case Do::kRegister: return Tell('=', d->Register());
        case Do::kSubscribe: return Tell('=', d->Subscribe(call.item));
        case Do::kUnSubscribe: return Tell('=', d->UnSubscribe(call.item));
        case Do::kOptionData: return AddOptionData(call.bytes);
        case Do::kComponent: return d->Notify(call.a);
        case Do::kVerify: return Tell('=', (call.a == 1 ? ND_LIB_StartVerify : ND_LIB_StopVerify)(d->nd));
        case Do::kCycle: return Tell('=', ND_LIB_SetVerifyCycle(d->nd, static_cast<uint16_t>(call.a)));
        case Do::kConsumer: consumer = call; return;
        case Do::kTick: world.Advance(call.b == 1 ? ms : 0); return world.Run(call.b == 1 ? 0 : ms);
        case Do::kClock: return world.SetSeconds(world.Seconds() + call.a);
        case Do::kNumber: d->nd->transNumber = 0 - call.a; return;
        case Do::kFail: return Fail(call);
        case Do::kRenew: return Renew();
        default: return Tell('=', d->ReceiveBytes(call.bytes, call.a, call.b));
        }
    }

    const View &Look() override {
        const ND_LIB_Instance &nd = *d->nd;
        ND_LIB_ConsumerInfo &info = d->nd->consumer;
        // clang-format off
        view.numbers = {
            info.compFsmState, info.nextSendCtrlMsgTime, info.ctrlMsgSendCnt, nd.transNumber, info.sequenceNum,
            nd.ndCompState, nd.isNeedVerify, nd.verifyCycle, nd.nextVerifyTime, nd.secNow, info.maxKeyLength,
            info.maxValueLength, info.sendSubNum, info.sendUnSubNum, nd.flowCtrlState, nd.flowCtlStartTime,
            nd.flowCtlEndTime, nd.flowCnt, info.fsmRecordNum, info.backupTimer != 0, info.optionData != nullptr};
        // clang-format on
        view.statistics.assign(std::begin(nd.statisticCnt), std::end(nd.statisticCnt));
        view.history.clear();
        for (const auto &[from, to, event] : info.fsmRecord) {
            view.history.push_back({from, to, event});
        }
        view.entries.clear();
        for (uint32_t i = 0; ND_LIB_List * list : {&info.subscribingList, &info.unsubscribingList,
                                                   &info.waitSubAckList, &info.subscribeTmpList}) {
            for (auto *link = list::First(list); link != nullptr; link = list::Next(list, link)) {
                Add(*store::OfWorkLink(link), i);
            }
            ++i;
        }
        for (auto *key = store::FirstKey(d->nd); key != nullptr; key = store::NextKey(d->nd, key)) {
            ND_LIB_List *list = &key->dataListHead;
            for (auto *link = list::First(list); link != nullptr; link = list::Next(list, link)) {
                const ND_LIB_DataEntry &entry = *store::OfDataLink(link);
                if (entry.workListNode.list == nullptr) {
                    Add(entry, kNone);
                }
            }
        }
        Complain(BrokenInvariant(d->nd));
        return Sorted();
    }

private:
    void Complain(const std::string &text) {
        if (!text.empty()) {
            Tell('!', 0, Bytes(text.begin(), text.end()));
        }
    }

    void Add(const ND_LIB_DataEntry &entry, uint32_t list) {
        const ND_LIB_KeyEntry &key = *entry.keyEntry;
        const Item item = {key.keyType, Bytes(key.keyValue, key.keyValue + key.keyLen), entry.dataType};
        view.entries.push_back({IdOf(item), Bytes(entry.dataValue, entry.dataValue + entry.dataLen), list,
                                entry.subscribeState, entry.sendCnt, entry.sendTransNumber,
                                entry.nextSendTime});
    }

    // Makes a new instance, after the old one has left nothing behind.
    void Renew() {
        world.LiftAll();
        d.reset();
        Complain(world.Leaks());
        Complain(world.Violations().empty() ? "" : world.Violations()[0]);
        d.emplace(world, false);
        d->onPack = [this] {
            const auto *data = static_cast<const uint8_t *>(d->optionDataSeen.back());
            return Collect(data == nullptr ? Bytes{'-'} : Bytes(data, data + optionLength));
        };
        d->onEvent = [this](uint32_t code) { return Hear('e', code); };
        d->onRecord = [this](const Delivered &record) { Hear('r', record.type, record.value); };
        for (uint32_t line = 0; line < 22; ++line) { // until the trace boxes take no more memory
            ND_LIB_BlackBox(d->nd, line % 2, "line %u", line);
        }
    }

    void AddOptionData(Bytes data) {
        optionLength = data.size();
        data.push_back(0); // so that there is an address when there are no bytes
        Tell('=', ND_LIB_AddOptionData(d->nd, data.data(), static_cast<uint32_t>(optionLength)));
    }

    void Fail(const Call &call) {
        const sim::Op op = kFallible.at(call.a);
        if (faults.contains(op)) {
            world.Lift(faults[op]);
        }
        faults[op] = world.Fail({.op = op, .from = world.Calls(op) + 1 + call.b, .count = call.c + 1});
    }

    sim::World world;
    std::optional<Driver> d;
    std::map<sim::Op, sim::FaultId> faults; // the latest of each
    size_t optionLength = 0;
};

} // namespace

std::unique_ptr<Subject> MakeLibrary(const sim::Liberties &liberties) {
    return std::make_unique<Library>(liberties);
}

} // namespace pegeir::tests::model
