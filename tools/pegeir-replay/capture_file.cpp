/*
 * libpcap takes the file apart, a bounds-checked reader the packets.
 */
#include "capture_file.h"

#include <array>
#include <memory>

#include <pcap/pcap.h>

#include "tlv/wire.h"

namespace pegeir::replay {
namespace {

constexpr const char *kAdvice = "; give a file that was made with --capture or $PEGEIR_CAPTURE";

// Takes a packet apart.  Returns why that cannot be done, or null.
const char *Decode(const pcap_pkthdr &head, const uint8_t *bytes, Packet &packet) {
    if (head.caplen < head.len) {
        return "it was cut when it was written";
    }
    wire::Reader reader(bytes, head.caplen);
    const uint8_t *const magic = reader.Bytes(PEGEIR_CAPTURE_AT_VERSION);
    if (magic == nullptr || magic[0] != 'P' || magic[1] != 'G' || magic[2] != 'C') {
        return "it is none of pegeir's";
    }
    uint8_t version = 0;
    uint16_t headSize = 0;
    uint32_t nanoseconds = 0;
    const bool whole = reader.U8(version) && reader.U8(packet.kind) && reader.U8(packet.direction) &&
                       reader.U16(headSize) && reader.U32(packet.sender) && reader.U32(packet.receiver) &&
                       reader.U32(packet.intf) && reader.U32(packet.subIntf) && reader.U32(packet.iid) &&
                       reader.U32(packet.result) && reader.U32(packet.seconds) && reader.U32(nanoseconds) &&
                       reader.U32(packet.number);
    if (!whole || headSize < PEGEIR_CAPTURE_HEAD_SIZE || headSize > head.caplen) {
        return "its head is too short";
    }
    if (version != PEGEIR_CAPTURE_VERSION) {
        return "it is of another version of the format";
    }
    if (packet.kind < PEGEIR_CAPTURE_START || packet.kind > PEGEIR_CAPTURE_CLOCK) {
        return "it is of an unknown kind";
    }
    packet.clockMs = uint64_t{packet.seconds} * 1000 + nanoseconds / 1'000'000;
    packet.wallMs =
        static_cast<uint64_t>(head.ts.tv_sec) * 1000 + static_cast<uint64_t>(head.ts.tv_usec) / 1'000'000;
    packet.data.assign(bytes + headSize, bytes + head.caplen);
    return nullptr;
}

} // namespace

std::optional<Recording> ReadCapture(const std::string &name, std::string &error) {
    std::array<char, PCAP_ERRBUF_SIZE> text = {};
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(
        pcap_open_offline_with_tstamp_precision(name.c_str(), PCAP_TSTAMP_PRECISION_NANO, text.data()),
        &pcap_close);
    if (!file) {
        const std::string reason = text.data();
        error = (reason.starts_with(name) ? reason : name + ": " + reason) + kAdvice;
        return std::nullopt;
    }
    if (pcap_datalink(file.get()) != PEGEIR_CAPTURE_LINKTYPE) {
        error = name + ": link type " + std::to_string(pcap_datalink(file.get())) + ", and pegeir's is " +
                std::to_string(int{PEGEIR_CAPTURE_LINKTYPE}) + kAdvice;
        return std::nullopt;
    }
    Recording recording;
    pcap_pkthdr *head = nullptr;
    const uint8_t *bytes = nullptr;
    int result = 0;
    for (uint64_t position = 1; (result = pcap_next_ex(file.get(), &head, &bytes)) == 1; ++position) {
        Packet packet;
        packet.position = position;
        if (const char *const wrong = Decode(*head, bytes, packet)) {
            recording.notes.push_back("packet " + std::to_string(position) + " is left out: " + wrong);
        } else {
            recording.packets.push_back(std::move(packet));
        }
    }
    if (result == PCAP_ERROR) {
        recording.notes.push_back(
            "the file is cut behind packet " +
            std::to_string(recording.packets.empty() ? 0 : recording.packets.back().position) + " (" +
            pcap_geterr(file.get()) + "); playing what is there");
    }
    if (recording.packets.empty()) {
        error = name + ": there is no packet of pegeir's in it" +
                (recording.notes.empty() ? "" : ": " + recording.notes.front()) + kAdvice;
        return std::nullopt;
    }
    return recording;
}

} // namespace pegeir::replay
