// For applications: a table from a signed 32-bit key to a value.
#pragma once

#include "omi_UintTable.h"

template <class V>
class omi_IntTableIterator;

// Two unsigned tables: one holds the negative keys by their magnitude, the other the rest. Failure
// and locking are those of omi_UintTable.
template <class V>
class omi_IntTable {
public:
    // Stores `value` under `key`, in place of the value that stood there.
    void Insert(int key, const V& value) { Half(key).Insert(Magnitude(key), value); }

    // The value under `key`, or a default-made one when there is none.
    V Lookup(int key) const { return Half(key).Lookup(Magnitude(key)); }

    // True when there is an entry under `key`.
    bool IsMember(int key) const { return Half(key).IsMember(Magnitude(key)); }

    // True when an entry was removed, false when there was none.
    bool Remove(int key) { return Half(key).Remove(Magnitude(key)); }

    // The number of entries.
    std::size_t Size() const { return m_rest.Size() + m_negative.Size(); }

private:
    friend class omi_IntTableIterator<V>;

    // Negated as an unsigned value, since the smallest int has no positive counterpart.
    static unsigned int Magnitude(int key) {
        const unsigned int bits = static_cast<unsigned int>(key);
        return key < 0 ? 0U - bits : bits;
    }
    omi_UintTable<V>& Half(int key) { return key < 0 ? m_negative : m_rest; }
    const omi_UintTable<V>& Half(int key) const { return key < 0 ? m_negative : m_rest; }

    omi_UintTable<V> m_rest;
    omi_UintTable<V> m_negative;
};

// Walks a table: 0 and the positive keys in ascending order, then the negative ones from -1
// downwards. It is positioned by First, and by First alone again after the table has changed. The
// table is not owned and outlives the iterator.
template <class V>
class omi_IntTableIterator {
public:
    // An iterator over `table`, without a position.
    explicit omi_IntTableIterator(const omi_IntTable<V>& table)
        : m_rest(table.m_rest), m_negative(table.m_negative) {}

    // Moves to the first entry; may be called at any time.
    void First() {
        m_rest.First();
        m_negative.First();
    }

    // Requires: IsDone() is false.
    void Next() {
        if (InRest()) {
            m_rest.Next();
        } else {
            m_negative.Next();
        }
    }

    // True when the iterator has no position.
    bool IsDone() const { return !InRest() && m_negative.IsDone(); }

    // Requires: IsDone() is false.
    int CurrentKey() const {
        return static_cast<int>(InRest() ? m_rest.CurrentKey() : 0U - m_negative.CurrentKey());
    }
    const V& CurrentValue() const {
        return InRest() ? m_rest.CurrentValue() : m_negative.CurrentValue();
    }

private:
    bool InRest() const { return !m_rest.IsDone(); }

    omi_UintTableIterator<V> m_rest;
    omi_UintTableIterator<V> m_negative;
};
