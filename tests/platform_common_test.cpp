// What the platforms share, held against simple models: std::set for the tree, a list of lines for
// the black box.

#include <pegeir/sim.hpp>

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <numeric>
#include <random>
#include <set>

namespace {

using Random = std::mt19937;

std::uint32_t Below(Random &random, std::uint32_t limit) {
    return static_cast<std::uint32_t>(random()) % limit;
}

struct KeyNode {
    KAL_RBT_Node links;
    int key;
};

// A tree as its user keeps it: the search is the user's, the balance the platform's.
struct KeyTree {
    KAL_RBT_Tree tree = {&tree.sentinel, {nullptr, {nullptr, nullptr}, KAL_RBT_BLACK}, 0, 0};
    std::vector<std::unique_ptr<KeyNode>> nodes = std::vector<std::unique_ptr<KeyNode>>(300);

    static int KeyOf(const KAL_RBT_Node *node) { return reinterpret_cast<const KeyNode *>(node)->key; }

    void Insert(int key) {
        auto &node = nodes.at(static_cast<std::size_t>(key));
        node = std::make_unique<KeyNode>(
            KeyNode{{&tree.sentinel, {&tree.sentinel, &tree.sentinel}, KAL_RBT_RED}, key});
        KAL_RBT_Node **place = &tree.root;
        while (*place != &tree.sentinel) {
            node->links.parent = *place;
            place = &(*place)->child[KeyOf(*place) < key ? 0 : 1];
        }
        *place = &node->links;
        KAL_RBT_InsertNodeFixup(&tree, &node->links);
    }
    void Remove(int key) {
        auto &node = nodes.at(static_cast<std::size_t>(key));
        KAL_RBT_RemoveNode(&tree, &node->links);
        node.reset(); // a link left behind is a use after free
    }

    // Returns the black nodes on every way down from node, or -1 if a rule of the tree is broken.
    int BlackHeight(const KAL_RBT_Node *node, const KAL_RBT_Node *parent, int low, int high) const {
        if (node == &tree.sentinel) {
            return 0;
        }
        const bool red = node->colour == KAL_RBT_RED;
        const int key = KeyOf(node);
        if (node->parent != parent || key <= low || key >= high || (red && parent->colour == KAL_RBT_RED)) {
            return -1;
        }
        const int greater = BlackHeight(node->child[0], node, key, high);
        const int lesser = BlackHeight(node->child[1], node, low, key);
        return greater != lesser || greater < 0 ? -1 : greater + (red ? 0 : 1);
    }
};

TEST(PlatformTree, StaysBalancedAndCompleteUnderRandomChanges) {
    Random random(4711);
    KeyTree keys;
    std::set<int> model;
    for (int step = 0; step < 3000; ++step) {
        // Growing and shrinking in turn, so that the tree is also emptied.
        const auto key = static_cast<int>(Below(random, 300));
        const bool grow = Below(random, 100) < (step / 500 % 2 == 0 ? 80U : 20U);
        if (grow && model.insert(key).second) {
            keys.Insert(key);
        } else if (!grow && model.erase(key) == 1) {
            keys.Remove(key);
        }
        std::multiset<int> walked;
        for (auto *node = KAL_RBT_FirstNode(&keys.tree); node != nullptr;
             node = KAL_RBT_NextNode(&keys.tree, node)) {
            walked.insert(KeyTree::KeyOf(node));
        }
        ASSERT_EQ(walked, std::multiset<int>(model.begin(), model.end())) << "step " << step;
        ASSERT_EQ(keys.tree.count, model.size());
        ASSERT_GE(keys.BlackHeight(keys.tree.root, &keys.tree.sentinel, -1, 300), 0) << "step " << step;
        const KAL_RBT_Node &end = keys.tree.sentinel;
        ASSERT_TRUE(end.colour == KAL_RBT_BLACK && !end.parent && !end.child[0] && !end.child[1]);
    }
    KAL_RBT_Tree never = {};
    EXPECT_EQ(KAL_RBT_FirstNode(&never), nullptr);
    EXPECT_EQ(KAL_RBT_NextNode(&never, nullptr), nullptr);
}

std::string Take(std::string &text, std::size_t count) {
    std::string taken = text.substr(0, count);
    text.erase(0, count);
    return taken;
}

// What a box should hold and what is left to its reader, as lines; the first unread one may be partial.
struct BoxModel {
    std::size_t size;
    std::deque<std::string> lines = {};
    std::deque<std::string> unread = {};
    std::string rest = {};

