// Heap memory of the library: zero-filled, from the platform alone, tagged with the module that asked.
#ifndef PEGEIR_ND_LIB_MEMORY_H
#define PEGEIR_ND_LIB_MEMORY_H

#include <pegeir/platform.h>

namespace pegeir {

// A module as the platform's accounting knows it, and the largest block it may ask for.
struct MemoryModule {
    const char *source;
    uint32_t limit;
};

constexpr uint32_t kMaxBlock = 10000;
inline constexpr MemoryModule kInstanceModule{"nd_lib", kMaxBlock};
inline constexpr MemoryModule kStoreModule{"nd_lib_consumer", kMaxBlock};
inline constexpr MemoryModule kDebugModule{"nd_lib_debug", kMaxBlock};
inline constexpr MemoryModule kTimerModule{"nd_lib_timer", UINT32_MAX};

// Returns size zero bytes charged to memHandle, or null, without a report, when size is above the
// module's limit or memory is short.  Released with Free of the same module.
[[nodiscard]] void *ZeroAlloc(const MemoryModule &owner, uint32_t memHandle, uint32_t size,
                              uint32_t line = __builtin_LINE());

// Takes back a block; null is ignored.
inline void Free(const MemoryModule &owner, void *memory, uint32_t line = __builtin_LINE()) {
    if (memory != nullptr) {
        ZEP_Free_F(memory, owner.source, line);
    }
}

// Reports a broken precondition that owner found.
inline void AssertFailed(const MemoryModule &owner, uint32_t line = __builtin_LINE()) {
    ZEP_Assert(owner.source, line, 0);
}

} // namespace pegeir

#endif
