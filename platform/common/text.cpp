// Bounded memory and text functions.  What they add to libc is that the size of the destination is
// always known, and that a mistake is an answer and never a write.

#include "common/common.hpp"

#include <cstdio>
#include <cstring>

namespace pegeir::common {
namespace {

constexpr int kRefused = 1;

} // namespace

int CopyBytes(void *destination, size_t destinationSize, const void *source, size_t count) {
    if (destination == nullptr || source == nullptr || count > destinationSize) {
        return kRefused;
    }
    std::memcpy(destination, source, count);
    return 0;
}

int FillBytes(void *destination, size_t destinationSize, int value, size_t count) {
    if (destination == nullptr || count > destinationSize) {
        return kRefused;
    }
    std::memset(destination, value, count);
    return 0;
}

int FormatText(char *text, size_t size, const char *format, va_list arguments) {
    if (text == nullptr || size == 0 || format == nullptr) {
        return -1;
    }
    const int wanted = std::vsnprintf(text, size, format, arguments);
    if (wanted < 0) {
        text[0] = '\0';
        return -1;
    }
    return static_cast<size_t>(wanted) < size ? wanted : static_cast<int>(size - 1);
}

} // namespace pegeir::common
