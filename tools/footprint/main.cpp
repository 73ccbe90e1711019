// Prints what the library takes of the heap, as rows of a table: "| what | bytes | blocks |".
//
// The sim platform accounts for every block that is asked for.  What an allocator adds to each block is
// its own affair and not counted; the number of blocks is there to reckon with it.
#include <pegeir/sim.hpp>

#include <array>
#include <cstdio>

#include "nd_lib/nd_lib.h"

namespace {

namespace sim = pegeir::sim;

uint32_t Log(ND_LIB_Instance *, uint32_t, const char *, ...) {
    return 0;
}
uint32_t Pack(ND_LIB_Instance *, void *) {
    return ND_LIB_PACK_DONE;
}
uint32_t Event(ND_LIB_Instance *, uint32_t, uint32_t) {
    return 0;
}
uint32_t Record(ND_LIB_Instance *, const ND_LIB_TlvHead *) {
    return 0;
}

// What has been taken since the last row, and a row for it.
class Account {
public:
    explicit Account(const sim::World &world) : m_world(world) {}

    void Row(const char *what, uint64_t count = 1) {
        const uint64_t bytes = m_world.LiveBytes();
        const uint64_t blocks = m_world.Allocations().size();
        std::printf("| %s | %llu | %llu |\n", what,
                    static_cast<unsigned long long>((bytes - m_bytes) / count),
                    static_cast<unsigned long long>((blocks - m_blocks) / count));
        m_bytes = bytes;
        m_blocks = blocks;
    }

private:
    const sim::World &m_world;
    uint64_t m_bytes = 0;
    uint64_t m_blocks = 0;
};

struct Item {
    ND_LIB_ItemHead head;
    std::array<uint8_t, 8> bytes;
};

constexpr uint8_t kItems = 100;
constexpr uint32_t kFillingLines = 2000; // of about 100 bytes: twice what a box stores

// Subscribes kItems items, the n-th with the key of the returned pair and the data type n.
template <class MakeKey>
void Subscribe(ND_LIB_Instance *instance, uint16_t dataLen, MakeKey makeKey) {
    for (uint8_t number = 0; number < kItems; ++number) {
        const Item key = {{1000, 4}, makeKey(number)};
        const Item data = {{number, dataLen}, {}};
        if (ND_LIB_Subscribe(instance, &key.head, &data.head) != ND_LIB_OK) {
            std::fputs("a request was refused\n", stderr);
        }
    }
}

} // namespace

int main() {
    sim::World world;
    Account account(world);
    const ND_LIB_FrameRegister frame = {100, 200, 1, 1, 1, Log, 0, 0};
    const ND_LIB_ConsumerRegister consumer = {1, Pack, Event, Record};
    ND_LIB_Instance *instance = ND_LIB_Init(&frame);
    if (instance == nullptr || ND_LIB_RegisterConsumer(instance, &consumer) != ND_LIB_OK) {
        return 1;
    }
    account.Row("an instance, its consumer registered");
    for (uint32_t line = 0; line < kFillingLines; ++line) {
        for (const uint32_t box : {ND_LIB_BLACKBOX_ASSERT, ND_LIB_BLACKBOX_INFO}) {
            ND_LIB_BlackBox(instance, box, "%080u", line);
        }
    }
    const uint64_t full = world.LiveBytes();
    account.Row("both trace boxes at full size");
    std::printf("| more than that, while the second of them grows for the last time | %llu | 1 |\n",
                static_cast<unsigned long long>(world.PeakBytes() - full));
    const ND_LIB_CompState up = {0, ND_LIB_COMP_AVAILABLE};
    ND_LIB_NotifyNdCompState(instance, &up);
    account.Row("the one-second timer, while the component is available");

    Subscribe(instance, 0, [](uint8_t number) { return std::array<uint8_t, 8>{1, 0, 0, number}; });
    account.Row("a pending item, key of its own of 4 bytes, no data", kItems);
    Subscribe(instance, 8, [](uint8_t number) { return std::array<uint8_t, 8>{2, 0, 0, number}; });
    account.Row("a pending item, key of its own of 4 bytes, 8 bytes of data", kItems);
    Subscribe(instance, 0, [](uint8_t) { return std::array<uint8_t, 8>{1, 0, 0, 0}; });
    account.Row("a pending item more of a key, no data", kItems - 1); // the first of them was there
    ND_LIB_Deinit(instance);
    std::fputs(world.Leaks().c_str(), stderr);
    return world.Leaks().empty() && world.Violations().empty() && world.Assertions().empty() ? 0 : 1;
}
