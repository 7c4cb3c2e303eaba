#pragma once

#include "kelm/export.h"
#include "yx/base.h"

namespace kelm {

/// How files use their space, in bytes. A new record holds zeros.
class KELM_API CVMDKSpaceInfo : public yx::CBase {
public:
    /// What the stored grains hold when unpacked: whole grains.
    __int64 getPayloadSize() const { return m_payloadSize; }
    void setPayloadSize(__int64 sizeBytes) { m_payloadSize = sizeBytes; }

    /// What the slots of the stored grains take in the file.
    __int64 getPayloadSizeInFile() const { return m_payloadSizeInFile; }
    void setPayloadSizeInFile(__int64 sizeBytes) { m_payloadSizeInFile = sizeBytes; }

    /// The metadata area before the first grain.
    __int64 getHeaderSize() const { return m_headerSize; }
    void setHeaderSize(__int64 sizeBytes) { m_headerSize = sizeBytes; }

    /// All else in the file: abandoned slots, and the trail of a compressed extent.
    __int64 getDeadSpaceSize() const { return m_deadSpaceSize; }
    void setDeadSpaceSize(__int64 sizeBytes) { m_deadSpaceSize = sizeBytes; }

    /// Adds each size of `other` to the same size of this record.
    void addSpaceInfo(CVMDKSpaceInfo const& other);

private:
    __int64 m_payloadSize = 0;
    __int64 m_payloadSizeInFile = 0;
    __int64 m_headerSize = 0;
    __int64 m_deadSpaceSize = 0;
};

} // namespace kelm
