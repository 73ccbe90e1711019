// One line of the trace beside spdlog writing the same line into its ring-buffer sink.  That sink keeps
// the text and the time apart and makes the line when it is asked for, so there are two peers: the write
// alone, and the write with the line made, which is what a box holds.

#include "consumer.hpp"

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

namespace pegeir::bench {
namespace {

constexpr size_t kLines = 1000;

void Ours(benchmark::State &state) {
    Consumer consumer;
    uint32_t number = 0;
    for (auto _ : state) {
        for (size_t line = 0; line < kLines; ++line) {
            ND_LIB_BlackBox(consumer.nd, ND_LIB_BLACKBOX_INFO, "ParseUpdateData tlvType:%u, tlvLen:%u", 1U,
                            ++number);
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kLines});
}

void Spdlog(benchmark::State &state, bool makeLines) {
    const auto sink = std::make_shared<spdlog::sinks::ringbuffer_sink_st>(kLines);
    spdlog::logger logger("bench", sink);
    logger.set_pattern("%m-%d %H:%M:%S:%e%z %v");
    uint32_t number = 0;
    for (auto _ : state) {
        for (size_t line = 0; line < kLines; ++line) {
            logger.info("ParseUpdateData tlvType:{}, tlvLen:{}", 1U, ++number);
        }
        if (makeLines) {
            benchmark::DoNotOptimize(sink->last_formatted());
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kLines});
}

BENCHMARK(Ours)->Name("trace_write/ours");
BENCHMARK_CAPTURE(Spdlog, write, false)->Name("trace_write/peer");
BENCHMARK(Ours)->Name("trace_line/ours");
BENCHMARK_CAPTURE(Spdlog, line, true)->Name("trace_line/peer");

} // namespace
} // namespace pegeir::bench
