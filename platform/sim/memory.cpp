// Memory, accounted to the line of code that asked for it.

#include "state.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace pegeir::sim {
namespace {

// How many blocks are kept back from reuse.  AddressSanitizer keeps them back itself, and then knows
// who used one that was released.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr std::size_t kRetired = 0;
#else
constexpr std::size_t kRetired = 1024;
#endif

// Returns the blocks in the order in which they were allocated.
std::vector<Block> InOrder(const State &state) {
    std::vector<Block> blocks;
    blocks.reserve(state.blocks.size());
    for (const auto &[memory, block] : state.blocks) {
        blocks.push_back(block);
    }
    std::sort(blocks.begin(), blocks.end(),
              [](const Block &left, const Block &right) { return left.serial < right.serial; });
    return blocks;
}

} // namespace

void *AllocateBlock(State &state, Place place, std::uint32_t size, std::uint32_t memHandle,
                    std::uint8_t partition, bool box) {
    void *memory = std::malloc(std::max(size, 1U)); // none at all might be answered with null
    if (memory == nullptr || !state.options.checks) {
        return memory;
    }
    std::memset(memory, kMemoryPattern, size);
    state.freed.erase(memory);
    state.blocks[memory] = {place, size, memHandle, partition, box, state.blockSerial++};
    state.liveBytes += size;
    state.peakBytes = std::max(state.peakBytes, state.liveBytes);
    return memory;
}

void FreeBlock(State &state, void *memory, Place place, bool box) {
    if (!state.options.checks) {
        std::free(memory);
        return;
    }
    const auto found = state.blocks.find(memory);
    if (found == state.blocks.end() || found->second.box != box) {
        const auto before = state.freed.find(memory);
        std::string what = "that is no block of this platform";
        if (memory == nullptr) {
            what = "null";
        } else if (state.messages.contains(memory)) {
            what = "that is a message";
        } else if (found != state.blocks.end()) {
            what = box ? "that is no box" : "that is a box";
        } else if (before != state.freed.end()) {
            what = "that was freed before at " + At(before->second);
        }
        Violation(state, At(place) + " frees memory " + what);
        return;
    }
    std::memset(memory, kFreedPattern, found->second.size);
    state.liveBytes -= found->second.size;
    state.blocks.erase(found);
    state.freed[memory] = place;
    Retire(state, memory);
}

void Retire(State &state, void *memory) {
    if (kRetired == 0 || !state.options.checks) {
        std::free(memory);
        return;
    }
    state.retired.push_back(memory);
    if (state.retired.size() > kRetired) {
        state.freed.erase(state.retired.front());
        std::free(state.retired.front());
        state.retired.pop_front();
    }
}

void ReleaseAll(State &state) {
    for (const auto &[memory, block] : state.blocks) {
        std::free(memory);
    }
    while (!state.messages.empty()) {
        ReleaseMessage(state, state.messages.begin()->first);
    }
    for (void *memory : state.retired) {
        std::free(memory);
    }
}

std::vector<Allocation> World::Allocations() const {
    std::vector<Allocation> list;
    for (const Block &block : InOrder(*state)) {
        list.push_back({block.place.source, block.place.line, block.size, block.memHandle, block.partition});
    }
    return list;
}

std::uint64_t World::LiveBytes() const {
    return state->liveBytes;
}
std::uint64_t World::PeakBytes() const {
    return state->peakBytes;
}

std::size_t World::LiveMessages() const {
    return static_cast<std::size_t>(std::count_if(state->messages.begin(), state->messages.end(),
                                                  [](const auto &entry) { return !entry.second.received; }));
}

std::string World::Leaks() const {
    using Key = std::pair<std::string, std::string>;             // kind, place
    std::map<Key, std::pair<std::uint64_t, std::uint64_t>> sums; // number, bytes
    const auto add = [&sums](const char *kind, const Place &place, std::uint64_t size) {
        auto &[number, bytes] = sums[{kind, At(place)}];
        ++number;
        bytes += size;
    };
    for (const auto &[memory, block] : state->blocks) {
        add("memory", block.place, block.size);
    }
    for (const auto &[data, message] : state->messages) {
        if (!message.received) {
            add("message", message.place, message.size);
        }
    }
    std::string text = state->noBytes == 0 ? "" : "memory of no bytes\n";
    for (const auto &[key, sum] : sums) {
        text += key.first + " of " + key.second + ": " + std::to_string(sum.first) + " with " +
                std::to_string(sum.second) + " bytes\n";
    }
    return text + TimerLeaks(*state);
}

} // namespace pegeir::sim

using namespace pegeir::sim;

uint8_t g_aucZepMemPt[] = {7};

namespace {

char nothing; // what requests for no bytes share

} // namespace

void *ZEP_Malloc_F(uint32_t memHandle, uint8_t memPartition, uint32_t size, const char *source,
                   uint32_t line) {
    State &state = Here();
    if (CountCall(state, Op::kMalloc)) {
        return nullptr;
    }
    if (memPartition != g_aucZepMemPt[0]) {
        Violation(state, At({source, line}) + " allocates from a partition that there is not");
        return nullptr;
    }
    if (size == 0 && state.options.liberties.noBytes != Liberties::NoBytes::kDistinct) {
        const bool isShared = state.options.liberties.noBytes == Liberties::NoBytes::kShared;
        state.noBytes += isShared ? 1U : 0U;
        return isShared ? &nothing : nullptr;
    }
    return AllocateBlock(state, {source, line}, size, memHandle, memPartition, false);
}

void ZEP_Free_F(void *memory, const char *source, uint32_t line) {
    State &state = Here();
    if (memory == &nothing && state.noBytes != 0) {
        --state.noBytes;
        return;
    }
    FreeBlock(state, memory, {source, line}, false);
}
