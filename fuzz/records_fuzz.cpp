// The records of acknowledgements and the walk over elements, each beside a plain model of what it is to
// do: which elements there are, and which requests an acknowledgement settles.
#include "fuzz.h"

#include <map>
#include <optional>
#include <set>

#include "support/driver.hpp"

namespace pegeir::fuzz {
namespace {

using tests::Bytes;
using tests::Driver;
using tests::Item;

// ---- A model of the walk ----

uint32_t NumberAt(const Bytes &bytes, size_t at, bool bigEndian) {
    const uint32_t first = bytes[at];
    const uint32_t second = bytes[at + 1];
    return bigEndian ? first * 256 + second : second * 256 + first;
}

// Where the elements of the first length bytes begin.
std::vector<size_t> Elements(const Bytes &bytes, int64_t length, bool bigEndian) {
    std::vector<size_t> begins;
    for (size_t at = 0; static_cast<int64_t>(at) + 4 <= length;) {
        const size_t end = at + 4 + NumberAt(bytes, at + 2, bigEndian);
        if (static_cast<int64_t>(end) > length) {
            break;
        }
        begins.push_back(at);
        at = end;
    }
    return begins;
}

void Walk(Input &input) {
    const bool bigEndian = input.Flag();
    const uint8_t cut = input.U8();
    Bytes bytes = input.Rest();
    // Also lengths that are less than what there is, down to negative ones.
    const auto length = static_cast<int32_t>(bytes.size()) - cut;
    std::vector<size_t> found;
    for (uint8_t *element = ND_LIB_GetFirstTlv(bytes.data(), length, bigEndian); element != nullptr;) {
        const auto at = static_cast<size_t>(element - bytes.data());
        found.push_back(at);
        Require(found.size() <= bytes.size(), "the walk does not end");
        const auto size = static_cast<uint16_t>(NumberAt(bytes, at + 2, bigEndian));
        element = ND_LIB_GetNextTlv(bytes.data(), length, element, bigEndian, size);
    }
    Require(found == Elements(bytes, length, bigEndian), "the walk finds other elements than there are");
}

// ---- A model of the store ----

struct Name {
    uint32_t keyType;
    Bytes key;
    uint32_t dataType;
    auto operator<=>(const Name &) const = default;
};

std::optional<Name> NamedBy(const Bytes &value) {
    if (value.size() < 4) {
        return std::nullopt;
    }
    const size_t dataAt = 4 + NumberAt(value, 2, true);
    if (value.size() < dataAt + 4) {
        return std::nullopt;
    }
    return Name{NumberAt(value, 0, true),
                Bytes(value.begin() + 4, value.begin() + static_cast<std::ptrdiff_t>(dataAt)),
                NumberAt(value, dataAt, true)};
}

std::set<Name> Pending(ND_LIB_Instance *nd) {
    std::set<Name> pending;
    for (ND_LIB_KeyEntry *key = store::FirstKey(nd); key != nullptr; key = store::NextKey(nd, key)) {
        for (ND_LIB_ListNode *link = list::First(&key->dataListHead); link != nullptr;
             link = list::Next(&key->dataListHead, link)) {
            pending.insert({key->keyType, Bytes(key->keyValue, key->keyValue + key->keyLen),
                            store::OfDataLink(link)->dataType});
        }
    }
    return pending;
}

void Acknowledge(Input &input) {
    sim::World world;
    Driver d(world);
    d.BecomeReady();
    std::map<Name, bool> wanted; // whether to subscribe or to unsubscribe
    std::vector<Item> items;
    for (uint32_t count = input.Below(8); count > 0; --count) {
        static constexpr size_t kSizes[] = {1, 4, 4, 16, 60};
        Item item{static_cast<uint16_t>(1000 + input.Below(2)), Bytes(input.Pick(kSizes), input.U8()),
                  static_cast<uint16_t>(1 + input.Below(2)), Bytes(input.Below(10), 1)};
        const bool subscribe = input.Flag();
        Require((subscribe ? d.Subscribe(item) : d.UnSubscribe(item)) == ND_LIB_OK, "a request is refused");
        wanted[{item.keyType, item.key, item.dataType}] = subscribe;
        items.push_back(std::move(item));
    }
    d.Run(1);
    std::map<bool, uint32_t> numbers;
    for (const auto &sent : d.Sent()) {
        numbers[sent.type == NDPI_MSG_SUBSCRIBE_DATA] = sent.trans;
    }

    const bool ofSubscribe = input.Flag();
    const uint32_t number = input.Below(8) == 0 ? input.U32() : numbers[input.Flag()];
    Bytes body;
    while (!input.AtEnd()) {
        const uint32_t piece = input.Below(16);
        const Bytes bytes = piece < items.size() ? items[piece].Record() : input.Bytes(1 + piece);
        body.insert(body.end(), bytes.begin(), bytes.end());
    }
    // Elements of any type are records.
    for (const size_t at : Elements(body, static_cast<int64_t>(body.size()), true)) {
        const auto value = body.begin() + static_cast<std::ptrdiff_t>(at) + 4;
        const auto name =
            NamedBy(Bytes(value, value + static_cast<std::ptrdiff_t>(NumberAt(body, at + 2, true))));
        const auto entry = name ? wanted.find(*name) : wanted.end();
        if (entry != wanted.end() && numbers[entry->second] == number) {
            wanted.erase(entry);
        }
    }
    const auto type = ofSubscribe ? NDPI_MSG_SUBSCRIBE_DATA : NDPI_MSG_UNSUBSCRIBE_DATA;
    const uint32_t result =
        d.Receive({.type = type, .trans = number, .body = std::move(body), .flags = NDPI_ACK_FLAG});
    Require(result == ND_LIB_OK, "an acknowledgement is refused");

    std::set<Name> left;
    for (const auto &[name, subscribe] : wanted) {
        left.insert(name);
    }
    Require(Pending(d.nd) == left, "other requests are pending than those that were not acknowledged");
    RequireNone(tests::BrokenInvariant(d.nd));
    d.Deinit();
    RequireNone(world.Leaks());
    Require(world.Violations().empty(), "the platform's contract is broken");
}

} // namespace

void Run(Input input) {
    if (input.Flag()) {
        Walk(input);
    } else {
        Acknowledge(input);
    }
}

} // namespace pegeir::fuzz
