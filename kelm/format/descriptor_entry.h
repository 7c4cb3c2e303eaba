#pragma once

#include "kelm/export.h"
#include "yx/string.h"

namespace kelm {

/// One line of a descriptor.
class KELM_API CVMDKDescriptorEntry : public yx::CBase {
public:
    /// The text of the line, without its line end.
    virtual yx::String toString() = 0;

    /// A new independent copy.
    virtual yx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const = 0;
};

} // namespace kelm