    std::size_t Length() const { return std::accumulate(lines.begin(), lines.end(), std::string()).size(); }
    bool Write(const std::vector<std::string> &fresh) {
        if (fresh.back().size() > size) {
            return false;
        }
        lines.insert(lines.end(), fresh.begin(), fresh.end());
        unread.insert(unread.end(), fresh.begin(), fresh.end());
        for (; Length() > size; lines.pop_front()) {
            if (unread.size() == lines.size()) {
                const bool begun = unread.front() != lines.front();
                rest = begun ? unread.front() : rest;
                unread.pop_front();
            }
        }
        if (rest.size() > BLACK_BOX_LINE_SIZE) {
            rest = rest.substr(0, BLACK_BOX_LINE_SIZE - 1) + '\n';
        }
        return true;
    }
    std::string Read(std::size_t count) {
        std::string text = Take(rest, count);
        while (text.size() < count && !unread.empty()) {
            text += Take(unread.front(), count - text.size());
            if (unread.front().empty()) {
                unread.pop_front();
            }
        }
        if (text.empty()) {
            unread = lines;
            rest.clear();
        }
        return text;
    }
};

TEST(PlatformBlackBox, HoldsAndReadsWholeLinesAsTheModelDoes) {
    pegeir::sim::World world;
    Random random(815);
    for (int round = 0; round < 60; ++round) {
        BoxModel model{round == 0 ? 0 : 1 + Below(random, round % 2 == 0 ? 60 : 1500)};
        void *box = CreateBlackBox(static_cast<std::uint32_t>(model.size), 9);
        ASSERT_NE(box, nullptr);
        auto *head = static_cast<BlackBoxHead *>(box);
        EXPECT_NE(head->usable, 0U);
        EXPECT_EQ(GetBlackBoxBufferLen(box), static_cast<std::int32_t>(model.size));
        for (int step = 0; step < 400; ++step) {
            if (Below(random, 3) != 0) {
                std::vector<std::string> lines(1 + (Below(random, 4) == 0 ? Below(random, 8) : 0));
                std::string bytes;
                for (auto &line : lines) {
                    line = std::string(Below(random, round % 2 == 0 ? 12 : 500),
                                       static_cast<char>('a' + Below(random, 26))) +
                           std::to_string(step) + '\n';
                    bytes += line;
                }
                const char *from = bytes.data();
                if (bytes.size() <= sizeof head->line) {
                    std::copy(bytes.begin(), bytes.end(), head->line);
                    from = head->line;
                }
                const auto length = static_cast<std::uint32_t>(bytes.size());
                ASSERT_EQ(WriteBlackBox(box, from, length),
                          model.Write(lines) ? static_cast<std::int32_t>(length) : -1);
            } else {
                std::string text(Below(random, Below(random, 2) == 0 ? 20 : 2000), '?');
                const std::int32_t count =
                    ReadBlockFromBlackBox(box, text.data(), static_cast<std::uint32_t>(text.size()));
                const std::string expected = model.Read(text.size());
                ASSERT_EQ(text.substr(0, static_cast<std::size_t>(count)), expected) << round << '/' << step;
            }
            ASSERT_EQ(GetBlackBoxContentLength(box), static_cast<std::int32_t>(model.Length()));
        }
        EXPECT_EQ(WriteBlackBox(box, nullptr, 1), -1);
        EXPECT_EQ(ReadBlockFromBlackBox(box, nullptr, 1), -1);
        DestroyBlackBox(box);
    }
    EXPECT_EQ(world.Leaks(), "");
    EXPECT_TRUE(world.Violations().empty());
    EXPECT_EQ(CreateBlackBox(0x7FFFFFFF, 9), nullptr);
}

TEST(PlatformText, IsCutToFitAndMistakesWriteNothing) {
    const struct {
        std::size_t size;
        int result;
        const char *text;
    } rows[] = {{8, 2, "42"}, {3, 2, "42"}, {2, 1, "4"}, {1, 0, ""}, {0, -1, "~"}};
    for (const auto &row : rows) {
        char text[8] = "~";
        EXPECT_EQ(snprintf_truncated_s(text, row.size, "%d", 42), row.result) << row.size;
        EXPECT_STREQ(text, row.text);
    }
    EXPECT_LT(snprintf_truncated_s(nullptr, 4, "%d", 42), 0);

    char bytes[4] = "abc";
    EXPECT_NE(memcpy_s(bytes, 2, "xyz", 3), 0);
    EXPECT_NE(memcpy_s(bytes, 4, nullptr, 0), 0);
    EXPECT_NE(memcpy_s(nullptr, 4, "xyz", 3), 0);
    EXPECT_NE(memset_s(bytes, 2, 'x', 3), 0);
    EXPECT_NE(memset_s(nullptr, 4, 'x', 3), 0);
    EXPECT_STREQ(bytes, "abc");
    EXPECT_EQ(memcpy_s(bytes, 2, "xy", 2), 0);
    EXPECT_EQ(memset_s(bytes, 1, 'z', 1), 0);
    EXPECT_STREQ(bytes, "zyc");
    EXPECT_LT(KAL_MemCmp("a\0b", "a\0c", 3), 0);
    EXPECT_EQ(KAL_StrCmp("-00:00", "-00:00"), 0);
    EXPECT_GT(KAL_StrCmp("b", "a"), 0);
}

} // namespace
