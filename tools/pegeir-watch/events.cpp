#include "events.h"

#include <csignal>
#include <ctime>
#include <utility>

#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <pegeir/linux.h>

namespace pegeir::watch {
namespace {

timespec Milliseconds(uint64_t milliseconds) {
    return {static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000 * 1000000)};
}

} // namespace

Events::~Events() {
    for (const auto &source : sources) {
        PEGEIR_LinuxRemoveFd(source->fd);
        close(source->fd);
    }
}

bool Events::OnSignals(std::initializer_list<int> signals, std::function<void(int)> handler) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
        return false;
    }
    return Add(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), [handler = std::move(handler)](int fd) {
        signalfd_siginfo info = {};
        if (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            handler(static_cast<int>(info.ssi_signo));
        }
    });
}

bool Events::OnTime(uint64_t first, uint64_t every, std::function<void()> handler) {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const itimerspec times = {Milliseconds(every), Milliseconds(first)};
    if (timer >= 0 && timerfd_settime(timer, 0, &times, nullptr) != 0) {
        close(timer);
        return false;
    }
    return Add(timer, [handler = std::move(handler)](int fd) {
        uint64_t expiries = 0;
        if (read(fd, &expiries, sizeof expiries) == static_cast<ssize_t>(sizeof expiries)) {
            handler();
        }
    });
}

bool Events::Add(int fd, std::function<void(int)> onReadable) {
    if (fd < 0) {
        return false;
    }
    auto source = std::make_unique<Source>(Source{std::move(onReadable), fd});
    const auto forward = [](void *context, int readable) {
        static_cast<Source *>(context)->onReadable(readable);
    };
    if (PEGEIR_LinuxAddFd(fd, forward, source.get()) != 0) {
        close(fd);
        return false;
    }
    sources.push_back(std::move(source));
    return true;
}

} // namespace pegeir::watch
