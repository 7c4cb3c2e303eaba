#pragma once

#include <vector>

#include "host/disk/disk_extent.h"
#include "host/disk/header_finding.h"
#include "kelm/format/descriptor.h"

namespace kelm::host {

/// What a descriptor says of one of its extents; see `ExpectedExtent`. `extent` is one of
/// `listDescribedExtents`, and `mainFile` the file of the descriptor.
ExpectedExtent expectExtent(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                            DiskExtent const& extent);

/// Whether a disk was made by this program: it has keys of ours, or such as only we write.
bool isDiskOfOurs(CVMDKDescriptor const& descriptor);

} // namespace kelm::host
