#include "yx/props.h"

namespace yx {

CProps& CProps::add(String const& name, String const& value) {
    m_items.add({name, value});
    return *this;
}

String const* CProps::find(String const& name) const {
    for (auto const& item : m_items) {
        if (item.first == name)
            return &item.second;
    }
    return nullptr;
}

} // namespace yx
