// One consumer on the sim platform with its checks off, whose log function does what a careful consumer's
// does: it formats the line and keeps it.  The component's side is played by whoever measures.
#ifndef PEGEIR_BENCH_CONSUMER_HPP
#define PEGEIR_BENCH_CONSUMER_HPP

#include <pegeir/pegeir.h>
#include <pegeir/sim.hpp>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "nd_lib/nd_lib.h"
#include "tlv/ndpi.h"

namespace pegeir::bench {

using Bytes = std::vector<uint8_t>;

// Keeps the last lines of a log, formatted where they are kept.
class LineStore {
public:
    void Add(const char *format, va_list arguments) {
        if (used > buffer.size() - kLongest) {
            used = 0;
        }
        const int length = vsnprintf(buffer.data() + used, kLongest, format, arguments);
        used += length < 0 ? 0 : static_cast<size_t>(length) + 1;
    }
    __attribute__((format(printf, 2, 3))) void Print(const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        Add(format, arguments);
        va_end(arguments);
    }

private:
    static constexpr size_t kLongest = 512;
    std::array<char, 100 * 1024> buffer{};
    size_t used = 0;
};

class Consumer {
public:
    static constexpr uint32_t kNd = 0x64;
    static constexpr uint32_t kApp = 0xC8;

    Consumer();
    ~Consumer();
    Consumer(const Consumer &) = delete;
    Consumer &operator=(const Consumer &) = delete;

    // Stands in state from now on, as if it had got there by itself.
    void Stand(uint32_t state);
    // Lets one second pass, in which the one-second timer may expire.
    void Second() { world.Run(1000); }

    sim::World world{{.checks = false, .mostAtOnce = ~uint64_t{0}}};
    ND_LIB_Instance *nd = nullptr;
};

// An item head as a consumer has it: aligned, the bytes behind it.
struct ItemHead {
    ItemHead(uint16_t type, const Bytes &bytes);
    [[nodiscard]] const ND_LIB_ItemHead *Get() const;
    std::vector<uint16_t> words;
};

// The key of an item, of size bytes (4 at least) that begin with number.
Bytes KeyBytes(uint32_t number, size_t size);

// An ndpi message of this type and sequence number around the body.
Bytes Message(uint8_t type, uint32_t sequence, const Bytes &body);
// Elements of size bytes, heads included, as many as fit into length bytes.
Bytes Elements(size_t size, size_t length);

} // namespace pegeir::bench

#endif
