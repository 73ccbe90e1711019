// A diagnose pass over many pending items and two full boxes, in pages of 4 KiB, beside one formatting
// pass of the same text; and what a second costs in the ready state when nothing is due.

#include "consumer.hpp"

#include <benchmark/benchmark.h>

#include <string>

namespace pegeir::bench {
namespace {

constexpr uint32_t kItems = 100000;
constexpr uint32_t kPage = 4096;

struct Full : Consumer {
    explicit Full(uint32_t items = kItems) {
        Stand(ND_LIB_FSM_READY);
        const ItemHead data(1, {});
        for (uint32_t item = 0; item < items; ++item) {
            (void)ND_LIB_Subscribe(nd, ItemHead(1000, KeyBytes(item, 4)).Get(), data.Get());
        }
        for (uint32_t line = 0; line < 5000; ++line) {
            ND_LIB_BlackBox(nd, line % 2, "ParseUpdateData tlvType:%u, tlvLen:%u", 1U, line);
        }
    }
    template <class Page>
    void Pass(Page page) {
        char buffer[kPage];
        uint32_t restart = 1;
        uint32_t ret = ND_LIB_OK;
        while (ret == ND_LIB_OK) {
            uint32_t length = 0;
            ret = ND_LIB_GetDiagnoseInfo(nd, buffer, kPage, &length, restart);
            page(std::string_view(buffer, length));
            restart = 0;
        }
    }
};

void Ours(benchmark::State &state) {
    Full consumer;
    for (auto _ : state) {
        consumer.Pass([](std::string_view page) { benchmark::DoNotOptimize(page.data()); });
    }
}

// Every line of the same text, formatted once into pages.
void Peer(benchmark::State &state) {
    Full consumer;
    std::vector<std::string> lines;
    consumer.Pass([&](std::string_view page) {
        for (size_t begin = 0; begin < page.size();) {
            const size_t end = std::min(page.find('\n', begin), page.size() - 1) + 1;
            lines.emplace_back(page.substr(begin, end - begin));
            begin = end;
        }
    });
    for (auto _ : state) {
        char buffer[kPage];
        size_t used = 0;
        for (const std::string &line : lines) {
            if (used + line.size() >= sizeof buffer) {
                used = 0;
            }
            used += static_cast<size_t>(snprintf(buffer + used, sizeof buffer - used, "%s", line.c_str()));
        }
        benchmark::DoNotOptimize(buffer);
    }
}

// The one-second timer in the ready state: so many entries wait for an acknowledgement, none is due.
void Idle(benchmark::State &state) {
    Full consumer(static_cast<uint32_t>(state.range(0)));
    consumer.Second();
    (void)consumer.world.TakeSent();
    for (auto _ : state) {
        ND_LIB_FsmStatusHandle(consumer.nd, ND_LIB_EVT_TIMEOUT, nullptr);
    }
    if (consumer.nd->consumer.waitSubAckList.count != state.range(0)) {
        state.SkipWithError("something was due");
    }
}

BENCHMARK(Ours)->Name("diagnose/ours");
BENCHMARK(Peer)->Name("diagnose/peer");
BENCHMARK(Idle)->Name("idle/ours")->Arg(1)->Arg(100000);

} // namespace
} // namespace pegeir::bench
