// The element walk, byte by byte.

#include <gtest/gtest.h>

#include "support/driver.hpp"

namespace pegeir::tests {
namespace {

// The offsets of the elements that a walk visits.
std::vector<size_t> Walk(Bytes body, uint32_t networkOrder = 1) {
    std::vector<size_t> offsets;
    const auto length = static_cast<int32_t>(body.size());
    uint8_t *element = ND_LIB_GetFirstTlv(body.data(), length, networkOrder);
    while (element != nullptr) {
        offsets.push_back(static_cast<size_t>(element - body.data()));
        uint16_t len = wire::LoadU16(element + 2);
        if (networkOrder == 0) {
            memcpy(&len, element + 2, 2);
        }
        element = ND_LIB_GetNextTlv(body.data(), length, element, networkOrder, len);
    }
    return offsets;
}

TEST(Tlv, TheWalkEndsAtTheFirstElementThatDoesNotFit) {
    struct Case {
        const char *what;
        Bytes body;
        std::vector<size_t> visited;
    };
    const Case cases[] = {
        {"nothing", {}, {}},
        {"no whole head", {0, 1, 0}, {}},
        {"a head alone", {0, 1, 0, 0}, {0}},
        {"a first value cut off", {0, 1, 0, 1}, {}},
        {"a first value of the largest length", {0, 1, 0xFF, 0xFF, 0, 0}, {}},
        {"a second empty element", {0, 1, 0, 2, 9, 9, 0, 1, 0, 0}, {0, 6}},
        {"a second value cut off", {0, 1, 0, 2, 9, 9, 0, 1, 0, 1}, {0}},
        {"one stray byte", {0, 1, 0, 1, 9, 0}, {0}},
        {"three stray bytes", {0, 1, 0, 1, 9, 0, 1, 0}, {0}},
        {"empty elements", {0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0}, {0, 4, 8}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(Walk(c.body), c.visited) << c.what;
    }
    uint8_t one[4] = {};
    EXPECT_EQ(ND_LIB_GetFirstTlv(nullptr, 100, 1), nullptr);
    EXPECT_EQ(ND_LIB_GetFirstTlv(one, -1, 1), nullptr);
    EXPECT_EQ(ND_LIB_GetNextTlv(one, -1, one, 1, 0), nullptr);
    EXPECT_EQ(ND_LIB_GetNextTlv(one, 4, one, 1, 0xFFFF), nullptr);
    const uint16_t host[] = {1, 2, 3, 4, 0};
    Bytes body(sizeof(host));
    memcpy(body.data(), host, sizeof(host));
    EXPECT_EQ(Walk(body, 0), (std::vector<size_t>{0, 6}));
}

} // namespace
} // namespace pegeir::tests
