// For applications: a table from an unsigned 32-bit key to a value.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

template <class V>
class omi_UintTableIterator;

// A hash table. Its slots are a power of two in number, and at most half of them are taken. An
// entry stands in the first free slot from its key's own one on, so that no free slot lies between
// the two.
//
// Memory that cannot be had ends in std::bad_alloc and leaves the table as it was. No lock: one
// thread at a time.
template <class V>
class omi_UintTable {
public:
    // An empty table. It is copied, never moved: one without slots could not be looked at.
    omi_UintTable() = default;
    omi_UintTable(const omi_UintTable&) = default;
    omi_UintTable& operator=(const omi_UintTable&) = default;

    // Stores `value` under `key`, in place of the value that stood there.
    void Insert(unsigned int key, const V& value) {
        Slot* const slot = Find(key);
        if (slot != nullptr) {
            slot->value = value;
        } else if (2 * (m_size + 1) <= m_slots.size()) {
            Add(key, value);
        } else {
            omi_UintTable grown;
            grown.m_shift = m_shift - 1;
            grown.m_slots.resize(std::size_t{1} << (32 - grown.m_shift));
            for (const Slot& taken : m_slots) {
                if (taken.isTaken) {
                    grown.Add(taken.key, taken.value);
                }
            }
            grown.Add(key, value);  // a copy that fails leaves this table alone
            m_slots.swap(grown.m_slots);
            m_shift = grown.m_shift;
            m_size = grown.m_size;
        }
    }

    // The value under `key`, or a default-made one when there is none.
    V Lookup(unsigned int key) const {
        const Slot* const slot = Find(key);
        return slot == nullptr ? V() : slot->value;
    }

    // True when there is an entry under `key`.
    bool IsMember(unsigned int key) const { return Find(key) != nullptr; }

    // True when an entry was removed, false when there was none.
    bool Remove(unsigned int key) {
        Slot* free = Find(key);
        if (free == nullptr) {
            return false;
        }
        for (std::size_t i = After(Position(free)); m_slots[i].isTaken; i = After(i)) {
            Slot& slot = m_slots[i];
            if (Distance(Home(slot.key), i) >= Distance(Position(free), i)) {
                std::swap(*free, slot);
                free = &slot;
            }
        }
        *free = Slot();
        --m_size;
        return true;
    }

    // The number of entries.
    std::size_t Size() const { return m_size; }

private:
    friend class omi_UintTableIterator<V>;

    struct Slot {
        unsigned int key = 0;
        bool isTaken = false;
        V value = V();
    };

    // Keys at equal distances, as descriptors are, get slots far apart: the factor is 2^32 divided
    // by the golden ratio.
    std::size_t Home(unsigned int key) const { return key * 2654435769U >> m_shift; }
    std::size_t After(std::size_t position) const { return (position + 1) & (m_slots.size() - 1); }
    std::size_t Distance(std::size_t from, std::size_t to) const {
        return (to - from) & (m_slots.size() - 1);
    }
    std::size_t Position(const Slot* slot) const {
        return static_cast<std::size_t>(slot - m_slots.data());
    }

    // The slot of a key, or null.
    const Slot* Find(unsigned int key) const {
        const Slot* slot = &m_slots[Home(key)];
        while (slot->isTaken && slot->key != key) {
            slot = &m_slots[After(Position(slot))];
        }
        return slot->isTaken ? slot : nullptr;
    }
    Slot* Find(unsigned int key) { return const_cast<Slot*>(std::as_const(*this).Find(key)); }

    // Requires: there is no entry under the key, and room for one.
    void Add(unsigned int key, const V& value) {
        std::size_t i = Home(key);
        while (m_slots[i].isTaken) {
            i = After(i);
        }
        m_slots[i].value = value;  // first: copying it may fail
        m_slots[i].key = key;
        m_slots[i].isTaken = true;
        ++m_size;
    }

    int m_shift = 30;
    std::vector<Slot> m_slots{std::size_t{1} << (32 - m_shift)};
    std::size_t m_size = 0;
};

// Walks a table in ascending order of keys. It is positioned by First, and by First alone again
// after the table has changed. The table is not owned and outlives the iterator.
template <class V>
class omi_UintTableIterator {
public:
    // An iterator over `table`, without a position.
    explicit omi_UintTableIterator(const omi_UintTable<V>& table) : m_table(&table) {}

    // Moves to the first entry; may be called at any time. Takes memory for the order of the
    // entries: std::bad_alloc leaves the iterator without a position.
    void First() {
        m_position = 0;
        m_entries.clear();
        std::vector<const Slot*> entries;
        entries.reserve(m_table->Size());
        for (const Slot& slot : m_table->m_slots) {
            if (slot.isTaken) {
                entries.push_back(&slot);
            }
        }
        std::sort(entries.begin(), entries.end(),
                  [](const Slot* a, const Slot* b) { return a->key < b->key; });
        m_entries = std::move(entries);
    }

    // Requires: IsDone() is false.
    void Next() { ++m_position; }

    // True when the iterator has no position.
    bool IsDone() const { return m_position >= m_entries.size(); }

    // Requires: IsDone() is false.
    unsigned int CurrentKey() const { return m_entries[m_position]->key; }
    const V& CurrentValue() const { return m_entries[m_position]->value; }

private:
    using Slot = typename omi_UintTable<V>::Slot;

    const omi_UintTable<V>* m_table;
    std::vector<const Slot*> m_entries;  // in order
    std::size_t m_position = 0;
};
