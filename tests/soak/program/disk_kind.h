#pragma once

#include <vector>

#include "host/disk/safe_disk.h"

namespace soak {

struct DiskKind {
    char const* name;
    bool compressed = false;
    char const* password = "";
    __int64 fileSizeLimitBytes = -1;
    bool createExtentFilesOnDemand = false;
    bool hasParent = false;
};

/// Every kind of disk.
std::vector<DiskKind> const& allDiskKinds();

/// What to ask for to get a disk of that kind, without a parent.
kelm::host::NewDisk toRequest(DiskKind const& kind);

} // namespace soak
