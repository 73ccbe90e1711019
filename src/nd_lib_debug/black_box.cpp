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

// What a platform's box promises is little: a read may come short, and when everything has been read it
// answers 0, after which it begins again or stays at its end.  So a reader's position can be had by counting
// alone.  It is put back by reading where the box begins again, and by appending what was read where not.

enum class Growth : uint8_t {
    kDone,
    kFailed,  // may be tried again
    kHopeless // will never be had
};

// Reads on, behind the *have bytes that are in buffer, until there are size or the box answers 0: read on
// after that, one that begins again would never come to an end.  A read that fails is tried again, and at
// the third failure in a row given up; returns false then.
bool ReadOn(void *box, char *buffer, uint32_t size, uint32_t *have) {
    constexpr uint32_t kTries = 3;
    for (uint32_t failures = 0; *have < size;) {
        const int32_t count = ReadBlockFromBlackBox(box, buffer + *have, size - *have);
        if (count == 0) {
            return true;
        }
        if (count > 0) {
            *have += static_cast<uint32_t>(count);
            failures = 0;
        } else if (++failures == kTries) {
            return false;
        }
    }
    return true;
}

// Reads bytes that nobody needs.
bool Skip(void *box, char *buffer, uint32_t bytes) {
    uint32_t skipped = 0;
    return ReadOn(box, buffer, bytes, &skipped) && skipped == bytes;
}

// Whether newBox, which was empty, holds these bytes now; what the write itself answers is the platform's.
bool Store(void *newBox, const char *bytes, uint32_t count) {
    if (count != 0) {
        (void)WriteBlackBox(newBox, bytes, count);
    }
    return GetBlackBoxContentLength(newBox) >= static_cast<int32_t>(count);
}

// Puts the reader of a box back to before its last unread bytes, as far as the box can be read.  These bytes
// are in buffer, unless the box has begun again since, and then they are not needed.  Returns whether the box
// turns out to stay at its end.
bool PutBack(void *box, uint32_t unread, char *buffer, uint32_t size) {
    uint32_t rest = 0;
    uint32_t all = 0;
    if (!ReadOn(box, buffer, size, &rest) || !ReadOn(box, buffer, size, &all)) {
        return false;
    }
    if (all == 0 && unread != 0) {
        if (static_cast<const BlackBoxHead *>(box)->usable != 0) {
            (void)WriteBlackBox(box, buffer, unread);
        }
        return true;
    }
    if (all > unread) {
        (void)Skip(box, buffer, all - unread);
    }
    return false;
}

// Copies the lines of a box and its read position.  A copy that cannot be whole is none: oldBox stays in
// use, and its reader goes on where it stood.  buffer has size bytes, which is more than the content.
Growth CopyBox(void *oldBox, void *newBox, uint32_t content, char *buffer, uint32_t size) {
    uint32_t unread = 0;
    bool isRead = ReadOn(oldBox, buffer, content, &unread);
    if (!isRead && (unread == 0 || !ReadOn(oldBox, buffer, content, &unread))) {
        return Growth::kFailed;
    }
    uint32_t have = unread;
    if (isRead && unread < content) {
        // A diagnose pass stands in the middle of the box, and this was what it has not read yet.
        have = 0;
        isRead = ReadOn(oldBox, buffer, content, &have);
        if (isRead && have != 0 && have >= unread) {
            content = have; // all that can be read, which is all unless its length counts more than lines
        }
    }
    if (isRead && have == content && Store(newBox, buffer, content) &&
        Skip(newBox, buffer, content - unread)) {
        return Growth::kDone;
    }
    return PutBack(oldBox, unread, buffer, size) ? Growth::kHopeless : Growth::kFailed;
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
    const auto content = static_cast<uint32_t>(contentLen);
    const uint32_t size = content + sizeof(ND_LIB_BlackBoxLine);
    auto *buffer = static_cast<char *>(pegeir::ZeroAlloc(kDebugModule, instance->memHandle, size));
    Growth growth = Growth::kFailed;
    if (buffer != nullptr && contentLen >= 0 && static_cast<BlackBoxHead *>(newBox)->usable != 0) {
        growth = CopyBox(desc->bbHandle, newBox, content, buffer, size);
    }
    if (growth == Growth::kDone) {
        DestroyBlackBox(desc->bbHandle);
        desc->bbHandle = newBox;
        desc->curSize = static_cast<uint16_t>(newSize);
    } else {
        DestroyBlackBox(newBox);
        desc->maxSize = growth == Growth::kHopeless ? desc->curSize : desc->maxSize;
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
