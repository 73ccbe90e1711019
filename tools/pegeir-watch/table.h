/*
 * What is known at present: every item by the name of its thing.
 *
 * A download, and likewise a verification pass, names everything that exists.  Each comparison
 * therefore has a number, an item carries the number of the comparison in which it was last heard of,
 * and what carries an older one at the end is gone.  Nothing is copied or cleared when one begins, so
 * a table of many thousand items costs no more than its lookups.
 */
#ifndef PEGEIR_WATCH_TABLE_H
#define PEGEIR_WATCH_TABLE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "records.h"

namespace pegeir::watch {

enum class Change : uint8_t { kNew, kChanged, kSame, kGone };

// What the records since the beginning of a comparison have changed.
struct Tally {
    size_t records = 0;
    size_t fresh = 0;
    size_t changed = 0;
    size_t gone = 0;
};

class Table {
public:
    struct Outcome {
        Change change;
        Item item; // of a thing that is gone: what was last known of it
    };

    // Takes a record in.
    Outcome Apply(const Record &record);

    // Begins a comparison, in place of one that is under way.
    void BeginComparison();

    // Ends the comparison: returns the items that it has not named, which are forgotten.  Without a
    // comparison under way there are none.
    std::vector<Item> EndComparison();

    // A comparison that will not be completed: nothing is gone because of it.
    void AbandonComparison() { comparing = false; }

    [[nodiscard]] bool Comparing() const { return comparing; }
    [[nodiscard]] const Tally &CurrentTally() const { return tally; }
    [[nodiscard]] size_t Size() const { return entries.size(); }
    [[nodiscard]] size_t Count(size_t kind) const { return counts.at(kind); }

    // Returns the name of the interface that the item belongs to, empty when no link record told it.
    [[nodiscard]] std::string InterfaceName(const Item &item) const;

    template <typename Visitor>
    void ForEach(Visitor visit) const {
        for (const auto &[name, entry] : entries) {
            visit(entry.item);
        }
    }

private:
    struct Entry {
        Item item;
        uint64_t comparison;
    };

    std::map<ItemName, Entry> entries;
    std::array<size_t, std::variant_size_v<Item>> counts = {};
    Tally tally;
    uint64_t comparison = 0;
    bool comparing = false;
};

} // namespace pegeir::watch

#endif
