#include "consumer.hpp"

#include <cstring>

namespace pegeir::bench {
namespace {

LineStore g_log;

uint32_t Log(ND_LIB_Instance *, uint32_t, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_log.Add(format, arguments);
    va_end(arguments);
    return 0;
}

uint32_t Pack(ND_LIB_Instance *, void *) {
    return ND_LIB_PACK_DONE;
}

uint32_t Event(ND_LIB_Instance *, uint32_t, uint32_t) {
    return 0;
}

uint32_t Update(ND_LIB_Instance *, const ND_LIB_TlvHead *) {
    return 0;
}

void Put(Bytes &to, uint32_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        to.push_back(static_cast<uint8_t>(value >> shift));
    }
}

} // namespace

Consumer::Consumer() {
    const ND_LIB_FrameRegister frame = {kNd, kApp, 1, 2, 1, Log, 0, 0};
    const ND_LIB_ConsumerRegister consumer = {1, Pack, Event, Update};
    nd = ND_LIB_Init(&frame);
    const auto feed = [this](void *message) { (void)ND_LIB_MsgProcess(nd, message); };
    world.Attach(kApp, feed);
    world.AttachTimers(2, feed);
    world.SetZone(60); // as a device's clock is set somewhere
    (void)ND_LIB_RegisterConsumer(nd, &consumer);
    const ND_LIB_CompState up = {0, ND_LIB_COMP_AVAILABLE};
    ND_LIB_NotifyNdCompState(nd, &up);
    for (int line = 0; line < 20; ++line) { // both boxes at their full size
        ND_LIB_BlackBox(nd, ND_LIB_BLACKBOX_ASSERT, "line %d", line);
        ND_LIB_BlackBox(nd, ND_LIB_BLACKBOX_INFO, "line %d", line);
    }
    (void)world.TakeSent();
}

Consumer::~Consumer() {
    ND_LIB_Deinit(nd);
}

void Consumer::Stand(uint32_t state) {
    nd->consumer.compFsmState = state;
}

ItemHead::ItemHead(uint16_t type, const Bytes &bytes) : words(2 + (bytes.size() + 1) / 2) {
    words[0] = type;
    words[1] = static_cast<uint16_t>(bytes.size());
    if (!bytes.empty()) {
        std::memcpy(words.data() + 2, bytes.data(), bytes.size());
    }
}

const ND_LIB_ItemHead *ItemHead::Get() const {
    return reinterpret_cast<const ND_LIB_ItemHead *>(words.data());
}

Bytes KeyBytes(uint32_t number, size_t size) {
    Bytes bytes;
    Put(bytes, number, 4);
    bytes.resize(size, 0x20);
    return bytes;
}

Bytes Message(uint8_t type, uint32_t sequence, const Bytes &body) {
    Bytes message;
    Put(message, static_cast<uint32_t>(NDPI_HEADER_LEN + body.size()), 2);
    Put(message, type, 2); // no flags
    Put(message, 1, 4);
    Put(message, 0, 4);
    Put(message, sequence, 4);
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

Bytes Elements(size_t size, size_t length) {
    Bytes elements;
    while (elements.size() + size <= length) {
        Put(elements, 1, 2);
        Put(elements, static_cast<uint32_t>(size - 4), 2);
        elements.resize(elements.size() + size - 4, 0x5A);
    }
    return elements;
}

} // namespace pegeir::bench
