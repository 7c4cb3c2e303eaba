#include <algorithm>
#include <cassert>

#include "kelm/disk/disk.h"
#include "kelm/extent/internal/grain_position.h"
#include "kelm/extent/on_demand_extent_file.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm {

namespace {

/// Puts a disk's cursor back when a walk over the disk ends, whichever way.
class CursorRestorer {
public:
    explicit CursorRestorer(CVMDKDisk& disk) : m_disk(disk), m_position(disk.getPosition()) {}
    CursorRestorer(CursorRestorer const&) = delete;
    CursorRestorer& operator=(CursorRestorer const&) = delete;
    // The position was the disk's own, so the seek cannot refuse it.
    ~CursorRestorer() { m_disk.seek(m_position); }

private:
    CVMDKDisk& m_disk;
    __int64 m_position;
};

} // namespace

yx::CProps CVMDKDisk::mainFileProps() const {
    return yx::CProps().add("mainFileURI", m_mainFileURI.toString(true));
}

void CVMDKDisk::verifyWriteAccess(char const* function) const {
    if (m_access != yx::IIOStream::ReadWrite) {
        throw yx::CError(yx::String("Internal error: CVMDKDisk::") + function +
                             " was called, but the disk was not opened for writing.",
                         "", -1, yx::CProps(), nullptr);
    }
}

void CVMDKDisk::leaveCurrentExtentIfOutside() {
    if (!m_currentExtent)
        return;
    bool const inside = m_position >= m_currentExtentStartBytes &&
                        m_position < m_currentExtentStartBytes + m_currentExtentSizeBytes;
    if (inside)
        return;
    // Deliberate: whatever the disk's access, unlike `flushChanges`; the extent knows its own.
    m_currentExtent->flushChanges();
    m_currentExtent.reset();
    m_currentExtentURI = yx::CURI();
}

void CVMDKDisk::openExtentUnderCursor() {
    // Only a reader may go without a lock.
    assert(m_lockFile || m_access == yx::IIOStream::ReadOnly);
    assert(m_position >= 0 && m_position <= m_sizeBytes);
    auto const found = m_extentMap.find(CExtentKey{m_position / kSectorSizeBytes, 1});
    if (found == m_extentMap.end()) {
        // Deliberate: the key is "mainURI" here and "mainFileURI" everywhere else; hosts read it.
        throw yx::CError(
            "Internal error: cannot find VMDK extent for position " + yx::toString(m_position), "",
            -1, yx::CProps().add("mainURI", m_mainFileURI.toString(true)), nullptr);
    }
    m_currentExtentURI = found->second.m_uri.toNormalized();
    m_currentExtent = makeExtentFile(*found);
    m_currentExtentStartBytes = found->first.m_startSector * kSectorSizeBytes;
    m_currentExtentSizeBytes = found->first.m_sizeSectors * kSectorSizeBytes;
}

void CVMDKDisk::beginIOOp(__int64 maxBytes, yx::P<IVMDKExtentFile>& extent, __int64& opBytes) {
    leaveCurrentExtentIfOutside();
    if (!m_currentExtent)
        openExtentUnderCursor();
    __int64 const relative = m_position - m_currentExtentStartBytes;
    assert(relative >= 0 && relative < m_currentExtentSizeBytes);
    if (m_currentExtent->getPosition() != relative)
        m_currentExtent->seek(relative);
    opBytes = std::min(maxBytes, m_currentExtentSizeBytes - relative);
    assert(opBytes > 0);
    extent = m_currentExtent;
}

void CVMDKDisk::seek(__int64 position) {
    if (position < 0 || position > m_sizeBytes) {
        throw yx::CIOError(yx::CIOError::BadPosition,
                           "Bad seek position in VMDK disk: " + yx::toString(position),
                           mainFileProps().add("diskSize", yx::toString(m_sizeBytes)), nullptr);
    }
    m_position = position;
}

void CVMDKDisk::read(void* buffer, int bytes) {
    if (m_position + bytes > m_sizeBytes) {
        throw yx::CIOError(yx::CIOError::UnexpectedEnd, "Read exceeds VMDK disk size.",
                           mainFileProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToRead", yx::toString(bytes)),
                           nullptr);
    }
    auto* target = static_cast<unsigned char*>(buffer);
    while (bytes > 0) {
        yx::P<IVMDKExtentFile> extent;
        __int64 opBytes = 0;
        beginIOOp(bytes, extent, opBytes);
        int const step = static_cast<int>(opBytes);
        extent->read(target, step);
        m_position += step;
        target += step;
        bytes -= step;
    }
}

void CVMDKDisk::write(void const* buffer, int bytes) {
    if (m_position + bytes > m_sizeBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                           mainFileProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    verifyWriteAccess("write");
    auto const* source = static_cast<unsigned char const*>(buffer);
    while (bytes > 0) {
        yx::P<IVMDKExtentFile> extent;
        __int64 opBytes = 0;
        beginIOOp(bytes, extent, opBytes);
        int const step = static_cast<int>(opBytes);
        extent->write(source, step);
        m_position += step;
        source += step;
        bytes -= step;
    }
}

void CVMDKDisk::verifyPreparedGrainRange(char const* operation) const {
    // Deliberate: the code is `NotAllowed` for reading too, where `read` has `UnexpectedEnd`.
    if (m_position + m_grainSizeBytes > m_sizeBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           yx::String("Prepared grain ") + operation + " exceeds VMDK disk size.",
                           mainFileProps()
                               .add("position", yx::toString(m_position))
                               .add("grainSize", yx::toString(m_grainSizeBytes))
                               .add("diskSize", yx::toString(m_sizeBytes)),
                           nullptr);
    }
    if (m_position % m_grainSizeBytes != 0) {
        throw yx::CIOError(yx::CIOError::NotAligned,
                           yx::String("Prepared grain ") + operation +
                               " in VMDK disk can only be done on a grain boundary.",
                           mainFileProps()
                               .add("position", yx::toString(m_position))
                               .add("grainSize", yx::toString(m_grainSizeBytes)),
                           nullptr);
    }
}

