// What pegeir-watch makes of records, what its table calls new, changed and gone, and how it prints.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <pegeir/nd_data.h>

#include "output.h"
#include "records.h"
#include "table.h"

namespace pegeir::watch {
namespace {

using Bytes = std::vector<uint8_t>;

struct Sample {
    const char *description;
    uint16_t type;
    Bytes value;
    const char *text;
    const char *json;
};

const std::vector<Sample> kSamples = {
    {"a link",
     ND_DATA_TLV_LINK,
     {1, 3, 0, 4, 0, 0, 1, 2, 0, 0, 5, 0xDC, 2, 0, 0, 0, 0xAB, 9, 'e', 't', 'h', '0'},
     "link eth0 (258): up, running, mtu 1500, mac 02:00:00:00:ab:09",
     R"({"kind":"link","ifindex":258,"name":"eth0","up":true,"running":true,"loopback":false,"mtu":1500,)"
     R"("mac":"02:00:00:00:ab:09"})"},
    {"a link whose name would move the cursor, and bytes behind it",
     ND_DATA_TLV_LINK,
     {1, 4, 0, 2, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x1B, 'c', 7, 7},
     "link \\x1bc (1): down, loopback, mtu 65536, mac 00:00:00:00:00:00",
     nullptr},
    {"an RA interval",
     ND_DATA_TLV_RA_INTERVAL,
     {1, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 200, 0, 0, 2, 88},
     "router advertisements on interface 7: every 200 to 600 s",
     R"({"kind":"ra-interval","ifindex":7,"min":200,"max":600})"},
    {"a neighbour",
     ND_DATA_TLV_NEIGHBOUR,
     {1, 4, 1, 6, 0, 0, 0, 7, 0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 1},
     "neighbour fe80::1 on interface 7: STALE, router, mac 02:00:00:00:00:01",
     R"({"kind":"neighbour","ifindex":7,"address":"fe80::1","state":"STALE","router":true,"mac":"02:00:00:00:00:01"})"},
    {"a neighbour without MAC in a state of its own",
     ND_DATA_TLV_NEIGHBOUR,
     {1, 3, 0, 0, 0, 0, 0, 7, 0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0},
     "neighbour fe80::1 on interface 7: 0x03",
     R"({"kind":"neighbour","ifindex":7,"address":"fe80::1","state":"0x03","router":false,"mac":null})"},
    {"a synthetic item",
     ND_DATA_TLV_SYNTHETIC,
     {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 3, 0xFF, 1},
     "synthetic 65536: revision 3, bytes ff01",
     R"({"kind":"synthetic","index":65536,"revision":3,"bytes":"ff01"})"},
};

TEST(WatchRecords, AreDecodedAndPrinted) {
    for (const Sample &sample : kSamples) {
        SCOPED_TRACE(sample.description);
        const auto decoded = DecodeRecord(sample.type, sample.value);
        ASSERT_TRUE(std::holds_alternative<Record>(decoded));
        const auto &record = std::get<Record>(decoded);
        EXPECT_FALSE(record.gone);
        EXPECT_EQ(ItemText(record.item, ""), sample.text);
        if (sample.json != nullptr) {
            EXPECT_EQ(ItemJson(record.item).dump(), sample.json);
        }
    }
}

// Each prefix lies in a block of its own size, so that the sanitizer sees a read past its end.
TEST(WatchRecords, CutOffAnywhereAreMalformed) {
    for (const Sample &sample : kSamples) {
        const size_t whole = sample.type == ND_DATA_TLV_SYNTHETIC ? size_t{ND_DATA_SYNTHETIC_LEN}
                             : sample.type == ND_DATA_TLV_LINK    ? size_t{ND_DATA_LINK_LEN} + sample.value[3]
                                                                  : sample.value.size();
        for (size_t length = 0; length < whole; ++length) {
            const Bytes part(sample.value.begin(),
                             sample.value.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_TRUE(std::holds_alternative<Malformed>(DecodeRecord(sample.type, part)))
                << sample.description << " of " << length << " bytes";
        }
    }
}

TEST(WatchRecords, WithImpossibleFieldsAreMalformed) {
    Bytes value = kSamples[3].value;
    value[0] = 3;
    EXPECT_TRUE(std::holds_alternative<Malformed>(DecodeRecord(ND_DATA_TLV_NEIGHBOUR, value))) << "operation";
    value[0] = ND_DATA_SET;
    value[3] = 8;
    EXPECT_TRUE(std::holds_alternative<Malformed>(DecodeRecord(ND_DATA_TLV_NEIGHBOUR, value)))
        << "MAC length";
    EXPECT_TRUE(std::holds_alternative<Unknown>(DecodeRecord(99, value)));
}

Record Set(uint32_t index, uint32_t revision) {
    return {false, Synthetic{index, revision, {}}};
}

TEST(WatchTable, TellsWhatADownloadChanges) {
    Table table;
    table.BeginComparison();
    EXPECT_EQ(table.Apply(Set(1, 1)).change, Change::kNew);
    EXPECT_EQ(table.Apply(Set(2, 1)).change, Change::kNew);
    EXPECT_EQ(table.Apply({false, Link{1, "eth0", 0, 1500, {}}}).change, Change::kNew);
    EXPECT_TRUE(table.EndComparison().empty());

    // Updates between downloads compare nothing, and an end without a beginning neither.
    EXPECT_EQ(table.Apply(Set(2, 2)).change, Change::kChanged);
    EXPECT_TRUE(table.EndComparison().empty());

    // A download that stops half-way says nothing about what it has not reached.
    table.BeginComparison();
    EXPECT_EQ(table.Apply(Set(2, 2)).change, Change::kSame);
    table.AbandonComparison();
    EXPECT_TRUE(table.EndComparison().empty());
    EXPECT_EQ(table.Size(), 3U);

    table.BeginComparison();
    (void)table.Apply(Set(2, 2));
    (void)table.Apply(Set(3, 1));
    EXPECT_EQ(table.Apply({true, Link{1, "", 0, 0, {}}}).item, Item(Link({1, "eth0", 0, 1500, {}})))
        << "what is gone is told as it was";
    const std::vector<Item> gone = table.EndComparison();
    ASSERT_EQ(gone.size(), 1U);
    EXPECT_EQ(gone[0], Item(Synthetic({1, 1, {}})));
    const Tally &tally = table.CurrentTally();
    EXPECT_EQ((std::array{tally.records, tally.fresh, tally.changed, tally.gone}),
              (std::array<size_t, 4>{3, 1, 0, 2}));
    EXPECT_EQ(table.Count(0), 0U);
    EXPECT_EQ(table.Count(3), 2U);
}

TEST(WatchTable, NamesTheInterfaceOfAnItem) {
    Table table;
    (void)table.Apply({false, Link{7, "eth0", 0, 1500, {}}});
    EXPECT_EQ(table.InterfaceName(RaInterval{7, 1, 2}), "eth0");
    EXPECT_EQ(table.InterfaceName(RaInterval{8, 1, 2}), "");
    EXPECT_EQ(table.InterfaceName(Synthetic{7, 1, {}}), "") << "its number is no interface";
}

} // namespace
} // namespace pegeir::watch
