/*
 * The event loop: one epoll descriptor, which an embedding loop may itself watch.
 *
 * A handler may remove any source and add others, also under a descriptor number that has just become
 * free.  Each event therefore carries the generation of the source it was reported for, and an event of
 * a source that is gone is dropped.
 */
#include "linux_platform.h"

#include <array>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace pegeir::linux_platform {

void Fd::Reset() {
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

bool Loop::Open() {
    epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    return epoll_.Valid();
}

bool Loop::Add(int fd, uint32_t events, Handler handler) {
    auto source = std::make_shared<Source>(Source{++generation_, std::move(handler)});
    epoll_event event{};
    event.events = events;
    event.data.u64 = uint64_t{source->generation} << 32 | static_cast<uint32_t>(fd);
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) != 0)
        return false;
    sources_[fd] = std::move(source);
    return true;
}

void Loop::Remove(int fd) {
    if (sources_.erase(fd) != 0)
        epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

int Loop::Dispatch(int timeoutMs) {
    if (failed_ != 0) {
        errno = failed_;
        return -1;
    }
    std::array<epoll_event, 32> events{};
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), timeoutMs);
    if (count < 0)
        return errno == EINTR ? 0 : -1;
    for (size_t i = 0; i < static_cast<size_t>(count); i++) {
        const uint64_t key = events[i].data.u64;
        const auto found = sources_.find(static_cast<int>(key & UINT32_MAX));
        if (found == sources_.end() || found->second->generation != key >> 32)
            continue;
        const std::shared_ptr<Source> source = found->second;
        source->handler();
    }
    errno = failed_;
    return failed_ == 0 ? 0 : -1;
}

Fd MakeTimer(std::chrono::milliseconds period, std::chrono::nanoseconds first) {
    if (first.count() == 0)
        first = period;
    const auto split = [](std::chrono::nanoseconds time) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
        return timespec{static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
    };
    const itimerspec setting{split(period), split(first)};
    Fd timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!timer.Valid() || timerfd_settime(timer.Get(), 0, &setting, nullptr) != 0)
        return {};
    return timer;
}

uint64_t ReadTimer(int fd) {
    uint64_t expiries = 0;
    return read(fd, &expiries, sizeof expiries) == ssize_t{sizeof expiries} ? expiries : 0;
}

} // namespace pegeir::linux_platform
