/*
 * What the component's data records say, as values.
 *
 * A record comes from another process, so nothing in it is taken on trust: decoding reads through a
 * bounds-checked reader and answers either what the record says or why it says nothing.
 */
#ifndef PEGEIR_WATCH_RECORDS_H
#define PEGEIR_WATCH_RECORDS_H

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace pegeir::watch {

using Mac = std::array<uint8_t, 6>;
using Address = std::array<uint8_t, 16>;

struct Link {
    uint32_t ifindex = 0;
    std::string name;
    uint8_t flags = 0; // ND_DATA_LINK_*
    uint32_t mtu = 0;
    Mac mac = {};
    bool operator==(const Link &) const = default;
};

struct RaInterval {
    uint32_t ifindex = 0;
    uint32_t min = 0; // seconds
    uint32_t max = 0;
    bool operator==(const RaInterval &) const = default;
};

struct Neighbour {
    uint32_t ifindex = 0;
    Address address = {};
    uint8_t state = 0; // NUD_* of the kernel
    bool router = false;
    bool hasMac = false;
    Mac mac = {};
    bool operator==(const Neighbour &) const = default;
};

struct Synthetic {
    uint32_t index = 0;
    uint32_t revision = 0;
    std::vector<uint8_t> bytes;
    bool operator==(const Synthetic &) const = default;
};

using Item = std::variant<Link, RaInterval, Neighbour, Synthetic>;

// What names the thing that an item tells of.  Items sort by kind, then by number and address.
struct ItemName {
    size_t kind = 0;     // index of the alternative in Item
    uint32_t number = 0; // ifindex, or index of the synthetic item
    Address address = {};
    bool operator<(const ItemName &other) const {
        return std::tie(kind, number, address) < std::tie(other.kind, other.number, other.address);
    }
};

[[nodiscard]] ItemName NameOf(const Item &item);

struct Record {
    bool gone = false; // of item only the name counts
    Item item;
};

// Why a record cannot be used, for a person to read.
struct Malformed {
    std::string reason;
};

// A record of a type that this program does not know.
struct Unknown {};

// Decodes the value of a data record of TLV type `type`.  Bytes behind what the type defines are
// ignored, so that the component may append to a record.
[[nodiscard]] std::variant<Record, Malformed, Unknown> DecodeRecord(uint16_t type,
                                                                    std::span<const uint8_t> value);

} // namespace pegeir::watch

#endif
