// The bounded functions of all platforms, and what else their contract would allow.

#include "common/common.hpp"
#include "state.hpp"

#include <cstring>

using namespace pegeir::sim;

namespace {

// Whether a call is refused because it is for nothing.  Its caller may not look at the answer, so it is a
// breach as well.
bool IsRefused(const char *call, size_t count) {
    const bool refused = takesLiberties && count == 0 && Here().options.liberties.noZeroCounts;
    if (refused) {
        Violation(Here(), std::string(call) + " with a count of 0");
    }
    return refused;
}

// A difference of the same sign.
int AnyDifference(int difference) {
    if (!takesLiberties || difference == 0) {
        return difference;
    }
    const auto size = static_cast<int>(AnyAnswer(1) & 0x7FFFFFFF);
    return difference < 0 ? -size - 1 : size == 0 ? 1 : size;
}

int Answer(int result) {
    return result == 0 || !takesLiberties ? result : static_cast<int>(AnyError(Here(), kRefused));
}

} // namespace

int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count) {
    return IsRefused("memcpy_s", count)
               ? Answer(1)
               : Answer(pegeir::common::CopyBytes(destination, destinationSize, source, count));
}

int memset_s(void *destination, size_t destinationSize, int value, size_t count) {
    return IsRefused("memset_s", count)
               ? Answer(1)
               : Answer(pegeir::common::FillBytes(destination, destinationSize, value, count));
}

// The room behind the text is scratch as well.
int vsnprintf_truncated_s(char *text, size_t size, const char *format, va_list arguments) {
    const int written = pegeir::common::FormatText(text, size, format, arguments);
    if (takesLiberties && written >= 0 && Here().options.liberties.anyAnswers) {
        const size_t used = static_cast<size_t>(written) + 1;
        Scribble(Here(), text + used, size - used);
    }
    return written;
}

int snprintf_truncated_s(char *text, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf_truncated_s(text, size, format, arguments);
    va_end(arguments);
    return written;
}

int KAL_MemCmp(const void *left, const void *right, size_t count) {
    return IsRefused("KAL_MemCmp", count) ? 1 : AnyDifference(std::memcmp(left, right, count));
}

int KAL_StrCmp(const char *left, const char *right) {
    return AnyDifference(std::strcmp(left, right));
}
