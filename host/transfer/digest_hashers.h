#pragma once

#include <memory>
#include <vector>

#include "host/digest/digest_keys.h"
#include "host/disk/safe_disk.h"

namespace kelm::host {

/// The hashers of a group of workers: one for each, since a hasher serves one thread.
class DigestHashers {
public:
    /// Makes `workerCount` hashers for grains of `disk`, with its keys; neither need outlive the
    /// object.
    DigestHashers(DigestKeys const& keys, SafeDisk& disk, int workerCount);

    /// The digest of a plain grain of the disk. What it lacks of the grain counts as zeros, and what
    /// lies behind the end of the disk counts not at all. For the thread of that worker alone.
    Digest hash(__int64 grainIndex, yx::TBuffer<unsigned char> const& plain, int worker);

private:
    std::vector<std::unique_ptr<GrainHasher>> m_hashers;
    __int64 m_grainSizeBytes;
    __int64 m_diskSizeBytes;
};

} // namespace kelm::host
