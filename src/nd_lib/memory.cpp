// The one way to heap memory.

#include "nd_lib/nd_lib.h"

namespace pegeir {

void *ZeroAlloc(const MemoryModule &owner, uint32_t memHandle, uint32_t size, uint32_t line) {
    if (size > owner.limit) {
        return nullptr;
    }
    void *memory = ZEP_Malloc_F(memHandle, g_aucZepMemPt[0], size, owner.source, line);
    if (memory != nullptr && size != 0 && memset_s(memory, size, 0, size) != 0) {
        Free(owner, memory, line); // everything relies on the zeros
        return nullptr;
    }
    return memory;
}

} // namespace pegeir

void *ND_LIB_ZeroAlloc(uint32_t memHandle, uint32_t size) {
    return pegeir::ZeroAlloc(pegeir::kInstanceModule, memHandle, size);
}
