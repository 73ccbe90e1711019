/*
 * The consumer's part, which no recording shows, as far as the messages give it away.
 *
 * A request is made just before the step that sends it, unless its item is still waiting for its
 * acknowledgement: then it is a repetition, which the library has to make by itself.  What an upload
 * begins with is requested when the library asks for the subscriptions.  docs/capture.md tells what
 * follows from that.
 */
#ifndef PEGEIR_REPLAY_CONSUMER_H
#define PEGEIR_REPLAY_CONSUMER_H

#include <cstddef>
#include <map>
#include <optional>
#include <tuple>
#include <vector>

#include "session.h"

namespace pegeir::replay {

class Consumer {
public:
    // The session must outlive the consumer.
    explicit Consumer(const Session &aSession);

    // The steps are asked for in order: the requests to be made before one, then, if the library asks, the
    // answers within.
    [[nodiscard]] std::vector<Request> Before(size_t index);

    // Whether a verification pass begins with the step, so that one has to be allowed before.
    [[nodiscard]] bool BeginsPass(size_t index) const { return begins.at(index); }

    struct Answer {
        uint32_t code = 0; // ND_LIB_PACK_*, or another value
        std::vector<Request> requests;
    };
    // The subscriptions asked for in the step.
    [[nodiscard]] Answer Pack(size_t index);

private:
    using Item = std::tuple<uint16_t, Bytes, uint16_t>; // key type, key, data type
    struct Pending {
        bool subscribe = true;
        Bytes data;
        uint32_t number = 0; // of the message that it was last sent with
    };
    [[nodiscard]] uint32_t Code(size_t index) const;
    void Settle(const Step &step);

    const Session &session;
    std::vector<bool> begins;
    std::map<Item, Pending> pending;
    std::optional<size_t> uploaded; // the step whose records were requested when the library asked
};

} // namespace pegeir::replay

#endif
