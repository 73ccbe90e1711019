/*
 * What one datagram between two processes holds, and what a socket name says.  Both are pure functions
 * of bytes that anybody may have written.
 */
#ifndef PEGEIR_PLATFORM_LINUX_PACKET_H
#define PEGEIR_PLATFORM_LINUX_PACKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace pegeir::linux_platform {

inline constexpr size_t kPacketHeadSize = 16;
inline constexpr size_t kMaxDataSize = 65535;
inline constexpr size_t kMaxPacketSize = kPacketHeadSize + kMaxDataSize;

/* Receiver instance of the timer service. */
inline constexpr uint32_t kTimerServiceIid = 3;

/* Receiver instance of the runtime itself: a packet for it has no data and says "start over". */
inline constexpr uint32_t kStartOverIid = 0xFFFFFFFF;

struct PacketHead {
    uint32_t intf;
    uint32_t subIntf;
    uint32_t receiverIid;
};

struct Packet {
    PacketHead head;
    std::span<const uint8_t> data; /* lies in the decoded bytes */
};

std::array<uint8_t, kPacketHeadSize> EncodePacketHead(const PacketHead &head);

/* Decodes bytes into packet.  Returns null, or why the bytes are refused as a constant text; packet is
 * then untouched. */
[[nodiscard]] const char *DecodePacket(std::span<const uint8_t> bytes, Packet &packet);

/* Names of files in directory: where process id listens, where it keeps its lock, and from where it
 * sends to receiver. */
std::string ListenPath(std::string_view directory, uint32_t id);
std::string LockPath(std::string_view directory, uint32_t id);
std::string SendPath(std::string_view directory, uint32_t id, uint32_t receiver);

/* Returns the sender that path names, when it is the SendPath of directory, any sender but 0, and
 * receiver. */
std::optional<uint32_t> SenderOf(std::string_view path, std::string_view directory, uint32_t receiver);

} // namespace pegeir::linux_platform

#endif
