// For applications and the library's own sources: an ordered map.
//
// Invariants:
// - A walk from left to right meets the keys in the order of BtreeCompare, each key once.
// - m_maxDepth is the height that its node was last given. Removal leaves some depths too large on
//   purpose; they are corrected when the node's own subtree changes next.
// - No lock: one thread at a time.
#pragma once

#include <algorithm>

#include "KLVString.h"
#include "mem_AllocationOperators.h"

// The order of the keys, called with the key that a node holds and the key that is sought. 0 means
// the same key, a negative result leads to the left, a positive one to the right.
//
// The difference wraps around: keys more than 2^31 - 1 apart compare the wrong way round. Integer
// keys of one map lie closer together, or an entry may not be found again, or be inserted twice.
inline int BtreeCompare(const int& a, const int& b) {
    return static_cast<int>(static_cast<unsigned int>(b) - static_cast<unsigned int>(a));
}

// The same for texts, in the order of KLVString::Compare.
inline int BtreeCompare(const KLVString& a, const KLVString& b) { return b.Compare(a); }

// One entry of an omi_Btree: a single allocation that holds key and value and owns its children.
template <class K, class V>
class omi_BtreeNode : public mem_AllocationOperators {
public:
    // A node without children. Throws what copying the key or the value throws.
    omi_BtreeNode(const K& key, const V& value);

    // Copies the whole subtree, with its shape and its depths. Throws std::bad_alloc, or what
    // copying a key or a value throws, and leaves nothing behind.
    omi_BtreeNode(const omi_BtreeNode& other);

    omi_BtreeNode& operator=(const omi_BtreeNode&) = delete;

    // Destroys the left subtree, then the right one, then key and value.
    ~omi_BtreeNode();

    // The node that holds `key` in this subtree, or null.
    omi_BtreeNode* Find(const K& key) const;

    // Adds an entry below this node and rebalances the path to it. False, with nothing changed,
    // when the key is there already. Throws std::bad_alloc with nothing changed.
    bool Insert(const K& key, const V& value);

    // Removes `key` from this subtree; `parent` holds this node as a child. False when the key is
    // not there. The caller rebalances this node's slot.
    bool Remove(const K& key, omi_BtreeNode& parent);

    // One rebalancing step: a single rotation when the heights of the children differ by more than
    // one, a missing child counting like a leaf. There is no double rotation, so a zig-zag stays as
    // tall as it was. Returns the node that now heads the subtree, for the caller to store, or null
    // when nothing was done.
    omi_BtreeNode* Balance();

    // Takes the depth from the children: 0 without any, otherwise one more than the largest.
    void SetMaxDepth();

    // The height that this node was last given, in edges.
    int MaxDepth() const { return m_maxDepth; }

    // Puts `newChild` into the slot of `oldChild`, destroys `oldChild` with what it still holds,
    // and sets the depth. The right slot is meant when it holds `oldChild`, otherwise the left one.
    void RemoveNode(omi_BtreeNode* oldChild, omi_BtreeNode* newChild);

    // The key and the value, in place.
    const K& ConstGetKey() const { return m_key; }
    V& GetValue() { return m_value; }
    const V& ConstGetValue() const { return m_value; }

    // Where a key goes that compares as `order` with this node's.
    omi_BtreeNode*& Slot(int order) { return order < 0 ? m_left : m_right; }

    // Readable, so that the map, its iterator and checks of the structure can reach them; changed
    // by the operations above only.
    V m_value;
    K m_key;
    omi_BtreeNode* m_left = nullptr;   // owned, keys ordered before m_key
    omi_BtreeNode* m_right = nullptr;  // owned, keys ordered after m_key
    int m_maxDepth = 0;                // in edges
};

// A map from K to V: a binary search tree kept roughly balanced by single rotations, one allocation
// an entry. Look-up is a loop; insertion, removal, copying and destruction recurse once per level.
//
// A value that is a pointer is not owned. std::bad_alloc passes through and leaves the map with the
// entries that it had.
template <class K, class V>
class omi_Btree : public mem_AllocationOperators {
public:
    // The entries that the map is made of.
    using Node = omi_BtreeNode<K, V>;

    // An empty map whose null value is a default-made one.
    omi_Btree() : m_nullValue(GetNullValue()) {}

    // The copy has the same shape and depths: nothing is inserted anew.
    omi_Btree(const omi_Btree& other);
    omi_Btree& operator=(const omi_Btree& other);
    ~omi_Btree();

    // A copy of the map on the heap, which the caller deletes.
    omi_Btree* Copy() const { return new omi_Btree(*this); }

    // True when an entry was added. False when the key is there already: its value stays.
    bool Insert(const K& key, const V& value);

    // True when the entry was there and is gone.
    bool Remove(const K& key);

    // True when there is an entry under `key`.
    bool IsMember(const K& key) const;

    // The value under `key`, or the null value of this map when there is none; nothing is inserted.
    // The reference is valid until the entry is removed or the map destroyed.
    V& Get(const K& key);
    const V& ConstGet(const K& key) const;

