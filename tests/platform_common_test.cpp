// What the platforms share, held against simple models: std::map for the tree, a text of lines
// for the black box.

#include <pegeir/sim.hpp>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace {

std::uint32_t Below(std::mt19937 &random, std::uint32_t limit) {
    return static_cast<std::uint32_t>(random()) % limit;
}

struct KeyNode {
    KAL_RBT_Node links;
    int key;
};

int KeyOf(const KAL_RBT_Node *node) {
    return reinterpret_cast<const KeyNode *>(node)->key;
}

// Returns the black nodes on every way down from node, or -1 if a rule of the tree is broken.
int BlackHeight(const KAL_RBT_Tree &tree, const KAL_RBT_Node *node, const KAL_RBT_Node *parent, int low,
                int high) {
    if (node == &tree.sentinel) {
        return 0;
    }
    const bool red = node->colour == KAL_RBT_RED;
    const int key = KeyOf(node);
    const int greater = BlackHeight(tree, node->child[0], node, key, high);
    const int lesser = BlackHeight(tree, node->child[1], node, low, key);
    const bool sound = node->parent == parent && !(red && parent->colour == KAL_RBT_RED);
    return sound && low < key && key < high && greater == lesser && greater >= 0 ? greater + !red : -1;
}

// The search is the user's, the balance the platform's.
TEST(PlatformTree, StaysBalancedAndCompleteUnderRandomChanges) {
    std::mt19937 random(4711);
    KAL_RBT_Tree tree = {&tree.sentinel, {nullptr, {nullptr, nullptr}, KAL_RBT_BLACK}, 0, 0};
    KAL_RBT_Node &end = tree.sentinel;
    std::map<int, KeyNode> model; // holds the nodes, so that a link left behind is a use after free
    for (int step = 0; step < 3000; ++step) {
        // Growing and shrinking in turn, so that the tree is also emptied.
        const auto key = static_cast<int>(Below(random, 300));
        const bool grow = Below(random, 100) < (step / 500 % 2 == 0 ? 80U : 20U);
        if (grow && !model.contains(key)) {
            KAL_RBT_Node &links = (model[key] = {{&end, {&end, &end}, KAL_RBT_RED}, key}).links;
            KAL_RBT_Node **place = &tree.root;
            while (*place != &end) {
                links.parent = *place;
                place = &(*place)->child[KeyOf(*place) < key ? 0 : 1];
            }
            *place = &links;
            KAL_RBT_InsertNodeFixup(&tree, &links);
        } else if (!grow && model.contains(key)) {
            KAL_RBT_RemoveNode(&tree, &model[key].links);
            model.erase(key);
        }
        std::set<int> walked;
        for (auto *node = KAL_RBT_FirstNode(&tree); node; node = KAL_RBT_NextNode(&tree, node)) {
            ASSERT_TRUE(model.contains(KeyOf(node)) && walked.insert(KeyOf(node)).second) << step;
        }
        ASSERT_TRUE(walked.size() == model.size() && tree.count == model.size()) << "step " << step;
        ASSERT_GE(BlackHeight(tree, tree.root, &end, -1, 300), 0) << "step " << step;
        ASSERT_TRUE(end.colour == KAL_RBT_BLACK && !end.parent && !end.child[0] && !end.child[1]);
    }
}

// What a box should hold, how much of its end is unread, and what is left of a line that was dropped while
// it was being read.
struct BoxModel {
    std::size_t size, unread = 0;
    std::string text = {}, rest = {};

