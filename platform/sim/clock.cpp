// The virtual clocks: all are uptime plus what the test has set.

#include "state.hpp"

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace pegeir::sim {
namespace {

constexpr std::int64_t kMsPerMinute = 60'000;

SysTime FromUnixMs(std::int64_t ms) {
    using namespace std::chrono;
    const sys_time<milliseconds> time{milliseconds{ms}};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    return {.year = static_cast<std::uint16_t>(static_cast<int>(date.year())),
            .month = static_cast<std::uint8_t>(static_cast<unsigned>(date.month())),
            .day = static_cast<std::uint8_t>(static_cast<unsigned>(date.day())),
            .hour = static_cast<std::uint8_t>(clock.hours().count()),
            .minute = static_cast<std::uint8_t>(clock.minutes().count()),
            .second = static_cast<std::uint8_t>(clock.seconds().count()),
            .weekday = static_cast<std::uint8_t>(weekday{day}.c_encoding()),
            .millisecond = static_cast<std::uint32_t>(clock.subseconds().count())};
}

} // namespace

std::optional<std::int64_t> UnixMs(const SysTime &time) {
    using namespace std::chrono;
    const year_month_day date{year{time.year}, month{time.month}, day{time.day}};
    if (!date.ok() || time.hour > 23 || time.minute > 59 || time.second > 59 || time.millisecond > 999) {
        return std::nullopt;
    }
    const auto sum = sys_days{date} + hours{time.hour} + minutes{time.minute} + seconds{time.second} +
                     milliseconds{time.millisecond};
    return sum.time_since_epoch().count();
}

namespace {

// Lets the monotonic clock err: mostly it goes on as it is, sometimes it stands or jumps.
void LetItErr(State &state) {
    constexpr std::int32_t kMost = 10;
    const std::uint32_t drawn = Below(state, 16);
    if (drawn == 0) {
        state.clockOff = static_cast<std::int32_t>(Below(state, 2 * kMost + 1)) - kMost;
    } else if (drawn < 3) {
        state.clockOff = std::max(state.clockOff - 1, -kMost);
    }
}

} // namespace

std::uint64_t World::Uptime() const {
    return state->uptimeMs;
}

std::uint32_t World::Seconds() const {
    return state->seconds + static_cast<std::uint32_t>((state->uptimeMs - state->secondsSetMs) / 1000);
}

void World::SetSeconds(std::uint32_t seconds) {
    state->seconds = seconds;
    state->secondsSetMs = state->uptimeMs;
}

void World::SetGmt(const SysTime &gmt) {
    const auto ms = UnixMs(gmt);
    if (!ms) {
        throw std::invalid_argument("World::SetGmt: there is no such date or time of day");
    }
    state->wallMs = *ms - static_cast<std::int64_t>(state->uptimeMs);
}

void World::SetZone(std::int32_t minutesEast) {
    state->zoneMinutes = minutesEast;
}

} // namespace pegeir::sim

using namespace pegeir::sim;

void KAL_SecondNow(uint32_t *seconds, uint32_t *second) {
    State &state = Here();
    if (state.options.liberties.clockAtWill) {
        LetItErr(state);
    }
    *seconds = state.world->Seconds() + static_cast<uint32_t>(state.clockOff);
    *second = AnyAnswer(static_cast<uint32_t>(state.uptimeMs));
}

uint32_t ZEP_GMT_SystimeGet(SysTime *gmt) {
    State &state = Here();
    if (const auto failure = CountCall(state, Op::kGmtGet)) {
        return failure->code;
    }
    *gmt = FromUnixMs(state.wallMs + static_cast<std::int64_t>(state.uptimeMs));
    gmt->weekday = static_cast<uint8_t>(AnyAnswer(gmt->weekday));
    return 0;
}

uint32_t ZEP_Gmt2LocalTime(const SysTime *gmt, SysTime *local, uint32_t *flag) {
    State &state = Here();
    if (const auto failure = CountCall(state, Op::kGmtToLocal)) {
        return failure->code;
    }
    const auto ms = UnixMs(*gmt);
    if (!ms || *flag != 1) {
        Violation(state, "ZEP_Gmt2LocalTime: no valid GMT time, or a flag other than 1");
        return kRefused;
    }
    *flag = 0; // not promised to stay
    *local = FromUnixMs(*ms + state.zoneMinutes * kMsPerMinute);
    local->year = static_cast<uint16_t>(AnyAnswer(local->year));
    local->weekday = static_cast<uint8_t>(AnyAnswer(local->weekday));
    return AnyAnswer(0);
}
