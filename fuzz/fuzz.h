// What the fuzz targets share: reading a structured input, and ending the run when something is wrong.
//
// A target takes its input apart with an Input.  An input that is too short reads as zeros, so every input
// means something, and a short one stays short when bytes are changed.
#ifndef PEGEIR_FUZZ_FUZZ_H
#define PEGEIR_FUZZ_FUZZ_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pegeir::fuzz {

// Ends the process, which the fuzzer takes for a crash of the present input, unless holds.
inline void Require(bool holds, std::string_view what) {
    if (!holds) {
        fprintf(stderr, "broken: %.*s\n", static_cast<int>(what.size()), what.data());
        abort();
    }
}

// The same for a text that tells what is broken and is empty otherwise.
inline void RequireNone(const std::string &broken) {
    Require(broken.empty(), broken);
}

class Input {
public:
    explicit Input(std::span<const uint8_t> bytes) : left(bytes) {}

    [[nodiscard]] bool AtEnd() const { return left.empty(); }

    uint8_t U8() {
        const uint8_t value = AtEnd() ? uint8_t{0} : left.front();
        left = left.subspan(AtEnd() ? 0 : 1);
        return value;
    }
    uint16_t U16() {
        const unsigned high = U8();
        return static_cast<uint16_t>(high << 8 | U8());
    }
    uint32_t U32() {
        const uint32_t high = U16();
        return high << 16 | U16();
    }
    // A number below bound, which is 1 to 256.
    uint32_t Below(uint32_t bound) { return U8() % bound; }
    bool Flag() { return (U8() & 1) != 0; }
    // One of the values.
    template <typename Value, size_t count>
    Value Pick(const Value (&values)[count]) {
        return values[Below(count)];
    }

    // Up to count bytes: as many as are left.
    std::vector<uint8_t> Bytes(size_t count) {
        const auto taken = left.first(std::min(count, left.size()));
        left = left.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }
    std::vector<uint8_t> Rest() { return Bytes(left.size()); }

private:
    std::span<const uint8_t> left;
};

// What a target does with one input; whatever it returns or prints is not looked at.
void Run(Input input);

} // namespace pegeir::fuzz

#endif
