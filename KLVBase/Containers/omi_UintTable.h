// For applications: a table from an unsigned 32-bit key to a value.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

template <class V>
class omi_UintTableIterator;

// Keeps its entries sorted by key in one run of memory. It is made for keys like descriptors, which
// the system hands out lowest first: a new largest key is appended, any other moves the entries
// behind it. A look-up is a binary search.
//
// Memory that cannot be had ends in std::bad_alloc and leaves the table as it was. No lock: one
// thread at a time.
template <class V>
class omi_UintTable {
public:
    // Stores `value` under `key`, in place of the value that stood there.
    void Insert(unsigned int key, const V& value) {
        const auto place = LowerBound(key);
        if (place != m_entries.end() && place->key == key) {
            m_entries[Position(place)].value = value;
        } else {
            m_entries.insert(place, Entry{key, value});
        }
    }

    // The value under `key`, or a default-made one when there is none.
    V Lookup(unsigned int key) const {
        const auto place = Find(key);
        return place == m_entries.end() ? V() : place->value;
    }

    // True when there is an entry under `key`.
    bool IsMember(unsigned int key) const { return Find(key) != m_entries.end(); }

    // True when an entry was removed, false when there was none.
    bool Remove(unsigned int key) {
        const auto place = Find(key);
        if (place == m_entries.end()) {
            return false;
        }
        m_entries.erase(place);
        return true;
    }

    // The number of entries.
    std::size_t Size() const { return m_entries.size(); }

private:
    friend class omi_UintTableIterator<V>;

    struct Entry {
        unsigned int key;
        V value;
    };
    using Place = typename std::vector<Entry>::const_iterator;

    Place LowerBound(unsigned int key) const {
        return std::lower_bound(m_entries.begin(), m_entries.end(), key,
                                [](const Entry& entry, unsigned int k) { return entry.key < k; });
    }
    Place Find(unsigned int key) const {
        const Place place = LowerBound(key);
        return place != m_entries.end() && place->key == key ? place : m_entries.end();
    }
    std::size_t Position(Place place) const {
        return static_cast<std::size_t>(place - m_entries.begin());
    }

    std::vector<Entry> m_entries;
};

// Walks a table in ascending order of keys. It is positioned by First, and by First alone again
// after the table has changed. The table is not owned and outlives the iterator.
template <class V>
class omi_UintTableIterator {
public:
    // An iterator over `table`, without a position.
    explicit omi_UintTableIterator(const omi_UintTable<V>& table)
        : m_table(&table), m_position(table.Size()) {}

    // Moves to the first entry; may be called at any time.
    void First() { m_position = 0; }

    // Requires: IsDone() is false.
    void Next() { ++m_position; }

    // True when the iterator has no position.
    bool IsDone() const { return m_position >= m_table->Size(); }

    // Requires: IsDone() is false.
    unsigned int CurrentKey() const { return m_table->m_entries[m_position].key; }
    const V& CurrentValue() const { return m_table->m_entries[m_position].value; }

private:
    const omi_UintTable<V>* m_table;
    std::size_t m_position;
};
