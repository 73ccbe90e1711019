#include "table.h"

#include <utility>

namespace pegeir::watch {

Table::Outcome Table::Apply(const Record &record) {
    ++tally.records;
    const ItemName name = NameOf(record.item);
    const auto known = entries.find(name);
    if (record.gone) {
        ++tally.gone;
        if (known == entries.end()) {
            return {Change::kGone, record.item};
        }
        Item last = std::move(known->second.item);
        entries.erase(known);
        --counts.at(name.kind);
        return {Change::kGone, std::move(last)};
    }
    if (known == entries.end()) {
        ++tally.fresh;
        ++counts.at(name.kind);
        entries.emplace(name, Entry{record.item, comparison});
        return {Change::kNew, record.item};
    }
    known->second.comparison = comparison;
    if (known->second.item == record.item) {
        return {Change::kSame, record.item};
    }
    ++tally.changed;
    known->second.item = record.item;
    return {Change::kChanged, record.item};
}

void Table::BeginComparison() {
    ++comparison;
    comparing = true;
    tally = {};
}

std::vector<Item> Table::EndComparison() {
    std::vector<Item> gone;
    if (!std::exchange(comparing, false)) {
        return gone;
    }
    for (auto entry = entries.begin(); entry != entries.end();) {
        if (entry->second.comparison == comparison) {
            ++entry;
            continue;
        }
        --counts.at(entry->first.kind);
        gone.push_back(std::move(entry->second.item));
        entry = entries.erase(entry);
    }
    tally.gone += gone.size();
    return gone;
}

std::string Table::InterfaceName(const Item &item) const {
    const auto link = entries.find(ItemName{NameOf(Link{}).kind, NameOf(item).number, {}});
    const bool hasInterface = !std::holds_alternative<Synthetic>(item);
    return hasInterface && link != entries.end() ? std::get<Link>(link->second.item).name : std::string();
}

} // namespace pegeir::watch
