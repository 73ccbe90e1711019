/*
 * Signals and times as events of the platform's loop, so that nothing ever runs in a signal handler.
 */
#ifndef PEGEIR_WATCH_EVENTS_H
#define PEGEIR_WATCH_EVENTS_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace pegeir::watch {

class Events {
public:
    Events() = default;
    ~Events();
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    // Block the signals and call back with their number, or with nothing after `first` milliseconds and
    // then, unless `every` is 0, every so many more.  The runtime must be open.  Return false, with
    // errno, when the system refuses.
    [[nodiscard]] bool OnSignals(std::initializer_list<int> signals, std::function<void(int)> handler);
    [[nodiscard]] bool OnTime(uint64_t first, uint64_t every, std::function<void()> handler);

private:
    struct Source {
        std::function<void(int fd)> onReadable;
        int fd;
    };

    [[nodiscard]] bool Add(int fd, std::function<void(int)> onReadable);

    std::vector<std::unique_ptr<Source>> sources;
};

} // namespace pegeir::watch

#endif