    // A default-made value, whatever SetNullValue was given.
    V GetNullValue() { return V(); }

    // Sets what Get and ConstGet hand back for an absent key.
    void SetNullValue(const V& value) { m_nullValue = value; }

    // Removes all entries and keeps the null value.
    void Clear();

    // The number of entries, and whether there is none.
    int Size() const { return m_size; }
    bool IsEmpty() const { return m_size == 0; }

    // The height of the tree in edges: 0 for an empty map and for one entry alike.
    int Depth() { return m_root == nullptr ? 0 : m_root->MaxDepth(); }

    // Readable like the node's; changed by the operations above only.
    Node* m_root = nullptr;  // owned
    int m_size = 0;
    V m_nullValue;
};

// What node and map do alike, on the slot that holds a subtree. These are no members: the members
// of a map that a library exports are part of its binary interface, private ones as well.

// The depth of a child that may be missing, as SetMaxDepth counts it.
template <class Node>
int omi_BtreeDepth(const Node* child) {
    return child == nullptr ? -1 : child->m_maxDepth;
}

// The node that holds `key` in the subtree headed by `node`, or null.
template <class Node, class K>
inline Node* omi_BtreeFind(Node* node, const K& key) {
    while (node != nullptr) {
        const int order = BtreeCompare(node->m_key, key);
        if (order == 0) {
            break;
        }
        node = node->Slot(order);
    }
    return node;
}

// A single rotation: the child of `node` on the `heavy` side takes its place and is returned.
template <class Node>
inline Node* omi_BtreeRotate(Node& node, Node* Node::*heavy, Node* Node::*light) {
    Node* const head = node.*heavy;
    node.*heavy = head->*light;
    head->*light = &node;
    node.SetMaxDepth();
    head->SetMaxDepth();
    return head;
}

// One rebalancing step for a node with children of these depths: the new head, or null when nothing
// was done.
template <class Node>
inline Node* omi_BtreeBalance(Node& node, int left, int right) {
    const int lean = std::max(right, 0) - std::max(left, 0);
    if (lean > 1) {
        return omi_BtreeRotate(node, &Node::m_right, &Node::m_left);
    }
    if (lean < -1) {
        return omi_BtreeRotate(node, &Node::m_left, &Node::m_right);
    }
    return nullptr;
}

// SetMaxDepth, then Balance, for the node in a slot, with one look at its children.
template <class Node>
inline void omi_BtreeRebalanceAt(Node*& slot) {
    Node& node = *slot;
    const int left = omi_BtreeDepth(node.m_left);
    const int right = omi_BtreeDepth(node.m_right);
    node.m_maxDepth = std::max(left, right) + 1;
    if (Node* const head = omi_BtreeBalance(node, left, right)) {
        slot = head;
    }
}

// The slot on the way to a key that compares as `order` with the node's. The depth of the child in
// the other slot is needed on the way back, and is fetched from memory meanwhile.
template <class Node>
inline Node*& omi_BtreeStepDown(Node& node, int order) {
    __builtin_prefetch(node.Slot(~order));
    return node.Slot(order);
}

// Inserts into the subtree in a slot, which may be empty, and rebalances it up to its head.
template <class Node, class K, class V>
inline bool omi_BtreeInsertAt(Node*& slot, const K& key, const V& value) {
    Node* const node = slot;
    if (node == nullptr) {
        slot = new Node(key, value);
        return true;
    }
    const int order = BtreeCompare(node->m_key, key);
    if (order == 0 || !omi_BtreeInsertAt(omi_BtreeStepDown(*node, order), key, value)) {
        return false;
    }
    omi_BtreeRebalanceAt(slot);
    return true;
}

// Takes the children of `node` away and returns the subtree that stands in for it: the only child,
// or with two the leftmost node of the right subtree put at the head of both. Only that node and
// the one it hung from get fresh depths; those between keep theirs, even where too large.
template <class Node>
Node* omi_BtreeDetachReplacement(Node& node) {
    Node* replacement = node.m_right;
    if (replacement == nullptr) {
        replacement = node.m_left;
    } else if (node.m_left != nullptr) {
        Node* above = &node;
        while (replacement->m_left != nullptr) {
            above = replacement;
            replacement = replacement->m_left;
        }
        if (above != &node) {
            above->m_left = replacement->m_right;
            replacement->m_right = node.m_right;
            above->SetMaxDepth();
        }
        replacement->m_left = node.m_left;
        replacement->SetMaxDepth();
    }
    node.m_left = nullptr;
    node.m_right = nullptr;
    return replacement;
}

// Puts what stands in for the node in a slot there, rebalances that, and destroys the node.
template <class Node>
void omi_BtreeDeleteAt(Node*& slot) {
    Node* const node = slot;
    slot = omi_BtreeDetachReplacement(*node);
    delete node;
    Node* const rotated = slot == nullptr ? nullptr : slot->Balance();
    slot = rotated == nullptr ? slot : rotated;
}

