#pragma once

#include <vector>

#include "yx/base.h"

namespace yx {

/// A reference-counted array over a vector. Indices are not checked.
template <class T>
class TArray : public CBase {
public:
    /// How many items there are.
    int getSize() const { return static_cast<int>(m_items.size()); }
    bool isEmpty() const { return m_items.empty(); }

    /// The item at `index`, from 0 and below `getSize()`.
    T& operator[](int index) { return m_items[static_cast<std::size_t>(index)]; }
    T const& operator[](int index) const { return m_items[static_cast<std::size_t>(index)]; }

    /// Appends.
    void add(T item) { m_items.push_back(std::move(item)); }

    /// Inserts before the item at `index`; an index of `getSize()` appends.
    void insert(int index, T item) { m_items.insert(m_items.begin() + index, std::move(item)); }

    /// Removes the item at `index`.
    void remove(int index) { m_items.erase(m_items.begin() + index); }

    /// Removes all items.
    void clear() { m_items.clear(); }

    /// Iterators in order of the index.
    auto begin() { return m_items.begin(); }
    auto end() { return m_items.end(); }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

private:
    std::vector<T> m_items;
};

} // namespace yx
