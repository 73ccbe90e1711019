/*
 * Black boxes: those that all platforms share, in memory of this one.
 */
#include "common/common.hpp"

#include <cstdlib>

using namespace pegeir::common;

void *CreateBlackBox(uint32_t size, uint32_t) {
    const size_t bytes = BoxObjectSize(size);
    void *const memory = bytes != 0 ? std::malloc(bytes) : nullptr;
    return memory != nullptr ? BoxMake(memory, size) : nullptr;
}

void DestroyBlackBox(void *box) {
    std::free(box);
}

int32_t WriteBlackBox(void *box, const void *bytes, uint32_t length) {
    return BoxWrite(box, bytes, length);
}

int32_t ReadBlockFromBlackBox(void *box, void *buffer, uint32_t length) {
    return BoxRead(box, buffer, length);
}

int32_t GetBlackBoxContentLength(void *box) {
    return BoxContentLength(box);
}

int32_t GetBlackBoxBufferLen(void *box) {
    return BoxCapacity(box);
}
