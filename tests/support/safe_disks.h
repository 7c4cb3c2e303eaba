#pragma once

#include "host/disk/safe_disk.h"
#include "tests/support/disk_fixture.h"

namespace test_support {

// What tests of disks that are used through `SafeDisk` share.

using kelm::host::FileGuard;
using kelm::host::NewDisk;
using kelm::host::SafeDisk;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

/// What to ask for to get a disk of that kind, without a parent.
inline NewDisk requestFor(DiskKind const& kind, __int64 sizeBytes = kSmallestDiskBytes) {
    NewDisk request;
    request.sizeBytes = sizeBytes;
    request.password = kind.password;
    request.compressed = kind.compressed;
    request.compressionLevel = 1;
    request.fileSizeLimitBytes = kind.fileSizeLimit;
    request.createExtentFilesOnDemand = kind.onDemand;
    return request;
}

inline void writeGrain(SafeDisk& disk, int grain, Bytes const& content) {
    disk.write(grain * kGrainBytes, content.data(), static_cast<int>(content.size()));
}

inline Bytes readGrain(SafeDisk& disk, int grain) {
    Bytes content(kGrainBytes);
    disk.read(grain * kGrainBytes, content.data(), static_cast<int>(kGrainBytes));
    return content;
}

} // namespace test_support
