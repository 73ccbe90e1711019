// The two trace boxes.
//
//   line  := stamp text LF                     ; at most 255 bytes
//   stamp := M-D SP h:m:s:ms[zone] SP         ; local time, no leading zeros
//   zone  := "-" hh ":" mm                    ; distance to GMT, left out when there is none
//
// A line is formatted in the box's own line buffer and written with one call.

#include "nd_lib/nd_lib.h"

#include <cstdarg>

using pegeir::kDebugModule;

namespace {

constexpr uint32_t kBytesPerUnit = 1024;
constexpr uint16_t kInitSize = 10;
constexpr uint16_t kStepSize = 10;
constexpr uint16_t kMaxSize = 100;

constexpr uint32_t kSecondsPerHour = 3600;
constexpr uint32_t kSecondsPerMinute = 60;
constexpr uint32_t kSecondsPerDay = 86400;

uint32_t SecondsIntoDay(const SysTime &time) {
    return kSecondsPerHour * time.hour + kSecondsPerMinute * time.minute + time.second;
}

// Seconds between local time and GMT.  The days are compared as numbers, so around the end of a month the
// result is odd.
uint32_t ZoneOffset(const SysTime &gmt, const SysTime &local) {
    const uint32_t gmtSeconds = SecondsIntoDay(gmt);
    const uint32_t localSeconds = SecondsIntoDay(local);
    if (gmtSeconds < localSeconds) {
        return local.day < gmt.day ? gmtSeconds + kSecondsPerDay - localSeconds : localSeconds - gmtSeconds;
    }
    return local.day > gmt.day ? localSeconds + kSecondsPerDay - gmtSeconds : gmtSeconds - localSeconds;
}

// Appends value in decimal.  A download traces a line a record, and through a format string the stamp took
// longer than the text behind it.
char *PutNumber(char *to, uint32_t value) {
    constexpr uint32_t kBase = 10;
    char digits[kBase]; // as many as the largest value has
    char *digit = digits;
    do {
        *digit++ = static_cast<char>('0' + value % kBase);
        value /= kBase;
    } while (value != 0);
    while (digit != digits) {
        *to++ = *--digit;
    }
    return to;
}

char *PutField(char *to, uint32_t value, char separator) {
    to = PutNumber(to, value);
    *to = separator;
    return to + 1;
}

char *PutTwoDigits(char *to, uint32_t value) {
    constexpr uint32_t kBase = 10;
    if (value < kBase) {
        *to++ = '0';
    }
    return PutNumber(to, value);
}

// Appends what ND_LIB_GetTimeZone answers.
char *PutZone(char *to, uint32_t offset) {
    *to++ = '-';
    to = PutTwoDigits(to, offset / kSecondsPerHour);
    *to++ = ':';
    return PutTwoDigits(to, offset % kSecondsPerHour / kSecondsPerMinute);
}

// Formats the stamp of the present moment into line.  Returns its length, or a negative value.
int FormatStamp(ND_LIB_BlackBoxLine &line) {
    SysTime gmt = {};
    if (ZEP_GMT_SystimeGet(&gmt) != 0) {
        return -1;
    }
    SysTime local = gmt; // which stays when it cannot be converted: GMT says more than no time
    uint32_t flag = 1;
    (void)ZEP_Gmt2LocalTime(&gmt, &local, &flag);
    char *end = PutField(line, local.month, '-');
    end = PutField(end, local.day, ' ');
    end = PutField(end, local.hour, ':');
    end = PutField(end, local.minute, ':');
    end = PutField(end, local.second, ':');
    end = PutNumber(end, local.millisecond);
    char *const zone = end;
    end = PutZone(end, ZoneOffset(gmt, local));
    *end = '\0';
    if (KAL_StrCmp(zone, "-00:00") == 0) {
        end = zone;
    }
    *end++ = ' ';
    return static_cast<int>(end - line);
}

// ---- Growing ----

// The box that is to be replaced, and what is needed to leave it as it was found.
struct OldBox {
    void *handle;
    uint32_t content;  // bytes stored
    uint32_t position; // bytes that the diagnose pass under way has read
};

// Reads on.  A read that fails leaves the position where it is, so it is tried again before giving up.
int32_t ReadOn(void *box, char *buffer, uint32_t size) {
    constexpr uint32_t kTries = 3;
    int32_t count = -1;
    for (uint32_t tries = 0; count < 0 && tries < kTries; ++tries) {
        count = ReadBlockFromBlackBox(box, buffer, size);
    }
    return count;
}

// Reads on to the end, so that the next read begins at the oldest line; *unread is how much there was.
bool ReadToEnd(void *box, char *buffer, uint32_t size, uint32_t *unread) {
    *unread = 0;
    for (;;) {
        const int32_t count = ReadOn(box, buffer, size);
        if (count <= 0) {
            return count == 0;
        }
        *unread += static_cast<uint32_t>(count);
    }
}

// Reads bytes that nobody needs, from the oldest line on.
bool Skip(void *box, char *buffer, uint32_t size, uint32_t bytes) {
    while (bytes != 0) {
        const int32_t count = ReadOn(box, buffer, bytes < size ? bytes : size);
        if (count <= 0) {
            return false;
        }
        bytes -= static_cast<uint32_t>(count);
    }
    return true;
}

// Copies the lines and the read position of the old box.  A copy that cannot be whole is none: the
// caller keeps the old box, which then stands where it stood if it can be read to its end.
bool CopyBox(OldBox &old, void *newBox, char *buffer, uint32_t size) {
    int32_t count = ReadOn(old.handle, buffer, old.content);
    if (count < 0) {
        return false;
    }
    if (static_cast<uint32_t>(count) < old.content) {
        // A diagnose pass stands in the middle of the box, and this was what it has not read yet.
        uint32_t rest = 0;
        if (count != 0 && !ReadToEnd(old.handle, buffer, size, &rest)) {
            return false;
        }
        old.position = old.content - static_cast<uint32_t>(count) - rest;
        count = ReadOn(old.handle, buffer, old.content);
    }
    if (count >= 0 && static_cast<uint32_t>(count) == old.content &&
        WriteBlackBox(newBox, buffer, old.content) >= 0 && Skip(newBox, buffer, size, old.position)) {
        return true;
    }
    uint32_t unread = 0;
    if (ReadToEnd(old.handle, buffer, size, &unread)) {
        (void)Skip(old.handle, buffer, size, old.position);
    }
    return false;
}

} // namespace

