#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::tool {

/// Gives the request for a copy of a disk the facts about its image: time, source, host, and the
/// label unless the request has one.
void inheritRecord(CVMDKDescriptor& from, host::NewDisk& request);

} // namespace kelm::tool
