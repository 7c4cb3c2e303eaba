#pragma once

#include <optional>
#include <utility>

#include "host/system/rate_limit.h"
#include "yx/base.h"

namespace kelm::host {

/// Counts what a transfer reads and stores, and holds the reading to a rate. Serves the thread that
/// owns the disks.
class TransferMeter {
public:
    /// Bytes that are read have to wait for `limit` from now on.
    void setLimit(RateLimit limit) { m_limit = std::move(limit); }

    /// So many bytes have been read from an image, a disk or a file; holes are not. May wait, and
    /// throw `CancelledError`.
    void addRead(__int64 bytes) {
        m_readBytes += bytes;
        if (m_limit)
            m_limit->take(bytes);
    }

    /// So many bytes of content have been stored.
    void addStored(__int64 bytes) { m_storedBytes += bytes; }

    /// What has been read: bytes as they are stored, so those of compressed grains are fewer than
    /// their content has.
    __int64 getReadBytes() const { return m_readBytes; }

    /// What has been stored: bytes of the content, before compression.
    __int64 getStoredBytes() const { return m_storedBytes; }

private:
    std::optional<RateLimit> m_limit;
    __int64 m_readBytes = 0;
    __int64 m_storedBytes = 0;
};

} // namespace kelm::host
