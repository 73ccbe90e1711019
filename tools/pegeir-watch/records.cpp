/*
 * Decoding of the component's data records.
 *
 * The reader keeps one flag: once a read did not fit, it answers zeros, and the caller asks Ok() at the
 * end.  That keeps each decoder a plain list of the record's fields, in the order of nd_data.h.
 */
#include "records.h"

#include <algorithm>

#include <pegeir/nd_data.h>

namespace pegeir::watch {
namespace {

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : rest(bytes) {}

    uint32_t Number(size_t width) {
        uint32_t number = 0;
        for (const uint8_t byte : Take(width)) {
            number = number << 8 | byte;
        }
        return number;
    }
    uint8_t Byte() { return static_cast<uint8_t>(Number(1)); }
    template <size_t N>
    std::array<uint8_t, N> Array() {
        std::array<uint8_t, N> array = {};
        std::ranges::copy(Take(N), array.begin());
        return array;
    }
    std::vector<uint8_t> Bytes(size_t length) {
        const std::span<const uint8_t> bytes = Take(length);
        return {bytes.begin(), bytes.end()};
    }
    [[nodiscard]] size_t Left() const { return rest.size(); }
    [[nodiscard]] bool Ok() const { return ok; }

private:
    std::span<const uint8_t> Take(size_t length) {
        if (length > rest.size()) {
            ok = false;
            rest = {};
            return {};
        }
        const std::span<const uint8_t> taken = rest.first(length);
        rest = rest.subspan(length);
        return taken;
    }

    std::span<const uint8_t> rest;
    bool ok = true;
};

Item DecodeLink(Reader &reader, std::string & /*fault*/) {
    Link link;
    link.flags = reader.Byte();
    const uint32_t nameLength = reader.Number(2);
    link.ifindex = reader.Number(4);
    link.mtu = reader.Number(4);
    link.mac = reader.Array<6>();
    const std::vector<uint8_t> name = reader.Bytes(nameLength);
    link.name.assign(name.begin(), name.end());
    return link;
}

Item DecodeRaInterval(Reader &reader, std::string & /*fault*/) {
    RaInterval interval;
    reader.Number(3);
    interval.ifindex = reader.Number(4);
    interval.min = reader.Number(4);
    interval.max = reader.Number(4);
    return interval;
}

Item DecodeNeighbour(Reader &reader, std::string &fault) {
    Neighbour neighbour;
    neighbour.state = reader.Byte();
    neighbour.router = (reader.Byte() & ND_DATA_NEIGHBOUR_ROUTER) != 0;
    const uint8_t macLength = reader.Byte();
    if (macLength != 0 && macLength != neighbour.mac.size()) {
        fault = "a MAC address of " + std::to_string(macLength) + " bytes";
    }
    neighbour.hasMac = macLength != 0;
    neighbour.ifindex = reader.Number(4);
    neighbour.address = reader.Array<16>();
    neighbour.mac = reader.Array<6>();
    return neighbour;
}

Item DecodeSynthetic(Reader &reader, std::string & /*fault*/) {
    Synthetic synthetic;
    reader.Number(3);
    synthetic.index = reader.Number(4);
    synthetic.revision = reader.Number(4);
    synthetic.bytes = reader.Bytes(reader.Left());
    return synthetic;
}

struct Decoder {
    uint16_t type;
    const char *name;
    Item (*decode)(Reader &reader, std::string &fault);
};

constexpr std::array<Decoder, 4> kDecoders = {{
    {ND_DATA_TLV_LINK, "link", DecodeLink},
    {ND_DATA_TLV_RA_INTERVAL, "RA interval", DecodeRaInterval},
    {ND_DATA_TLV_NEIGHBOUR, "neighbour", DecodeNeighbour},
    {ND_DATA_TLV_SYNTHETIC, "synthetic", DecodeSynthetic},
}};

struct Namer {
    ItemName operator()(const Link &link) const { return {0, link.ifindex, {}}; }
    ItemName operator()(const RaInterval &interval) const { return {1, interval.ifindex, {}}; }
    ItemName operator()(const Neighbour &neighbour) const {
        return {2, neighbour.ifindex, neighbour.address};
    }
    ItemName operator()(const Synthetic &synthetic) const { return {3, synthetic.index, {}}; }
};

} // namespace

ItemName NameOf(const Item &item) {
    return std::visit(Namer{}, item);
}

std::variant<Record, Malformed, Unknown> DecodeRecord(uint16_t type, std::span<const uint8_t> value) {
    const auto *const decoder = std::ranges::find(kDecoders, type, &Decoder::type);
    if (decoder == kDecoders.end()) {
        return Unknown{};
    }
    Reader reader(value);
    std::string fault;
    const uint8_t operation = reader.Byte();
    const Item item = decoder->decode(reader, fault);
    const std::string what =
        std::string(decoder->name) + " record of " + std::to_string(value.size()) + " bytes";
    if (!reader.Ok()) {
        return Malformed{what + " is cut off"};
    }
    if (operation != ND_DATA_SET && operation != ND_DATA_DELETE) {
        return Malformed{what + " has operation " + std::to_string(operation) +
                         ", which is neither set nor delete"};
    }
    if (!fault.empty()) {
        return Malformed{what + " has " + fault};
    }
    return Record{operation == ND_DATA_DELETE, item};
}

} // namespace pegeir::watch
