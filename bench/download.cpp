// The bulk download: data messages of 8000 bytes through ND_LIB_MsgProcess, log function and trace on.
// The floor formats the two lines of each record with the C library, and stores them.

#include "consumer.hpp"

#include <benchmark/benchmark.h>

namespace pegeir::bench {
namespace {

constexpr size_t kBody = ND_LIB_MSG_MAX_LEN - NDPI_HEADER_LEN;

void Ours(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    Consumer consumer;
    consumer.Stand(ND_LIB_FSM_WAIT_SMOOTH_DATA);
    consumer.nd->consumer.sequenceNum = 1;
    sim::Record record;
    record.sender = Consumer::kNd;
    record.receiver = Consumer::kApp;
    const Bytes original = Message(NDPI_MSG_SMOOTH_DATA, 1, Elements(size, kBody));
    record.bytes = original;
    const sim::Message message(consumer.world, record);
    for (auto _ : state) {
        // The delivery rewrites the heads of the elements, so each turn needs the message anew.
        std::copy(original.begin(), original.end(), static_cast<uint8_t *>(message.Data()));
        consumer.nd->consumer.sequenceNum = 1;
        benchmark::DoNotOptimize(ND_LIB_MsgProcess(consumer.nd, message.Data()));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBody / size));
    state.counters["items"] = static_cast<double>(state.iterations()) * static_cast<double>(kBody / size);
}

void Floor(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    static LineStore log;
    static LineStore box;
    const SysTime now = {2024, 1, 1, 1, 2, 3, 1, 456};
    for (auto _ : state) {
        for (size_t record = 0; record < kBody / size; ++record) {
            log.Print("[ND_LIB] NdPid=0X%X, ParseUpdateData tlvType:%u, tlvLen:%u", Consumer::kNd, 1U,
                      static_cast<unsigned>(size - 4));
            box.Print("%u-%u %u:%u:%u:%u%s ParseUpdateData tlvType:%u, tlvLen:%u\n", now.month, now.day,
                      now.hour, now.minute, now.second, now.millisecond, "-01:00", 1U,
                      static_cast<unsigned>(size - 4));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBody / size));
}

BENCHMARK(Ours)->Name("download/ours")->Arg(12)->Arg(50)->Arg(200);
BENCHMARK(Ours)->Name("counted_download")->Arg(50)->Iterations(100); // for callgrind
BENCHMARK(Floor)->Name("download/peer")->Arg(12)->Arg(50)->Arg(200);

} // namespace
} // namespace pegeir::bench