const char *const g_ndLibBlackBoxName[ND_LIB_BLACKBOX_MAX + 1] = {
    "Blackbox assert",
    "Blackbox info",
    "Blackbox max",
};

void ND_LIB_BlackboxInit(ND_LIB_Instance *instance) {
    for (ND_LIB_BlackBoxDesc &desc : instance->blackBox) {
        desc = {nullptr, kInitSize, kStepSize, kInitSize, kMaxSize};
    }
}

void ND_LIB_BlackboxFree(ND_LIB_Instance *instance) {
    for (ND_LIB_BlackBoxDesc &desc : instance->blackBox) {
        if (desc.bbHandle != nullptr) {
            DestroyBlackBox(desc.bbHandle);
            desc.bbHandle = nullptr;
        }
    }
}

void ND_LIB_BlackBox(ND_LIB_Instance *instance, uint32_t box, const char *format, ...) {
    if (instance == nullptr || box >= ND_LIB_BLACKBOX_MAX) {
        return;
    }
    ND_LIB_BlackBoxDesc &desc = instance->blackBox[box];
    if (desc.bbHandle == nullptr) {
        desc.bbHandle = CreateBlackBox(desc.initSize * kBytesPerUnit, instance->memHandle);
        if (desc.bbHandle == nullptr) {
            return; // the next line tries again
        }
    }
    va_list arguments;
    va_start(arguments, format);
    (void)ND_LIB_WriteBlackBoxEx(box, instance, format, arguments);
    va_end(arguments);
}

int32_t ND_LIB_WriteBlackBoxEx(uint32_t box, ND_LIB_Instance *instance, const char *format,
                               va_list arguments) {
    if (box >= ND_LIB_BLACKBOX_MAX) {
        return 0;
    }
    ND_LIB_BlackBoxDesc &desc = instance->blackBox[box];
    if (ND_LIB_CheckBlackBoxNeedExpand(&desc) != 0) {
        ND_LIB_ExpandBlackBox(&desc, instance);
    }
    return ND_LIB_WriteBlackBox(desc.bbHandle, format, arguments);
}