// Removes from the subtree in a slot, which may be empty before or afterwards, and rebalances it up
// to its head.
template <class Node, class K>
inline bool omi_BtreeRemoveAt(Node*& slot, const K& key) {
    Node* const node = slot;
    if (node == nullptr) {
        return false;
    }
    const int order = BtreeCompare(node->m_key, key);
    if (order == 0) {
        omi_BtreeDeleteAt(slot);
        return true;
    }
    if (!omi_BtreeRemoveAt(omi_BtreeStepDown(*node, order), key)) {
        return false;
    }
    omi_BtreeRebalanceAt(slot);
    return true;
}

template <class K, class V>
omi_BtreeNode<K, V>::omi_BtreeNode(const K& key, const V& value) : m_value(value), m_key(key) {}

template <class K, class V>
omi_BtreeNode<K, V>::omi_BtreeNode(const omi_BtreeNode& other)
    : omi_BtreeNode(other.m_key, other.m_value) {
    // The delegated constructor has run: should a copy below throw, the destructor frees the rest.
    m_maxDepth = other.m_maxDepth;
    if (other.m_left != nullptr) {
        m_left = new omi_BtreeNode(*other.m_left);
    }
    if (other.m_right != nullptr) {
        m_right = new omi_BtreeNode(*other.m_right);
    }
}

template <class K, class V>
omi_BtreeNode<K, V>::~omi_BtreeNode() {
    delete m_left;
    delete m_right;
}

template <class K, class V>
omi_BtreeNode<K, V>* omi_BtreeNode<K, V>::Find(const K& key) const {
    return omi_BtreeFind(const_cast<omi_BtreeNode*>(this), key);
}

template <class K, class V>
bool omi_BtreeNode<K, V>::Insert(const K& key, const V& value) {
    const int order = BtreeCompare(m_key, key);
    if (order == 0 || !omi_BtreeInsertAt(Slot(order), key, value)) {
        return false;
    }
    SetMaxDepth();
    return true;
}

template <class K, class V>
bool omi_BtreeNode<K, V>::Remove(const K& key, omi_BtreeNode& parent) {
    const int order = BtreeCompare(m_key, key);
    if (order == 0) {
        parent.RemoveNode(this, omi_BtreeDetachReplacement(*this));
        return true;
    }
    if (!omi_BtreeRemoveAt(Slot(order), key)) {
        return false;
    }
    SetMaxDepth();
    return true;
}

template <class K, class V>
omi_BtreeNode<K, V>* omi_BtreeNode<K, V>::Balance() {
    return omi_BtreeBalance(*this, omi_BtreeDepth(m_left), omi_BtreeDepth(m_right));
}

template <class K, class V>
inline void omi_BtreeNode<K, V>::SetMaxDepth() {
    m_maxDepth = std::max(omi_BtreeDepth(m_left), omi_BtreeDepth(m_right)) + 1;
}

template <class K, class V>
void omi_BtreeNode<K, V>::RemoveNode(omi_BtreeNode* oldChild, omi_BtreeNode* newChild) {
    omi_BtreeNode*& slot = m_right == oldChild ? m_right : m_left;
    slot = newChild;
    delete oldChild;
    SetMaxDepth();
}

template <class K, class V>
omi_Btree<K, V>::omi_Btree(const omi_Btree& other)
    : m_root(nullptr), m_size(other.m_size), m_nullValue(other.m_nullValue) {
    if (other.m_root != nullptr) {
        m_root = new Node(*other.m_root);
    }
}

template <class K, class V>
omi_Btree<K, V>& omi_Btree<K, V>::operator=(const omi_Btree& other) {
    if (this == &other) {
        return *this;
    }
    Node* const copy = other.m_root == nullptr ? nullptr : new Node(*other.m_root);
    delete m_root;
    m_root = copy;
    m_size = other.m_size;
    m_nullValue = other.m_nullValue;
    return *this;
}

template <class K, class V>
omi_Btree<K, V>::~omi_Btree() {
    delete m_root;
}

template <class K, class V>
bool omi_Btree<K, V>::Insert(const K& key, const V& value) {
    const bool added = omi_BtreeInsertAt(m_root, key, value);
    m_size += added ? 1 : 0;
    return added;
}

template <class K, class V>
bool omi_Btree<K, V>::Remove(const K& key) {
    const bool removed = omi_BtreeRemoveAt(m_root, key);
    m_size -= removed ? 1 : 0;
    return removed;
}

template <class K, class V>
inline bool omi_Btree<K, V>::IsMember(const K& key) const {
    return omi_BtreeFind(m_root, key) != nullptr;
}

template <class K, class V>
inline V& omi_Btree<K, V>::Get(const K& key) {
    Node* const node = omi_BtreeFind(m_root, key);
    return node == nullptr ? m_nullValue : node->m_value;
}

template <class K, class V>
inline const V& omi_Btree<K, V>::ConstGet(const K& key) const {
    const Node* const node = omi_BtreeFind(m_root, key);
    return node == nullptr ? m_nullValue : node->m_value;
}

template <class K, class V>
void omi_Btree<K, V>::Clear() {
    delete m_root;
    m_root = nullptr;
    m_size = 0;
}
