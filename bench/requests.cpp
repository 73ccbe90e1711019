// Subscribe, send, acknowledge, delete, beside a client made of the standard containers; the time an item
// takes as their number grows, and the memory that a pending item holds.

#include "consumer.hpp"
#include "map_client.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <malloc.h>
#include <random>

namespace pegeir::bench {
namespace {

struct Requests {
    // items, bytes of a key, data types a key, shuffled
    explicit Requests(const benchmark::State &state) {
        const auto types = static_cast<uint32_t>(state.range(2));
        for (uint32_t number = 0; number < state.range(0); ++number) {
            numbers.push_back(number);
        }
        if (state.range(3) != 0) {
            std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
        }
        for (uint32_t &number : numbers) {
            keys.emplace_back(1000, KeyBytes(number / types, static_cast<size_t>(state.range(1))));
            number %= types;
        }
        for (uint32_t type = 0; type < types; ++type) {
            data.emplace_back(static_cast<uint16_t>(type), Bytes{});
        }
    }
    template <class Subscribe>
    void ForEach(Subscribe subscribe) const {
        for (size_t i = 0; i < numbers.size(); ++i) {
            subscribe(keys[i].Get(), data[numbers[i]].Get());
        }
    }
    std::vector<uint32_t> numbers; // in the end the data type of each
    std::vector<ItemHead> keys;
    std::vector<ItemHead> data;
};

size_t HeapBytes() {
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

void Report(benchmark::State &state, size_t heap) {
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["items"] = static_cast<double>(state.iterations() * state.range(0));
    state.counters["bytes"] = static_cast<double>(heap) / static_cast<double>(state.range(0));
}

void Ours(benchmark::State &state) {
    const Requests requests(state);
    Consumer consumer;
    consumer.Stand(ND_LIB_FSM_READY);
    consumer.world.Attach(Consumer::kNd, [&](void *message) { // the component: acknowledges all
        sim::Record ack;
        ack.sender = Consumer::kNd;
        ack.receiver = Consumer::kApp;
        const auto *bytes = static_cast<const uint8_t *>(message);
        ack.bytes.assign(bytes, bytes + DMS_MsgDataLenGet(message));
        ack.bytes[2] |= NDPI_ACK_FLAG;
        consumer.world.Post(std::move(ack));
    });
    size_t heap = 0;
    for (auto _ : state) {
        const size_t before = HeapBytes();
        requests.ForEach([&](const ND_LIB_ItemHead *key, const ND_LIB_ItemHead *data) {
            (void)ND_LIB_Subscribe(consumer.nd, key, data);
        });
        heap = HeapBytes() - before;
        consumer.Second();
        if (consumer.nd->consumer.subscribeTree.count != 0) {
            state.SkipWithError("not everything was acknowledged");
        }
    }
    Report(state, heap);
}

void Peer(benchmark::State &state) {
    const Requests requests(state);
    Consumer platform; // for the clock
    MapClient client;
    size_t heap = 0;
    for (auto _ : state) {
        const size_t before = HeapBytes();
        requests.ForEach(
            [&](const ND_LIB_ItemHead *key, const ND_LIB_ItemHead *data) { client.Subscribe(key, data); });
        heap = HeapBytes() - before;
        for (Bytes &message : client.Send(1000)) {
            const Bytes copy = message; // what the component sends back
            client.ReceiveAck(copy);
        }
        if (client.Pending() != 0) {
            state.SkipWithError("not everything was acknowledged");
        }
    }
    Report(state, heap);
}

void Sizes(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgNames({"", "key", "types", "random"})->Unit(benchmark::kMillisecond);
    for (const int64_t items : {1000, 10000, 100000, 1000000}) {
        benchmark->Args({items, 4, 1, 1});
    }
    benchmark->Args({10000, 4, 1, 0})->Args({10000, 16, 1, 1})->Args({10000, 16, 4, 1});
}

BENCHMARK(Ours)->Name("requests/ours")->Apply(Sizes);
BENCHMARK(Ours)->Name("counted_requests")->Args({10000, 4, 1, 1})->Iterations(2); // for callgrind
BENCHMARK(Peer)->Name("requests/peer")->Apply(Sizes);

} // namespace
} // namespace pegeir::bench
