#pragma once

#include <optional>

#include "host/disk/safe_disk.h"
#include "host/transfer/content_reader.h"
#include "host/transfer/grains_ahead.h"

namespace kelm::host {

/// The content of a disk up to its exact size, for a comparison. The disk must outlive the reader,
/// and not change while it reads.
/// Grains of a compressed disk are decoded ahead, by a thread for each core.
class DiskContentReader : public ContentReader {
public:
    /// Starts at the disk's first byte. Errors are those of `beginWholeReading`, which `cancel` may
    /// end.
    explicit DiskContentReader(SafeDisk& disk, CancelFlag const* cancel = nullptr);

    __int64 getLength() const override { return m_lengthBytes; }
    int readNext(unsigned char* buffer, int bytes, bool& isZero) override;
    __int64 countZeros(__int64 maxBytes) override;
    void skipZeros(__int64 bytes) override;

private:
    void readAhead(unsigned char* buffer, int bytes);

    SafeDisk& m_disk;
    __int64 m_lengthBytes = 0;
    __int64 m_positionBytes = 0;

    /// Empty where there is nothing to decode.
    std::optional<GrainsAhead> m_ahead;
};

} // namespace kelm::host
