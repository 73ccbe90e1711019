// Memory, accounted to the line of code that asked for it, and the black boxes, which are memory too.

#include "common/common.hpp"
#include "state.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace pegeir::sim {
namespace {

constexpr Place kBoxPlace = {"black box", 0};

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
    void *memory = std::malloc(size);
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
    std::string text;
    for (const auto &[key, sum] : sums) {
        text += key.first + " of " + key.second + ": " + std::to_string(sum.first) + " with " +
                std::to_string(sum.second) + " bytes\n";
    }
    return text + TimerLeaks(*state);
}

} // namespace pegeir::sim

using namespace pegeir::sim;

uint8_t g_aucZepMemPt[] = {7};

void *ZEP_Malloc_F(uint32_t memHandle, uint8_t memPartition, uint32_t size, const char *source,
                   uint32_t line) {
    State &state = Here();
    if (CountCall(state, Op::kMalloc)) {
        return nullptr;
    }
    return AllocateBlock(state, {source, line}, size, memHandle, memPartition, false);
}

void ZEP_Free_F(void *memory, const char *source, uint32_t line) {
    FreeBlock(Here(), memory, {source, line}, false);
}

namespace {

// Boxes that are none would be written to: better a violation than a crash.
bool IsBox(State &state, void *box, const char *call) {
    const auto found = state.blocks.find(box);
    if (!state.options.checks || (found != state.blocks.end() && found->second.box)) {
        return true;
    }
    Violation(state, std::string(call) + " on what is no black box");
    return false;
}

} // namespace

void *CreateBlackBox(uint32_t size, uint32_t memHandle) {
    State &state = Here();
    const std::size_t bytes = pegeir::common::BoxObjectSize(size);
    if (CountCall(state, Op::kCreateBlackBox) || bytes == 0) {
        return nullptr;
    }
    void *memory =
        AllocateBlock(state, kBoxPlace, static_cast<uint32_t>(bytes), memHandle, g_aucZepMemPt[0], true);
    return memory == nullptr ? nullptr : pegeir::common::BoxMake(memory, size);
}

void DestroyBlackBox(void *box) {
    FreeBlock(Here(), box, kBoxPlace, true);
}

int32_t WriteBlackBox(void *box, const void *bytes, uint32_t length) {
    State &state = Here();
    if (CountCall(state, Op::kWriteBlackBox) || !IsBox(state, box, "WriteBlackBox")) {
        return -1;
    }
    return pegeir::common::BoxWrite(box, bytes, length);
}

int32_t ReadBlockFromBlackBox(void *box, void *buffer, uint32_t length) {
    State &state = Here();
    const auto failure = CountCall(state, Op::kReadBlackBox);
    if ((failure && !failure->shorten) || !IsBox(state, box, "ReadBlockFromBlackBox")) {
        return -1;
    }
    return pegeir::common::BoxRead(box, buffer, failure ? std::min(length, *failure->shorten) : length);
}

int32_t GetBlackBoxContentLength(void *box) {
    return IsBox(Here(), box, "GetBlackBoxContentLength") ? pegeir::common::BoxContentLength(box) : 0;
}

int32_t GetBlackBoxBufferLen(void *box) {
    return IsBox(Here(), box, "GetBlackBoxBufferLen") ? pegeir::common::BoxCapacity(box) : 0;
}
