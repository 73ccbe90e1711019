// Bounded memory and text functions.  What they add to libc is that the size of the destination is
// always known, and that a mistake is an answer and never a write.

#include <pegeir/platform.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kRefused = 1;

} // namespace

int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count) {
    if (destination == nullptr || source == nullptr || count > destinationSize) {
        return kRefused;
    }
    std::memcpy(destination, source, count);
    return 0;
}

int memset_s(void *destination, size_t destinationSize, int value, size_t count) {
    if (destination == nullptr || count > destinationSize) {
        return kRefused;
    }
    std::memset(destination, value, count);
    return 0;
}

int vsnprintf_truncated_s(char *text, size_t size, const char *format, va_list arguments) {
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

int snprintf_truncated_s(char *text, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf_truncated_s(text, size, format, arguments);
    va_end(arguments);
    return written;
}

int KAL_MemCmp(const void *left, const void *right, size_t count) {
    return std::memcmp(left, right, count);
}

int KAL_StrCmp(const char *left, const char *right) {
    return std::strcmp(left, right);
}
