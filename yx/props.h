#pragma once

#include "yx/array.h"
#include "yx/string.h"

namespace yx {

/// An ordered list of pairs of name and value, as errors carry them.
class YX_API CProps : public CBase {
public:
    /// Appends a pair, also if the name is there already; returns this object, so calls chain.
    CProps& add(String const& name, String const& value);

    /// How many pairs there are.
    int getCount() const { return m_items.getSize(); }

    /// `index` is from 0 and below `getCount()`.
    String const& getName(int index) const { return m_items[index].first; }
    String const& getValue(int index) const { return m_items[index].second; }

    /// The value of the first pair of that name, null if there is none.
    String const* find(String const& name) const;

private:
    TArray<std::pair<String, String>> m_items;
};

} // namespace yx
