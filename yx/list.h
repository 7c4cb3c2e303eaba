#pragma once

#include <list>

#include "yx/base.h"

namespace yx {

/// A reference-counted doubly linked list. `front`, `back` and the pops need a list that is not
/// empty.
template <class T>
class TList : public CBase {
public:
    /// Adds or removes an item at one end.
    void pushBack(T item) { m_items.push_back(std::move(item)); }
    void pushFront(T item) { m_items.push_front(std::move(item)); }
    void popFront() { m_items.pop_front(); }
    void popBack() { m_items.pop_back(); }

    /// The first and the last item.
    T& front() { return m_items.front(); }
    T const& front() const { return m_items.front(); }
    T& back() { return m_items.back(); }
    T const& back() const { return m_items.back(); }

    /// How many items there are.
    int getSize() const { return static_cast<int>(m_items.size()); }
    bool isEmpty() const { return m_items.empty(); }

    /// Removes all items.
    void clear() { m_items.clear(); }

    /// Iterators from front to back.
    auto begin() { return m_items.begin(); }
    auto end() { return m_items.end(); }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

private:
    std::list<T> m_items;
};

} // namespace yx
