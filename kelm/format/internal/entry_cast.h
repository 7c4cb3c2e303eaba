#pragma once

#include <typeinfo>

#include "kelm/format/descriptor.h"

namespace kelm::detail {

/// As `yx::cast<Wanted>`, but without a reference to the object, and without questions about the
/// lines that descriptors are made of: nearly all are of the very class that is wanted, of the
/// other one, or generic, and a text may have thousands. An object of just these classes allows
/// every cast.
template <class Wanted, class Other>
Wanted* castEntry(yx::P<CVMDKDescriptorEntry> const& line) {
    if (!line)
        return nullptr;
    CVMDKDescriptorEntry& entry = *line;
    std::type_info const* const type = &typeid(entry);
    if (type == &typeid(Wanted))
        return static_cast<Wanted*>(line.get());
    bool const isAnother =
        type == &typeid(Other) || type == &typeid(CVMDKDescriptor::CGenericEntry);
    return isAnother ? nullptr : yx::cast<Wanted>(line).get();
}

inline CVMDKExtentInfo* castToExtent(yx::P<CVMDKDescriptorEntry> const& line) {
    return castEntry<CVMDKExtentInfo, CVMDKDescriptor::CNameValueEntry>(line);
}

inline CVMDKDescriptor::CNameValueEntry* castToNameValue(yx::P<CVMDKDescriptorEntry> const& line) {
    return castEntry<CVMDKDescriptor::CNameValueEntry, CVMDKExtentInfo>(line);
}

} // namespace kelm::detail