    void Write(const std::string &lines) {
        text += lines;
        unread += lines.size();
        while (text.size() > size) {
            const std::size_t line = text.find('\n') + 1, left = text.size() - line;
            if (unread > left) {
                rest = unread < text.size() ? text.substr(text.size() - unread, unread - left) : rest;
                unread = left;
            }
            text.erase(0, line);
        }
        const bool tooLong = rest.size() > BLACK_BOX_LINE_SIZE;
        rest = tooLong ? rest.substr(0, BLACK_BOX_LINE_SIZE - 1) + '\n' : rest;
    }
    std::string Read(std::size_t count) {
        std::string taken = rest.substr(0, count);
        rest.erase(0, count);
        const std::string more = text.substr(text.size() - unread, count - taken.size());
        taken += more;
        unread -= more.size();
        if (taken.empty()) {
            unread = text.size();
            rest.clear();
        }
        return taken;
    }
};

TEST(PlatformBlackBox, HoldsAndReadsWholeLinesAsTheModelDoes) {
    pegeir::sim::World world;
    std::mt19937 random(815);
    for (int round = 0; round < 60; ++round) {
        const std::uint32_t longest = round % 2 == 0 ? 12 : 500;
        BoxModel model{round == 0 ? 0 : 1 + Below(random, 4 * longest)};
        void *box = CreateBlackBox(static_cast<std::uint32_t>(model.size), 9);
        auto *head = static_cast<BlackBoxHead *>(box);
        for (std::uint32_t step = 0; step < 400; ++step) {
            if (Below(random, 3) != 0) {
                std::string bytes, line;
                for (auto more = Below(random, 4) == 0 ? 1 + Below(random, 8) : 1; more != 0; --more) {
                    line = std::string(Below(random, longest), 'x') + std::to_string(10 * step + more) + '\n';
                    bytes += line;
                }
                const bool inBox = bytes.size() <= sizeof head->line;
                std::copy_n(bytes.begin(), inBox ? bytes.size() : 0, head->line);
                const auto length = static_cast<std::uint32_t>(bytes.size());
                const bool fits = line.size() <= model.size;
                ASSERT_EQ(WriteBlackBox(box, inBox ? head->line : bytes.data(), length),
                          fits ? std::int64_t{length} : -1);
                model.Write(fits ? bytes : "");
            } else {
                std::string text(Below(random, Below(random, 2) == 0 ? 20 : 2000), '?');
                const auto size = static_cast<std::uint32_t>(text.size());
                const std::int32_t count = ReadBlockFromBlackBox(box, text.data(), size);
                ASSERT_EQ(text.substr(0, static_cast<std::size_t>(count)), model.Read(size)) << step;
            }
            ASSERT_EQ(GetBlackBoxContentLength(box), static_cast<std::int32_t>(model.text.size()));
        }
        EXPECT_TRUE(WriteBlackBox(box, nullptr, 1) == -1 && ReadBlockFromBlackBox(box, nullptr, 1) == -1);
        DestroyBlackBox(box);
    }
    EXPECT_TRUE(world.Leaks().empty() && world.Violations().empty());
    EXPECT_EQ(CreateBlackBox(0x7FFFFFFF, 9), nullptr);
}

TEST(PlatformText, IsCutToFitAndMistakesWriteNothing) {
    using Case = std::tuple<std::size_t, int, const char *>;
    for (const auto &[size, result, expected] :
         {Case{8, 2, "42"}, Case{3, 2, "42"}, Case{2, 1, "4"}, Case{1, 0, ""}, Case{0, -1, "~"}}) {
        char text[8] = "~";
        EXPECT_EQ(snprintf_truncated_s(text, size, "%d", 42), result) << size;
        EXPECT_STREQ(text, expected);
    }
    char bytes[4] = "abc";
    EXPECT_TRUE(memcpy_s(bytes, 2, "xyz", 3) != 0 && memset_s(bytes, 2, 'x', 3) != 0);
    EXPECT_STREQ(bytes, "abc");
    EXPECT_EQ(memcpy_s(bytes, 2, "xy", 2) + memset_s(bytes, 1, 'z', 1), 0);
    EXPECT_STREQ(bytes, "zyc");
    EXPECT_TRUE(KAL_MemCmp("a\0b", "a\0c", 3) < 0 && KAL_StrCmp("b", "a") > 0);
}

} // namespace
