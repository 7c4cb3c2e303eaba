#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Makes every grain of a child disk its own and flushes. The link to the parent stays.
void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host
