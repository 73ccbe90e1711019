// The tree of keys alone, beside boost::intrusive::set over records of the same layout and std::map.

#include "consumer.hpp"

#include <benchmark/benchmark.h>
#include <boost/intrusive/set.hpp>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "nd_lib_msg_send/nd_lib_msg_send.h"

namespace pegeir::bench {
namespace {

namespace bi = boost::intrusive;

struct BoostEntry : bi::set_base_hook<> {
    uint16_t keyType = 0;
    uint16_t keyLen = 0;
    uint8_t *keyValue = nullptr;
};

template <class Entry>
bool IsLess(const Entry &a, const Entry &b) {
    if (a.keyType != b.keyType) {
        return a.keyType < b.keyType;
    }
    if (a.keyLen != b.keyLen) {
        return a.keyLen < b.keyLen;
    }
    return std::memcmp(a.keyValue, b.keyValue, a.keyLen) < 0;
}
bool operator<(const BoostEntry &a, const BoostEntry &b) {
    return IsLess(a, b);
}

struct MapKey {
    uint16_t keyType;
    Bytes bytes;
    bool operator<(const MapKey &other) const {
        return std::tuple(keyType, bytes.size()) != std::tuple(other.keyType, other.bytes.size())
                   ? std::tuple(keyType, bytes.size()) < std::tuple(other.keyType, other.bytes.size())
                   : std::memcmp(bytes.data(), other.bytes.data(), bytes.size()) < 0;
    }
};

// Keys in order or shuffled, each in memory of its own as the store has them.
std::vector<Bytes> Keys(size_t count, size_t size, bool shuffled) {
    std::vector<Bytes> keys;
    for (uint32_t number = 0; number < count; ++number) {
        keys.push_back(KeyBytes(number, size));
    }
    if (shuffled) {
        std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    }
    return keys;
}

struct OursTree {
    explicit OursTree(std::vector<Bytes> &keys) : entries(keys.size()) {
        for (size_t i = 0; i < keys.size(); ++i) {
            entries[i].keyType = 1000;
            entries[i].keyLen = static_cast<uint16_t>(keys[i].size());
            entries[i].keyValue = keys[i].data();
        }
    }
    void Clear() {
        tree = {};
        tree.root = &tree.sentinel;
        tree.sentinel.colour = KAL_RBT_BLACK;
    }
    void Insert(size_t i) {
        (void)ND_LIB_RBT_AddNode(&tree, &entries[i].rbNode, &entries[i], ND_LIB_Key_RB_KeyCmp);
    }
    bool Find(size_t i) { return ND_LIB_RBT_LookupNode(&tree, &entries[i], ND_LIB_Key_RB_KeyCmp) != nullptr; }
    KAL_RBT_Tree tree{};
    std::vector<ND_LIB_KeyEntry> entries;
};

struct BoostTree {
    explicit BoostTree(std::vector<Bytes> &keys) : entries(keys.size()) {
        for (size_t i = 0; i < keys.size(); ++i) {
            entries[i].keyType = 1000;
            entries[i].keyLen = static_cast<uint16_t>(keys[i].size());
            entries[i].keyValue = keys[i].data();
        }
    }
    ~BoostTree() { tree.clear(); }
    void Clear() { tree.clear(); }
    void Insert(size_t i) { tree.insert(entries[i]); }
    bool Find(size_t i) { return tree.find(entries[i]) != tree.end(); }
    std::vector<BoostEntry> entries;
    bi::set<BoostEntry> tree;
};

struct MapTree {
    explicit MapTree(std::vector<Bytes> &bytes) {
        for (const Bytes &key : bytes) {
            keys.push_back({1000, key});
        }
    }
    void Clear() { tree.clear(); }
    void Insert(size_t i) { tree.emplace(keys[i], i); }
    bool Find(size_t i) { return tree.find(keys[i]) != tree.end(); }
    std::vector<MapKey> keys;
    std::map<MapKey, size_t> tree;
};

template <class Tree>
void Insert(benchmark::State &state) {
    auto keys =
        Keys(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), state.range(2) != 0);
    Tree tree(keys);
    for (auto _ : state) {
        state.PauseTiming();
        tree.Clear();
        state.ResumeTiming();
        for (size_t i = 0; i < keys.size(); ++i) {
            tree.Insert(i);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Tree>
void Lookup(benchmark::State &state) {
    auto keys =
        Keys(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), state.range(2) != 0);
    Tree tree(keys);
    tree.Clear();
    for (size_t i = 0; i < keys.size(); ++i) {
        tree.Insert(i);
    }
    for (auto _ : state) {
        for (size_t i = 0; i < keys.size(); ++i) {
            benchmark::DoNotOptimize(tree.Find(i));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Sizes(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgNames({"", "key", "random"});
    for (const int64_t size : {4, 16}) {
        for (const int64_t shuffled : {0, 1}) {
            benchmark->Args({10000, size, shuffled});
        }
    }
}

BENCHMARK_TEMPLATE(Insert, OursTree)->Name("tree_insert_boost/ours")->Apply(Sizes);
BENCHMARK_TEMPLATE(Insert, BoostTree)->Name("tree_insert_boost/peer")->Apply(Sizes);
BENCHMARK_TEMPLATE(Insert, OursTree)->Name("tree_insert_map/ours")->Apply(Sizes);
BENCHMARK_TEMPLATE(Insert, MapTree)->Name("tree_insert_map/peer")->Apply(Sizes);
BENCHMARK_TEMPLATE(Lookup, OursTree)->Name("tree_lookup_boost/ours")->Apply(Sizes);
BENCHMARK_TEMPLATE(Lookup, BoostTree)->Name("tree_lookup_boost/peer")->Apply(Sizes);
BENCHMARK_TEMPLATE(Lookup, OursTree)->Name("tree_lookup_map/ours")->Apply(Sizes);
BENCHMARK_TEMPLATE(Lookup, MapTree)->Name("tree_lookup_map/peer")->Apply(Sizes);

} // namespace
} // namespace pegeir::bench
