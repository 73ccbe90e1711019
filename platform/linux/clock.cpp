/*
 * The clocks: one that does not jump for durations, the wall clock for stamps.
 */
#include "capture.h"

#include <pegeir/platform.h>

#include <ctime>

namespace {

void Store(const tm &from, uint32_t millisecond, SysTime &to) {
    to.year = static_cast<uint16_t>(from.tm_year + 1900);
    to.month = static_cast<uint8_t>(from.tm_mon + 1);
    to.day = static_cast<uint8_t>(from.tm_mday);
    to.hour = static_cast<uint8_t>(from.tm_hour);
    to.minute = static_cast<uint8_t>(from.tm_min);
    to.second = static_cast<uint8_t>(from.tm_sec);
    to.weekday = static_cast<uint8_t>(from.tm_wday);
    to.millisecond = millisecond;
}

} // namespace

void KAL_SecondNow(uint32_t *seconds, uint32_t *second) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (pegeir::linux_platform::Capturing())
        pegeir::linux_platform::CaptureClock(now);
    *seconds = static_cast<uint32_t>(now.tv_sec);
    *second = static_cast<uint32_t>(now.tv_nsec);
}

uint32_t ZEP_GMT_SystimeGet(SysTime *gmt) {
    timespec now{};
    tm broken{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &broken) == nullptr)
        return 1;
    Store(broken, static_cast<uint32_t>(now.tv_nsec / 1000000), *gmt);
    return 0;
}

uint32_t ZEP_Gmt2LocalTime(const SysTime *gmt, SysTime *local, uint32_t *) {
    tm broken{};
    broken.tm_year = gmt->year - 1900;
    broken.tm_mon = gmt->month - 1;
    broken.tm_mday = gmt->day;
    broken.tm_hour = gmt->hour;
    broken.tm_min = gmt->minute;
    broken.tm_sec = gmt->second;
    const time_t instant = timegm(&broken);
    if (localtime_r(&instant, &broken) == nullptr)
        return 1;
    Store(broken, gmt->millisecond, *local);
    return 0;
}