void CVMDKDisk::verifyWholeGrain(char const* function, __int64 opBytes) const {
    if (opBytes == m_grainSizeBytes)
        return;
    throw yx::CError(yx::String("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::") + function +
                         " returned less than the grain size.",
                     "", -1,
                     mainFileProps()
                         .add("position", yx::toString(m_position))
                         .add("grainSize", yx::toString(m_grainSizeBytes))
                         .add("opBytes", yx::toString(opBytes))
                         .add("diskSize", yx::toString(m_sizeBytes)),
                     nullptr);
}

void CVMDKDisk::writePreparedGrainData(yx::TBuffer<unsigned char> const& data) {
    verifyPreparedGrainRange("write");
    // Deliberate: refused in the words of `write`; hosts look for them.
    verifyWriteAccess("write");
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    verifyWholeGrain("writePreparedGrainData", opBytes);
    extent->writePreparedGrainData(data);
    m_position += opBytes;
}

void CVMDKDisk::readPreparedGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange("read");
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    // Deliberate: the misspelt name is part of the message, which logs are searched for.
    verifyWholeGrain("tryRreparedGrainData", opBytes);
    extent->readPreparedGrainData(data);
    m_position += opBytes;
}

/// Whether the grain under the cursor is the same one, by index, size and form, in the disk and in
/// the extent: the index decides how it is enciphered.
bool CVMDKDisk::hasGrainsOfDisk(IVMDKExtentFile const& extent) const {
    return extent.getGrainSizeSectors() == m_grainSizeSectors &&
           extent.getCompressed() == m_compressed &&
           grainPositionBytes(extent.getStartGrainIndex(), m_grainSizeBytes) ==
               m_currentExtentStartBytes;
}

void CVMDKDisk::writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data) {
    verifyPreparedGrainRange("write");
    verifyWriteAccess("writeEncipheredGrainData");
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    verifyWholeGrain("writeEncipheredGrainData", opBytes);
    auto const onDemand = yx::cast<CVMDKOnDemandExtentFile>(extent);
    auto const sparse = yx::cast<CVMDKSparseExtentFile>(extent);
    if (!hasGrainsOfDisk(*extent) || (!onDemand && !sparse)) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The extent has other grains than the VMDK disk.",
                           mainFileProps().add("position", yx::toString(m_position)), nullptr);
    }
    if (onDemand)
        onDemand->writeEncipheredGrainData(data);
    else
        sparse->writeEncipheredGrainData(data);
    m_position += opBytes;
}

bool CVMDKDisk::tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange("read");
    if (!m_cipher)
        return false;
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    if (opBytes != m_grainSizeBytes || !hasGrainsOfDisk(*extent))
        return false;
    auto const onDemand = yx::cast<CVMDKOnDemandExtentFile>(extent);
    auto const sparse = yx::cast<CVMDKSparseExtentFile>(extent);
    bool const isRead = onDemand ? onDemand->tryReadEncipheredGrainData(data)
                                 : sparse && sparse->tryReadEncipheredGrainData(data);
    if (isRead)
        m_position += opBytes;
    return isRead;
}

__int64 CVMDKDisk::makeGrainIndependentOfParent(__int64 grainIndex) {
    verifyWriteAccess("makeGrainIndependentOfParent");
    seek(grainPositionBytes(grainIndex, m_grainSizeBytes));
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    // Deliberate: the message is that of `writePreparedGrainData`.
    verifyWholeGrain("writePreparedGrainData", opBytes);
    __int64 const result =
        extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
    m_position += opBytes;
    return result;
}

bool CVMDKDisk::isGrainWritten() {
    // Deliberate: no range test, here and below; the very end is an extent that is not found.
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent() {
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWrittenAndIndependentOfParent();
}

__int64 CVMDKDisk::countBytesWithoutData(__int64 maxBytes) {
    yx::P<IVMDKExtentFile> extent;
    __int64 opBytes = 0;
    beginIOOp(maxBytes, extent, opBytes);
    if (auto const onDemand = yx::cast<CVMDKOnDemandExtentFile>(extent))
        return onDemand->countBytesWithoutData(opBytes);
    if (auto const sparse = yx::cast<CVMDKSparseExtentFile>(extent))
        return sparse->countBytesWithoutData(opBytes);
    return 0;
}

void CVMDKDisk::flushChanges() {
    // Deliberate: this asks for exactly read-only, the write paths for exactly read-and-write.
    if (m_access == yx::IIOStream::ReadOnly || !m_currentExtent)
        return;
    m_currentExtent->flushChanges();
}

yx::P<CVMDKSpaceInfo> CVMDKDisk::gatherSpaceInfo() {
    CursorRestorer const restorer(*this);
    yx::P<CVMDKSpaceInfo> total = yx::makeObject<CVMDKSpaceInfo>();
    seek(0);
    while (m_position < m_sizeBytes) {
        yx::P<IVMDKExtentFile> extent;
        __int64 opBytes = 0;
        beginIOOp(m_sizeBytes - m_position, extent, opBytes);
        total->addSpaceInfo(*extent->gatherSpaceInfo());
        m_position += opBytes;
    }
    return total;
}

} // namespace kelm