int32_t ND_LIB_WriteBlackBox(void *handle, const char *format, va_list arguments) {
    auto *box = static_cast<BlackBoxHead *>(handle);
    if (box == nullptr || format == nullptr || box->usable == 0) {
        return -1;
    }
    ND_LIB_BlackBoxLine &line = box->line;
    const int stampLen = FormatStamp(line);
    if (stampLen < 0) {
        return -1;
    }
    // One byte less than there is, for the line feed.
    const auto room = sizeof(line) - 1 - static_cast<size_t>(stampLen);
    const int textLen = vsnprintf_truncated_s(line + stampLen, room, format, arguments);
    if (textLen < 0) {
        return -1;
    }
    const int length = stampLen + textLen;
    line[length] = '\n';
    return WriteBlackBox(handle, line, static_cast<uint32_t>(length) + 1);
}

uint32_t ND_LIB_CheckBlackBoxNeedExpand(const ND_LIB_BlackBoxDesc *desc) {
    const bool mayGrow = desc != nullptr && desc->bbHandle != nullptr && desc->curSize < desc->maxSize;
    return mayGrow && GetBlackBoxContentLength(desc->bbHandle) > 0 ? 1 : 0;
}

void ND_LIB_ExpandBlackBox(ND_LIB_BlackBoxDesc *desc, ND_LIB_Instance *instance) {
    if (desc == nullptr || desc->bbHandle == nullptr) {
        return;
    }
    const uint32_t newSize = uint32_t{desc->curSize} + desc->stepSize;
    void *newBox = CreateBlackBox(newSize * kBytesPerUnit, instance->memHandle);
    if (newBox == nullptr) {
        return;
    }
    const int32_t contentLen = GetBlackBoxContentLength(desc->bbHandle);
    OldBox old = {desc->bbHandle, contentLen > 0 ? static_cast<uint32_t>(contentLen) : 0, 0};
    const uint32_t size = old.content + sizeof(ND_LIB_BlackBoxLine);
    auto *buffer = static_cast<char *>(pegeir::ZeroAlloc(kDebugModule, instance->memHandle, size));
    if (buffer == nullptr || static_cast<BlackBoxHead *>(newBox)->usable == 0 ||
        !CopyBox(old, newBox, buffer, size)) {
        DestroyBlackBox(newBox);
    } else {
        DestroyBlackBox(old.handle);
        desc->bbHandle = newBox;
        desc->curSize = static_cast<uint16_t>(newSize);
    }
    pegeir::Free(kDebugModule, buffer);
}

uint32_t ND_LIB_GetTimeZone(SysTime gmt, SysTime local, char *text, uint32_t length) {
    text[0] = '\0';
    const uint32_t offset = ZoneOffset(gmt, local);
    const int hours = static_cast<int>(offset / kSecondsPerHour);
    const int minutes = static_cast<int>(offset % kSecondsPerHour / kSecondsPerMinute);
    return snprintf_truncated_s(text, length, "-%02d:%02d", hours, minutes) < 0 ? 1 : 0;
}

void ND_LIB_ReadBlackBox(ND_LIB_Instance *instance, uint32_t box, char *buffer, uint32_t length,
                         uint32_t *count) {
    if (box >= ND_LIB_BLACKBOX_MAX) {
        return;
    }
    instance->diagnoseReadLen = 0;
    void *handle = instance->blackBox[box].bbHandle;
    if (handle == nullptr || length <= *count + 1) {
        return;
    }
    const int32_t read = ReadBlockFromBlackBox(handle, buffer + *count, length - 1 - *count);
    if (read > 0) {
        instance->diagnoseReadLen = static_cast<uint32_t>(read);
        *count += static_cast<uint32_t>(read);
    }
}

void pegeir::debug::RewindBoxes(ND_LIB_Instance *instance) {
    ND_LIB_BlackBoxLine scratch;
    for (const ND_LIB_BlackBoxDesc &desc : instance->blackBox) {
        if (desc.bbHandle != nullptr) {
            uint32_t unread = 0;
            (void)ReadToEnd(desc.bbHandle, scratch, sizeof(scratch), &unread);
        }
    }
}
