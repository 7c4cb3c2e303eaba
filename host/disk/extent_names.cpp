#include "host/disk/extent_names.h"

namespace kelm::host {

bool isExtentName(yx::CURI const& main, yx::CURI const& extent) {
    wxString digits;
    wxString const prefix = main.getTitle().wx() + "-s";
    if (extent.getParent() != main.getParent() || extent.getExtension() != main.getExtension() ||
        !extent.getTitle().wx().StartsWith(prefix, &digits))
        return false;
    return !digits.empty() && digits.find_first_not_of("0123456789") == wxString::npos;
}

} // namespace kelm::host
