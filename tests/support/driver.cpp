#include "support/driver.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <utility>

namespace pegeir::tests {

namespace {

std::map<uint32_t, Driver *> g_drivers; // by appLocal

// Aligned, as a consumer's own record is.
std::vector<uint16_t> Head(uint16_t type, const Bytes &bytes) {
    std::vector<uint16_t> head(2 + (bytes.size() + 1) / 2);
    head[0] = type;
    head[1] = static_cast<uint16_t>(bytes.size());
    if (!bytes.empty()) {
        memcpy(head.data() + 2, bytes.data(), bytes.size());
    }
    return head;
}

} // namespace

Bytes U16(uint32_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes U32(uint32_t value) {
    return Join({U16(value >> 16), U16(value)});
}

Bytes Join(const std::vector<Bytes> &parts) {
    Bytes all;
    for (const Bytes &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes Tlv(uint16_t type, const Bytes &value) {
    return Join({U16(type), U16(static_cast<uint32_t>(value.size())), value});
}

Bytes Item::Record() const {
    return Tlv(18, Join({Tlv(keyType, key), Tlv(dataType, data)}));
}

Item NumberedItem(uint32_t number, uint16_t dataType) {
    return {1000, U32(number), dataType, {}};
}

Bytes Ndpi::Wire() const {
    return Join(
        {U16(static_cast<uint32_t>(16 + body.size())), {flags, type}, U32(trans), U32(0), U32(seq), body});
}

Driver::Driver(sim::World &aWorld, bool registerConsumer) : world(aWorld) {
    const auto appLocal = static_cast<uint32_t>(g_drivers.size() + 1);
    g_drivers[appLocal] = this;
    const ND_LIB_FrameRegister frame = {kNd, kApp, 0x11, 0x22, appLocal, Log, 0, 0};
    nd = ND_LIB_Init(&frame);
    if (nd == nullptr) {
        g_drivers.erase(appLocal);
        return;
    }
    const auto feed = [this](void *message) { (void)ND_LIB_MsgProcess(nd, message); };
    world.Attach(kApp, feed);
    world.AttachTimers(0x22, feed);
    if (registerConsumer) {
        EXPECT_EQ(Register(), ND_LIB_OK);
    }
}

void Driver::Deinit() {
    if (nd != nullptr) {
        g_drivers.erase(nd->appLocal);
        ND_LIB_Deinit(nd);
        nd = nullptr;
        world.Detach(kApp);
        world.DetachTimers(0x22);
    }
}

void Driver::Silently(const std::function<void()> &act) {
    const ND_LIB_LogFunc function = std::exchange(nd->logFunc, nullptr);
    act();
    nd->logFunc = function;
}

uint32_t Driver::Register() {
    const ND_LIB_ConsumerRegister consumer = {5, Pack, Event, Record};
    return ND_LIB_RegisterConsumer(nd, &consumer);
}

uint32_t Driver::Request(RequestFunc request, const Item &item) {
    const auto key = Head(item.keyType, item.key);
    const auto data = Head(item.dataType, item.data);
    return request(nd, reinterpret_cast<const ND_LIB_ItemHead *>(key.data()),
                   reinterpret_cast<const ND_LIB_ItemHead *>(data.data()));
}

void Driver::Notify(uint32_t newState) {
    const ND_LIB_CompState state = {0, newState};
    ND_LIB_NotifyNdCompState(nd, &state);
}

uint32_t Driver::ReceiveBytes(const Bytes &bytes, uint32_t subIntf, uint32_t sender) {
    sim::Record record;
    record.sender = sender;
    record.receiver = kApp;
    record.subIntf = subIntf;
    record.bytes = bytes;
    const sim::Message message(world, record);
    return ND_LIB_MsgProcess(nd, message.Data());
}

uint32_t Driver::Ack(const Ndpi &request) {
    Ndpi ack = request;
    ack.flags = NDPI_ACK_FLAG;
    return Receive(ack);
}

std::vector<Ndpi> Driver::Sent() {
    std::vector<Ndpi> sent;
    for (const sim::Record &record : world.TakeSent()) {
        EXPECT_EQ(std::tuple(record.arg1, record.arg2, record.intf, record.subIntf, record.sender),
                  std::tuple(6U, 932U, 3U, 164U, uint32_t{kApp}));
        const Bytes &b = record.bytes;
        EXPECT_GE(b.size(), 16U);
        const auto header = ndpi::ReadHeader(b.data());
        EXPECT_EQ(header.msgLen, b.size());
        EXPECT_EQ(Bytes(b.begin() + 8, b.begin() + 12), U32(0));
        sent.push_back({header.msgType, header.transNumber, header.sequenceNum,
                        Bytes(b.begin() + 16, b.end()), header.flags});
    }
    return sent;
}

Ndpi Driver::SentOne(uint8_t type) {
    const auto sent = Sent();
    EXPECT_EQ(sent.size(), 1U) << "where one message of type " << int{type} << " was expected";
    const Ndpi last = sent.empty() ? Ndpi{} : sent.back();
    EXPECT_EQ(int{last.type}, int{type});
    return last;
}

std::vector<Ndpi> Driver::BecomeReady(const std::vector<Bytes> &download) {
    const auto ackNext = [this](uint8_t type) {
        Run(1);
        EXPECT_EQ(Ack(SentOne(type)), ND_LIB_OK);
    };
    Up();
    EXPECT_EQ(Ack(SentOne(NDPI_MSG_REGISTER)), ND_LIB_OK);
    ackNext(NDPI_MSG_SUBSCRIBE_BEGIN);
    const auto upload = Sent();
    for (const Ndpi &data : upload) {
        EXPECT_EQ(Ack(data), ND_LIB_OK);
    }
    Run(1);
    ackNext(NDPI_MSG_SUBSCRIBE_END);
    uint32_t seq = 5;
    EXPECT_EQ(Receive({.type = NDPI_MSG_SMOOTH_BEGIN, .seq = seq}), ND_LIB_OK);
    for (const Bytes &body : download) {
        EXPECT_EQ(Receive({.type = NDPI_MSG_SMOOTH_DATA, .seq = seq++, .body = body}), ND_LIB_OK);
    }
    EXPECT_EQ(Receive({.type = NDPI_MSG_SMOOTH_END, .seq = seq}), ND_LIB_OK);
    EXPECT_EQ(Sent().size(), 2U); // the acknowledgements of begin and end
    EXPECT_EQ(State(), ND_LIB_FSM_READY);
    return upload;
}

std::vector<LogLine> Driver::TakeLog() {
    return std::exchange(log, {});
}

std::vector<std::string> Driver::TakeTrace(uint32_t box) {
    std::vector<std::string> lines;
    void *handle = nd->blackBox[box].bbHandle;
    if (handle == nullptr) {
        return lines;
    }
    std::string all(static_cast<size_t>(GetBlackBoxContentLength(handle)), '\0');
    EXPECT_EQ(ReadBlockFromBlackBox(handle, all.data(), static_cast<uint32_t>(all.size())),
              static_cast<int32_t>(all.size()));
    char rest = 0;
    EXPECT_EQ(ReadBlockFromBlackBox(handle, &rest, 1), 0); // begins anew after this
    std::istringstream text(all);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line.substr(line.find(' ', line.find(' ') + 1) + 1));
    }
    const auto known = static_cast<std::ptrdiff_t>(std::exchange(traced[box], lines.size()));
    lines.erase(lines.begin(), lines.begin() + known);
    return lines;
}

std::vector<std::string> Driver::Pages(uint32_t bufferLen) {
    std::vector<std::string> pages;
    std::vector<char> buffer(bufferLen, '#');
    for (uint32_t restart = 1;; restart = 0) {
        uint32_t length = 0;
        const uint32_t ret = ND_LIB_GetDiagnoseInfo(nd, buffer.data(), bufferLen, &length, restart);
        EXPECT_LT(length, bufferLen);
        pages.emplace_back(buffer.data(), length);
        if (ret != ND_LIB_OK) {
            EXPECT_EQ(ret, ND_LIB_ERR_DIAG_END);
            return pages;
        }
    }
}

Driver &Driver::Of(const ND_LIB_Instance *instance) {
    return *g_drivers.at(ND_LIB_GetAppLocal(instance));
}

uint32_t Driver::Log(ND_LIB_Instance *instance, uint32_t level, const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    constexpr std::string_view prefix = "[ND_LIB] NdPid=0X64, ";
    EXPECT_EQ(std::string_view(text).substr(0, prefix.size()), prefix);
    Driver &driver = Of(instance);
    driver.log.push_back({level, text + prefix.size()});
    driver.onLog(driver.log.back());
    return 0;
}

uint32_t Driver::Pack(ND_LIB_Instance *instance, void *optionData) {
    Of(instance).optionDataSeen.push_back(optionData);
    return Of(instance).onPack();
}

uint32_t Driver::Event(ND_LIB_Instance *instance, uint32_t code, uint32_t zero) {
    EXPECT_EQ(zero, 0U);
    Of(instance).events.push_back(code);
    return Of(instance).onEvent(code);
}

uint32_t Driver::Record(ND_LIB_Instance *instance, const ND_LIB_TlvHead *record) {
    const auto *value = reinterpret_cast<const uint8_t *>(record + 1);
    Driver &driver = Of(instance);
    driver.records.push_back({record->tlvType, Bytes(value, value + record->tlvLen)});
    driver.onRecord(Delivered(driver.records.back()));
    return 77;
}

std::string BrokenInvariant(ND_LIB_Instance *instance) {
    ND_LIB_ConsumerInfo &consumer = instance->consumer;
    if (consumer.subscribeTree.root == nullptr) {
        return "";
    }
    std::vector<const ND_LIB_ListNode *> onList;
    const auto walk = [&](ND_LIB_List *list) {
        uint32_t count = 0;
        for (ND_LIB_ListNode *link = list::First(list); link != nullptr; link = list::Next(list, link)) {
            if (link->list != list || link->next->prev != link || link->prev->next != link ||
                ++count > list->count) {
                return false;
            }
            onList.push_back(link);
        }
        return count == list->count;
    };
    for (ND_LIB_List *list : {&consumer.subscribingList, &consumer.unsubscribingList,
                              &consumer.waitSubAckList, &consumer.subscribeTmpList}) {
        if (!walk(list)) {
            return "a work list is broken";
        }
    }
    auto waiting = std::exchange(onList, {});
    std::sort(waiting.begin(), waiting.end());
    size_t found = 0;
    uint32_t keys = 0;
    for (ND_LIB_KeyEntry *key = store::FirstKey(instance); key != nullptr;
         key = store::NextKey(instance, key)) {
        ++keys;
        if (key->dataListHead.count == 0 || !walk(&key->dataListHead)) {
            return "a key's data list is broken or empty";
        }
        for (ND_LIB_ListNode *link = list::First(&key->dataListHead); link != nullptr;
             link = list::Next(&key->dataListHead, link)) {
            const ND_LIB_DataEntry *entry = store::OfDataLink(link);
            const bool waits = std::binary_search(waiting.begin(), waiting.end(), &entry->workListNode);
            found += waits ? 1 : 0;
            if (entry->keyEntry != key || (entry->dataLen == 0) != (entry->dataValue == nullptr) ||
                (entry->workListNode.list != nullptr) != waits) {
                return "a data entry is inconsistent";
            }
        }
    }
    const bool whole = keys == consumer.subscribeTree.count && found == waiting.size();
    return whole ? "" : "the tree's count is wrong, or a work list holds a foreign entry";
}

} // namespace pegeir::tests
