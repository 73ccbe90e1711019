/*
 * What the library's statistics have to say.
 *
 * No message shows a wrong counter, so the counters are held against the messages that have passed.
 */
#ifndef PEGEIR_REPLAY_COUNTERS_H
#define PEGEIR_REPLAY_COUNTERS_H

#include <array>
#include <cstdint>
#include <string>

#include "decode.h"
#include "nd_lib_fsm/nd_lib_fsm.h"

namespace pegeir::replay {

class Counters {
public:
    // A message that the library has sent, or tried to, when the platform refused it.
    void Sent(const Kind &kind, bool refused);
    // A message that ND_LIB_MsgProcess has answered with result.
    void Received(const Kind &kind, uint32_t result);

    // Compares with the report of the statistics.  Returns what is wrong with it, or nothing.
    [[nodiscard]] std::string Wrong(const std::string &report) const;

private:
    std::array<uint32_t, ND_LIB_STAT_MAX> counts = {};
};

} // namespace pegeir::replay

#endif
