#pragma once

#include "host/content/byte_source.h"
#include "host/disk/safe_disk.h"

namespace kelm::host {

/// The bytes of a disk, as far as its image goes.
class DiskBytes : public ByteSource {
public:
    /// `disk` must outlive the object, and have at least `sizeBytes` bytes.
    DiskBytes(SafeDisk& disk, __int64 sizeBytes);

    __int64 getSizeBytes() const override { return m_sizeBytes; }

    /// Errors are those of `SafeDisk::read`.
    void read(__int64 positionBytes, unsigned char* data, int bytes) override;

private:
    SafeDisk& m_disk;
    __int64 m_sizeBytes;
};

} // namespace kelm::host
