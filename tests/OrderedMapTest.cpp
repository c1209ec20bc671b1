// The ordered map against a plain model of the same rules, and known shapes.
#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include "Faults.h"
#include "Support.h"

using Map = omi_Btree<int, KLVString>;

struct Model {
    using Tree = std::unique_ptr<Model>;

    // The difference of two keys, which wraps around.
    static int Order(int stored, int sought) {
        return static_cast<int>(static_cast<unsigned>(sought) - static_cast<unsigned>(stored));
    }

    void Measure() { m_maxDepth = std::max(Above(m_left), Above(m_right)); }
    static int Above(const Tree& tree) { return tree ? tree->m_maxDepth + 1 : 0; }

    static void Balance(Tree& tree) {
        // Here no node weighs as much as a leaf.
        const auto weight = [](const Tree& t) { return t ? t->m_maxDepth : 0; };
        const int lean = tree ? weight(tree->m_right) - weight(tree->m_left) : 0;
        if (std::abs(lean) > 1) {
            const auto heavy = lean > 0 ? &Model::m_right : &Model::m_left;
            const auto light = lean > 0 ? &Model::m_left : &Model::m_right;
            Tree head = std::move((*tree).*heavy);
            (*tree).*heavy = std::move((*head).*light);
            tree->Measure();
            (*head).*light = std::move(tree);
            head->Measure();
            tree = std::move(head);
        }
    }

    static void Unlink(Tree& tree) {
        if (!tree->m_left || !tree->m_right) {
            tree = std::move(tree->m_right ? tree->m_right : tree->m_left);
            return;
        }
        Model* above = nullptr;
        Tree* edge = &tree->m_right;
        for (; (*edge)->m_left; edge = &above->m_left) {
            above = edge->get();
        }
        Tree next = std::move(*edge);
        *edge = std::move(next->m_right);
        if (above != nullptr) {
            above->Measure();  // the nodes between keep a depth that may be too large
        }
        next->m_left = std::move(tree->m_left);
        next->m_right = std::move(tree->m_right);
        next->Measure();
        tree = std::move(next);
    }

    // Inserts the value or, without one, removes the key. True when that changed the tree.
    static bool Change(Tree& tree, int key, const KLVString* value) {
        const int order = tree ? Order(tree->m_key, key) : 0;
        if (order == 0) {
            const bool changes = (value == nullptr) == (tree != nullptr);
            if (changes && tree) {
                Unlink(tree);
            } else if (changes) {
                tree.reset(new Model{key, *value, 0, nullptr, nullptr});
            }
            return changes;
        }
        Tree& slot = order < 0 ? tree->m_left : tree->m_right;
        if (!Change(slot, key, value)) {
            return false;
        }
        Balance(slot);
        tree->Measure();
        return true;
    }

    int m_key;
    KLVString m_value;
    int m_maxDepth;
    Tree m_left, m_right;
};

// A map or a model as key:depth, value, (left,right), "-" for no node; `keys` gets the keys.
template <class Tree>
std::string Shape(const Tree& node, std::vector<int>* keys = nullptr) {
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

TEST(OrderedMap, FollowsTheModelAlsoWhereComparisonWraps) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Map map;
    map.SetNullValue("none");
    Model::Tree model;
    for (int step = 0; step < 2000; ++step) {
        const bool insert = random() % 8 < (step / 500 % 2 == 0 ? 6 : 2);  // grows, shrinks, ...
        const bool byRoot = !map.IsEmpty() && random() % 4 == 0;
        const int drawn =
            (static_cast<int>(random() % 256) - 128) * (random() % 8 == 0 ? 1 << 24 : 1);
        const int key = byRoot && random() % 8 == 0 ? map.m_root->m_key : drawn;
        const KLVString value((" " + std::to_string(step)).c_str());
        const KLVString* const inserted = insert ? &value : nullptr;
        const bool changes = Model::Change(model, key, inserted);
        if (changes && !byRoot) {
            Model::Balance(model);
        }
        ASSERT_EQ(insert != changes, map.IsMember(key));
        ASSERT_EQ(changes, (byRoot ? ChangeByRoot : Change)(map, key, inserted));
        std::vector<int> keys;
        const std::string shape = Shape(model, &keys);
        ASSERT_EQ(shape, Shape(map.m_root));
        ASSERT_EQ(static_cast<int>(keys.size()), map.Size());
        ASSERT_EQ(model ? model->m_maxDepth : 0, map.Depth());
        ASSERT_EQ(keys, Walk(map, true));
        std::reverse(keys.begin(), keys.end());
        ASSERT_EQ(keys, Walk(map, false));

        if (step % 100 == 0) {
            Map assigned, copy(map);
            assigned.Insert(key, value);
            assigned = copy = *&copy;  // itself among them
            const std::unique_ptr<Map> made(assigned.Copy());
            ASSERT_EQ(shape, Shape(made->m_root));
            ASSERT_EQ(map.Size(), made->Size());
            copy.Clear();
            EXPECT_EQ(0, copy.Size());
            EXPECT_EQ(KLVString("none"), copy.Get(1000));
            EXPECT_EQ(KLVString("none"), assigned.ConstGet(1000));
            EXPECT_EQ(KLVString(""), map.GetNullValue());
            while (!assigned.IsEmpty() && assigned.Remove(assigned.m_root->m_key)) {
            }
            ASSERT_EQ(shape, Shape(map.m_root));
        }
    }
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
