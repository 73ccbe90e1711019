/*
 * Memory and assertions.
 */
#include "linux_platform.h"

#include <cstdio>
#include <cstdlib>

namespace {

PEGEIR_LinuxAssertFunc g_onAssert = nullptr;

} // namespace

uint8_t g_aucZepMemPt[] = {0};

void *ZEP_Malloc_F(uint32_t, uint8_t, uint32_t size, const char *, uint32_t) {
    return std::malloc(size != 0 ? size : 1); /* malloc(0) might answer null */
}

void ZEP_Free_F(void *memory, const char *, uint32_t) {
    std::free(memory);
}

void ZEP_Assert(const char *source, uint32_t line, uint32_t value) {
    if (g_onAssert != nullptr)
        g_onAssert(source, line, value);
    else
        std::fprintf(stderr, "pegeir: assertion failed at %s:%u (value %u)\n", source, line, value);
}

void PEGEIR_LinuxOnAssert(PEGEIR_LinuxAssertFunc onAssert) {
    g_onAssert = onAssert;
}
