// The datagrams that any process of the user may send, and the socket names they come from.
#include "fuzz.h"

#include <packet.h>

namespace pegeir::fuzz {

using namespace linux_platform;

void Run(Input input) {
    if (input.Flag()) {
        // A name is taken for a sender's only if it is the very name that this sender has.
        static constexpr std::string_view kDirectories[] = {"", "/", "/run/user/1000/pegeir"};
        const std::string directory(input.Pick(kDirectories));
        const uint32_t receiver = input.U32();
        const uint32_t id = input.U32();
        const auto sender = SenderOf(SendPath(directory, id, receiver), directory, receiver);
        Require(sender.value_or(0) == id, "a sender's own name is not taken for its name");

        auto bytes = input.Rest();
        std::string name(bytes.begin(), bytes.end());
        if (input.Flag()) {
            name = directory + "/" + name;
        }
        for (const std::string &path : {name, directory + "/" + name, directory + "/" + name + ".sock"}) {
            const auto found = SenderOf(path, directory, receiver);
            Require(!found || (*found != 0 && SendPath(directory, *found, receiver) == path),
                    "a foreign name is taken for a sender's");
        }
        return;
    }
    // Random bytes hardly ever begin as a packet does, so the head is put before them at times.
    auto bytes = input.Rest();
    for (const bool headed : {false, true}) {
        if (headed) {
            const auto head = EncodePacketHead({3, 164, bytes.empty() ? 0U : bytes[0]});
            bytes.insert(bytes.begin(), head.begin(), head.end());
        }
        Packet packet{{7, 8, 9}, {}};
        const char *refusal = DecodePacket(bytes, packet);
        if (refusal != nullptr) {
            Require(packet.head.intf == 7 && packet.head.subIntf == 8 && packet.head.receiverIid == 9 &&
                        packet.data.empty(),
                    "a refused packet was decoded");
            continue;
        }
        Require(packet.head.receiverIid != kTimerServiceIid, "a forged timer message was accepted");
        const auto head = EncodePacketHead(packet.head);
        Require(bytes.size() == head.size() + packet.data.size() && packet.data.size() <= kMaxDataSize &&
                    std::equal(head.begin(), head.end(), bytes.begin()) &&
                    std::equal(packet.data.begin(), packet.data.end(), bytes.begin() + head.size()),
                "an accepted packet does not encode to the bytes it was");
    }
}

} // namespace pegeir::fuzz
