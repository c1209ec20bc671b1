// The ordered map: known shapes.
#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include "Faults.h"
#include "Support.h"

using Map = omi_Btree<int, KLVString>;

// A tree as key:depth, value, (left,right), "-" for no node; `keys` gets the keys.
static std::string Shape(const Map::Node* node, std::vector<int>* keys = nullptr) {
    if (node == nullptr) {
        return "-";
    }
    const std::string left = Shape(node->m_left, keys);
    keys != nullptr ? keys->push_back(node->m_key) : void();
    const std::string right = Shape(node->m_right, keys);
    return std::to_string(node->m_key) + ":" + std::to_string(node->m_maxDepth) +
           node->m_value.Text() +
           (left == "-" && right == "-" ? "" : "(" + left + "," + right + ")");
}

static std::vector<int> Walk(const Map& map, bool forward) {
    std::vector<int> keys;
    omi_BtreeIterator<int, KLVString> position(map);
    EXPECT_TRUE(position.IsDone());
    const int before = Blocks();
    forward ? position.Last() : position.First();  // left again for the other end
    for (forward ? position.First() : position.Last(); !position.IsDone();) {
        keys.push_back(position.CurrentKey());
        forward ? position.Next() : position.Previous();
        if (!position.IsDone()) {  // there, back and there again
            forward ? position.Previous() : position.Next();
            forward ? position.Next() : position.Previous();
        }
    }
    position.Last();
    position.ClearStack();
    position.Pop();
    EXPECT_TRUE(position.IsDone());
    EXPECT_EQ(before, Blocks()) << "the path is freed";
    return keys;
}

static bool Change(Map& map, int key, const KLVString* value) {
    return value != nullptr ? map.Insert(key, *value) : map.Remove(key);
}

// The same by the root's own operations, which leave rebalancing the root to their caller.
static bool ChangeByRoot(Map& map, int key, const KLVString* value) {
    Map::Node head(key, "");
    head.m_left = map.m_root;
    const bool changes =
        value != nullptr ? map.m_root->Insert(key, *value) : map.m_root->Remove(key, head);
    map.m_root = std::exchange(head.m_left, nullptr);
    map.m_size += !changes ? 0 : value != nullptr ? 1 : -1;
    return changes;
}

// Keys that wrap around as they are compared may be missed, and depths may be too large: which ones
// is told by the shapes, of which 250 in a row make one number.
TEST(OrderedMap, GrowsAndShrinksByItsOwnRulesAlsoWhereComparisonWraps) {
    std::mt19937 random;
    Map map;
    map.SetNullValue("none");
    std::vector<unsigned> shapes;
    for (int step = 0; step < 2000; ++step) {
        const bool insert = random() % 8 < (step / 500 % 2 == 0 ? 6 : 2);  // grows, shrinks, ...
        const bool byRoot = !map.IsEmpty() && random() % 4 == 0;
        const int drawn =
            (static_cast<int>(random() % 256) - 128) * (random() % 8 == 0 ? 1 << 24 : 1);
        const int key = byRoot && random() % 8 == 0 ? map.m_root->m_key : drawn;
        const KLVString value((" " + std::to_string(step)).c_str());
        const KLVString* const inserted = insert ? &value : nullptr;
        const bool changes = map.IsMember(key) != insert;
        ASSERT_EQ(changes, (byRoot ? ChangeByRoot : Change)(map, key, inserted));
        std::vector<int> keys;
        const std::string shape = Shape(map.m_root, &keys);
        step % 250 == 0 ? shapes.push_back(0) : void();
        for (const char each : shape) {
            shapes.back() = shapes.back() * 31 + static_cast<unsigned char>(each);
        }
        ASSERT_EQ(static_cast<int>(keys.size()), map.Size());
        ASSERT_EQ(map.IsEmpty() ? 0 : map.m_root->m_maxDepth, map.Depth());
        ASSERT_EQ(keys, Walk(map, true));
        std::reverse(keys.begin(), keys.end());
        ASSERT_EQ(keys, Walk(map, false));
    }
    EXPECT_EQ((std::vector{749015913U, 412910742U, 1712634771U, 884918411U, 885713100U, 3292792068U,
                           2934117567U, 2749495452U}),
              shapes);
}

TEST(OrderedMap, CopiesAreOnTheirOwn) {
    Map map, assigned;
    map.SetNullValue("none");
    for (int key = 0; key < 20; ++key) {
        map.Insert(key * 7 % 20, "");
    }
    const std::string shape = Shape(map.m_root);
    assigned.Insert(30, "");
    Map copy(map);
    assigned = copy = *&copy;  // itself among them
    const std::unique_ptr<Map> made(assigned.Copy());
    EXPECT_EQ(shape, Shape(made->m_root));
    EXPECT_EQ(20, made->Size());
    copy.Clear();
    EXPECT_EQ(0, copy.Size());
    EXPECT_EQ(KLVString("none"), copy.Get(1000));
    EXPECT_EQ(KLVString("none"), assigned.ConstGet(1000));
    EXPECT_EQ(KLVString(""), map.GetNullValue());
    while (!assigned.IsEmpty() && assigned.Remove(assigned.m_root->m_key)) {
    }
    EXPECT_EQ(0, assigned.Size());
    EXPECT_EQ(shape, Shape(map.m_root));
}

TEST(OrderedMap, NodeGivesWayToWhatIsLeft) {
    Map map;
    map.Insert(2, "");
    map.Insert(1, "");
    map.Insert(3, "");
    omi_BtreeIterator<int, KLVString> position(map);
    position.First();
    position.CurrentValue() = "in its place";
    EXPECT_STREQ("in its place", map.ConstGet(1).Text());
    Map::Node& root = *map.m_root;
    root.RemoveNode(root.m_right, nullptr);
    root.RemoveNode(root.m_left, nullptr);
    EXPECT_EQ("2:0", Shape(&root));
    root.RemoveNode(nullptr, new Map::Node(5, ""));
    EXPECT_EQ("2:1(-,5:0)", Shape(&root));
}

TEST(OrderedMap, ShortMemoryChangesNothing) {
    Map map, target;
    for (int key = 0; key < 20; ++key) {
        map.Insert(key * 7 % 20, "");
    }
    target.Insert(5, "");
    const auto show = [&] {
        return Shape(map.m_root) + Shape(target.m_root) +
               std::to_string(map.Size() + 100 * target.Size());
    };
    EXPECT_EQ(0, ShortMemoryChangesNothing([&] { map = *&map; }, show));
    EXPECT_EQ(20, ShortMemoryChangesNothing([&] { Map copy(map); }, show));
    EXPECT_EQ(21, ShortMemoryChangesNothing([&] { delete map.Copy(); }, show));
    EXPECT_EQ(20, ShortMemoryChangesNothing([&] { target = map; }, show));
    EXPECT_EQ(1, ShortMemoryChangesNothing([&] { map.Insert(20, ""); }, show));
    const auto walk = [&] { Walk(map, true), Walk(map, false); };
    EXPECT_LT(20, ShortMemoryChangesNothing(walk, show));
}
