// A bad link.  Every message draws its fate from one random sequence, in the order of sending, so that a
// seed tells a whole story and tells it again.

#include "state.hpp"

#include <memory>
#include <utility>

namespace pegeir::sim {
namespace {

struct LinkState {
    LinkFaults faults;
    std::mt19937_64 random;
};

// A number from first to last; std::uniform_int_distribution may differ between standard libraries.
std::uint64_t Draw(std::mt19937_64 &random, std::uint64_t first, std::uint64_t last) {
    return first + random() % (last - first + 1);
}

void Spoil(LinkState &link, std::vector<std::uint8_t> &bytes) {
    if (bytes.empty()) {
        return;
    }
    if (Chance(link.random, link.faults.truncate)) {
        bytes.resize(static_cast<std::size_t>(Draw(link.random, 0, bytes.size() - 1)));
    }
    if (!bytes.empty() && Chance(link.random, link.faults.flip)) {
        for (std::uint64_t left = Draw(link.random, 1, 3); left != 0; --left) {
            std::uint8_t &byte = bytes[static_cast<std::size_t>(Draw(link.random, 0, bytes.size() - 1))];
            byte = static_cast<std::uint8_t>(byte ^ Draw(link.random, 1, UINT8_MAX));
        }
    }
}

void Carry(LinkState &link, World &world, Record record) {
    Spoil(link, record.bytes);
    std::uint64_t delayMs = 0;
    if (Chance(link.random, link.faults.delay)) {
        delayMs = Draw(link.random, 1, link.faults.mostDelayMs);
    } else if (Chance(link.random, link.faults.reorder)) {
        delayMs = 1;
    }
    world.Post(std::move(record), delayMs);
}

} // namespace

Link BadLink(const LinkFaults &faults) {
    const auto link = std::make_shared<LinkState>(LinkState{faults, std::mt19937_64(faults.seed)});
    return [link](World &world, Record record) {
        if (Chance(link->random, link->faults.drop)) {
            return;
        }
        if (Chance(link->random, link->faults.duplicate)) {
            Carry(*link, world, record);
        }
        Carry(*link, world, std::move(record));
    };
}

} // namespace pegeir::sim
