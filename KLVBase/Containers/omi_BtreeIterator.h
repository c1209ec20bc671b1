// For applications: walking an ordered map in either direction.
#pragma once

#include "mem_AllocationOperators.h"
#include "omi_Btree.h"

// One step of the way from the root of a map to the iterator's position. Owns neither the node nor
// the link below.
template <class K, class V>
class omi_BtreeNodeLink : public mem_AllocationOperators {
public:
    // A link for `node` above the link `next`.
    omi_BtreeNodeLink(omi_BtreeNode<K, V>* node, omi_BtreeNodeLink* next)
        : m_node(node), m_next(next) {}

    // The node of this step.
    omi_BtreeNode<K, V>* Node() const { return m_node; }

    // The link towards the root, or null for the root's own.
    omi_BtreeNodeLink* Next() const { return m_next; }

private:
    omi_BtreeNode<K, V>* m_node;
    omi_BtreeNodeLink* m_next;
};

// A position in a map. Nodes know no parent, so the iterator keeps the whole path from the root to
// its node on a stack of links, each an allocation of its own.
//
// It has no position until First or Last is called on a map that has entries, and none again after
// a step past either end. It does not notice changes of the map: after one, only First, Last,
// ClearStack and destruction are valid. The map is neither owned nor locked and outlives the
// iterator. std::bad_alloc passes through where a link is pushed; the position is then lost, and
// the same four are valid.
template <class K, class V>
class omi_BtreeIterator {
public:
    // An iterator over `tree`, without a position.
    explicit omi_BtreeIterator(const omi_Btree<K, V>& tree) : m_tree(&tree) {}
    ~omi_BtreeIterator() { ClearStack(); }

    omi_BtreeIterator(const omi_BtreeIterator&) = delete;
    omi_BtreeIterator& operator=(const omi_BtreeIterator&) = delete;

    // Moves to the smallest or the largest key; may be called at any time.
    void First();
    void Last();

    // Moves to the next larger or the next smaller key.
    // Requires: IsDone() is false.
    void Next();
    void Previous();

    // True when the iterator has no position.
    bool IsDone() const { return m_top == nullptr; }

    // Requires: IsDone() is false. A value may be changed through its reference.
    const K& CurrentKey() const { return m_top->Node()->m_key; }
    V& CurrentValue() const { return m_top->Node()->m_value; }

    // The stack of the path: adds a link for `node` on top, frees the top link if there is one, or
    // frees all links.
    void Push(omi_BtreeNode<K, V>* node);
    void Pop();
    void ClearStack();

    // Readable like the map's fields; changed by the operations above only.
    const omi_Btree<K, V>* m_tree;
    omi_BtreeNodeLink<K, V>* m_top = nullptr;  // owned, with all links below
};

// What a walk and its mirror image share, beside the class for the same reason as the map's steps.

// Pushes `node` and then child after child until there is none.
template <class Iterator, class Node>
void omi_BtreeDescend(Iterator& position, Node* node, Node* Node::*child) {
    for (; node != nullptr; node = node->*child) {
        position.Push(node);
    }
}

// Moves to the neighbour on the `ahead` side: the nearest node of the subtree there or, without
// one, the first node on the way up that was not reached from its `ahead` side.
template <class Iterator, class Node>
void omi_BtreeStep(Iterator& position, Node* Node::*ahead, Node* Node::*behind) {
    Node* node = position.m_top->Node();
    if (node->*ahead != nullptr) {
        omi_BtreeDescend(position, node->*ahead, behind);
        return;
    }
    position.Pop();
    while (position.m_top != nullptr && position.m_top->Node()->*ahead == node) {
        node = position.m_top->Node();
        position.Pop();
    }
}

template <class K, class V>
void omi_BtreeIterator<K, V>::First() {
    ClearStack();
    omi_BtreeDescend(*this, m_tree->m_root, &omi_BtreeNode<K, V>::m_left);
}

template <class K, class V>
void omi_BtreeIterator<K, V>::Last() {
    ClearStack();
    omi_BtreeDescend(*this, m_tree->m_root, &omi_BtreeNode<K, V>::m_right);
}

template <class K, class V>
void omi_BtreeIterator<K, V>::Next() {
    omi_BtreeStep(*this, &omi_BtreeNode<K, V>::m_right, &omi_BtreeNode<K, V>::m_left);
}

template <class K, class V>
void omi_BtreeIterator<K, V>::Previous() {
    omi_BtreeStep(*this, &omi_BtreeNode<K, V>::m_left, &omi_BtreeNode<K, V>::m_right);
}

template <class K, class V>
void omi_BtreeIterator<K, V>::Push(omi_BtreeNode<K, V>* node) {
    m_top = new omi_BtreeNodeLink<K, V>(node, m_top);
}

template <class K, class V>
void omi_BtreeIterator<K, V>::Pop() {
    if (m_top != nullptr) {
        omi_BtreeNodeLink<K, V>* const old = m_top;
        m_top = old->Next();
        delete old;
    }
}

template <class K, class V>
void omi_BtreeIterator<K, V>::ClearStack() {
    while (m_top != nullptr) {
        Pop();
    }
}
