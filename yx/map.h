#pragma once

#include <map>

#include "yx/base.h"

namespace yx {

/// A reference-counted map in the order of `std::less<K>`. Keys of which neither precedes the
/// other are equivalent and share an entry.
template <class K, class V>
class TMap : public CBase {
public:
    /// The value of an equivalent key; a default-made one is inserted if there is none.
    V& operator[](K const& key) { return m_items[key]; }

    /// The entry of an equivalent key, `end()` if there is none.
    auto find(K const& key) { return m_items.find(key); }
    auto find(K const& key) const { return m_items.find(key); }

    /// How many entries there are.
    int getSize() const { return static_cast<int>(m_items.size()); }
    bool isEmpty() const { return m_items.empty(); }

    /// Removes the entry of an equivalent key, if there is one.
    void remove(K const& key) { m_items.erase(key); }

    /// Removes all entries.
    void clear() { m_items.clear(); }

    /// Iterators over pairs of key and value, in key order.
    auto begin() { return m_items.begin(); }
    auto end() { return m_items.end(); }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

private:
    std::map<K, V> m_items;
};

} // namespace yx
