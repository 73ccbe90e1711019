/*
 * A recording as it stands in its file: docs/capture.md describes the packets.
 *
 * A file tells of a device that had trouble, so it is read as far as it goes.  What cannot be used is left
 * out and told, and only a file that is no recording at all is refused.
 */
#ifndef PEGEIR_REPLAY_CAPTURE_FILE_H
#define PEGEIR_REPLAY_CAPTURE_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <pegeir/capture.h>

namespace pegeir::replay {

using Bytes = std::vector<uint8_t>;

struct Packet {
    uint64_t position = 0; // in the file, from 1 as viewers count
    uint64_t wallMs = 0;   // wall clock, since 1970
    uint8_t kind = 0;      // PEGEIR_CAPTURE_START to PEGEIR_CAPTURE_CLOCK
    uint8_t direction = 0;
    uint32_t sender = 0;
    uint32_t receiver = 0;
    uint32_t intf = 0;
    uint32_t subIntf = 0;
    uint32_t iid = 0;
    uint32_t result = 0;
    uint32_t seconds = 0; // of the clock that the library goes by
    uint64_t clockMs = 0; // the same with its milliseconds
    uint32_t number = 0;
    Bytes data;

    // The process that recorded it.  A reading of the clock comes in, too, but from nobody.
    [[nodiscard]] uint32_t Process() const {
        return direction == PEGEIR_CAPTURE_IN && kind != PEGEIR_CAPTURE_CLOCK ? receiver : sender;
    }
    [[nodiscard]] bool Is(uint8_t aKind, uint8_t aDirection) const {
        return kind == aKind && direction == aDirection;
    }
};

struct Recording {
    std::vector<Packet> packets;
    std::vector<std::string> notes; // what is wrong with the file, for people
};

// Reads the file.  Returns nothing, with the reason in error, when there is no packet to be had from it.
[[nodiscard]] std::optional<Recording> ReadCapture(const std::string &name, std::string &error);

} // namespace pegeir::replay

#endif
