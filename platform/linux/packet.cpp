/*
 * The formats that two processes agree on.
 *
 *   packet    := magic intf subIntf receiverIid data
 *   magic     := 50 47 52 01              "PGR", version 1
 *   intf, subIntf, receiverIid := u32, big-endian
 *   data      := 0 to 65535 bytes, up to the end of the datagram
 *
 *   listens   := directory "/" id ".sock"
 *   sends     := directory "/" id "." receiver ".sock"
 *   lock      := directory "/" id ".lock"
 *   id, receiver := decimal, 1 to 4294967295, no leading zero
 *
 * Neither sender nor receiver stands in the packet: the sender is who could bind the name that the
 * datagram came from.  receiverIid is never that of the timer service, whose messages no other process
 * may forge.  A packet with receiverIid 4294967295 is for the runtime of the receiver: whoever watches its
 * sender is told that it has gone and come.
 */
#include "packet.h"

#include <charconv>

namespace pegeir::linux_platform {
namespace {

constexpr uint32_t kMagic = 0x50475201;

void PutU32(std::span<uint8_t, 4> to, uint32_t value) {
    for (size_t i = 0; i < 4; i++)
        to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

uint32_t GetU32(std::span<const uint8_t, 4> from) {
    uint32_t value = 0;
    for (const uint8_t byte : from)
        value = value << 8 | byte;
    return value;
}

} // namespace

std::array<uint8_t, kPacketHeadSize> EncodePacketHead(const PacketHead &head) {
    std::array<uint8_t, kPacketHeadSize> bytes{};
    const std::span<uint8_t, kPacketHeadSize> to(bytes);
    PutU32(to.subspan<0, 4>(), kMagic);
    PutU32(to.subspan<4, 4>(), head.intf);
    PutU32(to.subspan<8, 4>(), head.subIntf);
    PutU32(to.subspan<12, 4>(), head.receiverIid);
    return bytes;
}

const char *DecodePacket(std::span<const uint8_t> bytes, Packet &packet) {
    if (bytes.size() < kPacketHeadSize)
        return "it is too short for a packet head";
    if (bytes.size() > kMaxPacketSize)
        return "it has more than 65535 data bytes";
    const auto head = bytes.first<kPacketHeadSize>();
    if (GetU32(head.subspan<0, 4>()) != kMagic)
        return "it is no packet of this version";
    const uint32_t receiverIid = GetU32(head.subspan<12, 4>());
    if (receiverIid == kTimerServiceIid)
        return "it claims to come from the timer service";
    packet.head = {GetU32(head.subspan<4, 4>()), GetU32(head.subspan<8, 4>()), receiverIid};
    packet.data = bytes.subspan(kPacketHeadSize);
    return nullptr;
}

std::string ListenPath(std::string_view directory, uint32_t id) {
    return std::string(directory) + "/" + std::to_string(id) + ".sock";
}

std::string LockPath(std::string_view directory, uint32_t id) {
    return std::string(directory) + "/" + std::to_string(id) + ".lock";
}

std::string SendPath(std::string_view directory, uint32_t id, uint32_t receiver) {
    return std::string(directory) + "/" + std::to_string(id) + "." + std::to_string(receiver) + ".sock";
}

std::optional<uint32_t> SenderOf(std::string_view path, std::string_view directory, uint32_t receiver) {
    const size_t begin = directory.size() + 1;
    if (path.size() <= begin)
        return std::nullopt;
    uint32_t id = 0;
    const auto parsed = std::from_chars(path.data() + begin, path.data() + path.size(), id);
    /* Writing the name again and comparing leaves no other spelling of the same number. */
    if (parsed.ec != std::errc{} || id == 0 || path != SendPath(directory, id, receiver))
        return std::nullopt;
    return id;
}

} // namespace pegeir::linux_platform
