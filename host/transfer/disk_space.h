#pragma once

#include "host/transfer/transfer.h"

namespace kelm::host {

/// How the files of a disk use their space: the figures of `CVMDKDisk::gatherSpaceInfo`, but with
/// progress, and the caller can cancel it. Reads all tables of the disk. Dead space is 0 in a file
/// whose tables claim more than it has. The disk's cursor stays.
CVMDKSpaceInfo gatherSpace(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host
