// Walking the elements of a message beside libmnl walking as many attributes of the same sizes.

#include "consumer.hpp"

#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>

#include "tlv/tlv.h"

namespace pegeir::bench {
namespace {

constexpr size_t kBody = ND_LIB_MSG_MAX_LEN - NDPI_HEADER_LEN;

void Ours(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    Bytes message = Message(NDPI_MSG_SMOOTH_DATA, 1, Elements(size, kBody));
    for (auto _ : state) {
        uint32_t sum = 0;
        tlv::ForEach(message.data(), [&](const uint8_t *, tlv::Head head) { sum += head.tlvLen; });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBody / size));
}

void Libmnl(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    alignas(nlmsghdr) char buffer[ND_LIB_MSG_MAX_LEN + 64];
    nlmsghdr *const message = mnl_nlmsg_put_header(buffer);
    const Bytes value(size - 4, 0x5A);
    for (size_t record = 0; record < kBody / size; ++record) {
        mnl_attr_put(message, 1, value.size(), value.data());
    }
    for (auto _ : state) {
        uint32_t sum = 0;
        // What mnl_attr_for_each does, which is not C++.
        const auto *tail = static_cast<const char *>(mnl_nlmsg_get_payload_tail(message));
        auto *attribute = static_cast<nlattr *>(mnl_nlmsg_get_payload(message));
        while (mnl_attr_ok(attribute, static_cast<int>(tail - reinterpret_cast<char *>(attribute)))) {
            sum += mnl_attr_get_payload_len(attribute);
            attribute = mnl_attr_next(attribute);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBody / size));
}

BENCHMARK(Ours)->Name("walk/ours")->Arg(12)->Arg(200);
BENCHMARK(Libmnl)->Name("walk/peer")->Arg(12)->Arg(200);

} // namespace
} // namespace pegeir::bench
