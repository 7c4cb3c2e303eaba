#include <algorithm>
#include <cassert>

#include "kelm/extent/internal/grain_position.h"
#include "kelm/extent/internal/sequential_grain_reader.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

// There are two cursors: `m_position`, and the position of the grain. Between operations, either
// the open grain is the one at `m_position` and both cursors agree, or the grain has no bytes left.
// In the second case the next operation opens the grain that it needs, because the caller may never
// need another one. So a grain is stored only when another grain is accessed, or by a flush.

/// For assertions: what is true between operations, also after failures.
bool CVMDKSparseExtentFile::areCursorsSound() const {
    if (m_position < 0)
        return false;
    if (m_grain->getBytesLeft() == 0)
        return true;
    // After `makeGrainIndependentOfParent` without a provider, the open grain is the one before.
    __int64 const grainsBehind = m_position / m_grainSizeBytes - m_currentGrainIndex;
    return m_grain->getPosition() == m_position % m_grainSizeBytes &&
           (grainsBehind == 0 || grainsBehind == 1);
}

void CVMDKSparseExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    m_fallbackDataProvider = provider;
    m_grain->setFallbackDataProvider(provider);
}

yx::CURI CVMDKSparseExtentFile::getURI() const {
    return m_stream->getURI();
}

yx::P<CVMDKDataPreparer> CVMDKSparseExtentFile::createDataPreparer() {
    return m_grain->createDataPreparer();
}

void CVMDKSparseExtentFile::seek(__int64 position) {
    if (position < 0 || position > m_capacityBytes) {
        throw yx::CInvalidArgError("CVMDKSparseExtentFile::seek",
                                   "Invalid position: " + yx::toString(position), uriProps());
    }
    __int64 const grainIndex = position / m_grainSizeBytes;
    // After a failure to open it, the grain is closed although the index is that of the grain.
    if (grainIndex != m_currentGrainIndex || !m_grain->isOpen()) {
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        m_grainDirectory->getGrainInfo(grainIndex, posSectors, slotSizeSectors);
        m_grain->open(grainIndex, diskGrainIndexOf(m_startGrainIndex, grainIndex), posSectors,
                      slotSizeSectors);
        m_currentGrainIndex = grainIndex;
    }
    m_grain->seek(position % m_grainSizeBytes);
    m_position = position;
    assert(areCursorsSound());
}

__int64 CVMDKSparseExtentFile::beginIOOp(__int64 maxBytes) {
    assert(areCursorsSound());
    if (m_grain->getBytesLeft() == 0)
        seek(m_position);
    __int64 const bytesLeft = m_grain->getBytesLeft();
    if (bytesLeft == 0) {
        throw yx::CError("Internal error. After seeking to grain at position " +
                             yx::toString(m_position) +
                             " there are still no bytes left in the grain.",
                         "", -1, uriProps(), nullptr);
    }
    return std::min(maxBytes, bytesLeft);
}

void CVMDKSparseExtentFile::read(void* buffer, int bytes) {
    if (bytes + m_position > m_capacityBytes) {
        throw yx::CIOError(yx::CIOError::UnexpectedEnd,
                           "Unexpected end of data reading from VMDK sparse extent file.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToRead", yx::toString(bytes)),
                           nullptr);
    }
    auto* target = static_cast<unsigned char*>(buffer);
    m_sequentialReader->beginRequest(m_position);
    while (bytes > 0) {
        m_sequentialReader->throwPostponedFailure();
        int const bytesInGrain = static_cast<int>(beginIOOp(bytes));
        int const step = m_sequentialReader->readStep(
            target, {m_position, m_currentGrainIndex, bytes, bytesInGrain});
        m_position += step;
        target += step;
        bytes -= step;
    }
}

void CVMDKSparseExtentFile::write(void const* buffer, int bytes) {
    if (bytes + m_position > m_capacityBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    // Deliberate: an empty write changes the content ID too; hosts use it to mark a disk as
    // changed.
    onAboutToChange();
    auto const* source = static_cast<unsigned char const*>(buffer);
    while (bytes > 0) {
        int const step = static_cast<int>(beginIOOp(bytes));
        m_grain->write(source, step);
        m_position += step;
        source += step;
        bytes -= step;
    }
}

void CVMDKSparseExtentFile::onAboutToChange() {
    // Deliberately checked before the access: for a read-only extent without an updater, the
    // missing updater is reported.
    if (!m_contentIDUpdater) {
        throw yx::CError("Internal error: VMDK sparse extent file is about to be changed, but it "
                         "does not have a content ID updater.",
                         "", -1, uriProps(), nullptr);
    }
    verifyHaveWriteAccess();
    m_contentIDUpdater->onDiskAboutToChange(*this);
}

void CVMDKSparseExtentFile::verifyHaveWriteAccess() {
    if (m_access != yx::IIOStream::ReadWrite) {
        throw yx::CError("Internal error: VMDK sparse extent file is about to be changed, but it "
                         "was not opened for writing.",
                         "", -1, uriProps(), nullptr);
    }
}

void CVMDKSparseExtentFile::verifyPreparedGrainRange(char const* operation) const {
    if (m_position + m_grainSizeBytes > m_capacityBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           yx::String("Prepared grain ") + operation + " exceeds VMDK extent size.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("grainSize", yx::toString(m_grainSizeBytes))
                               .add("extentSize", yx::toString(m_capacityBytes)),
                           nullptr);
    }
    if (m_position % m_grainSizeBytes != 0) {
        throw yx::CIOError(yx::CIOError::NotAligned,
                           yx::String("Prepared grain ") + operation +
                               " in VMDK extent file can only be done on a grain boundary.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("grainSize", yx::toString(m_grainSizeBytes)),
                           nullptr);
    }
}

void CVMDKSparseExtentFile::beginPreparedGrainOp(char const* function) {
    __int64 const step = beginIOOp(m_grainSizeBytes);
    if (step != m_grainSizeBytes) {
        throw yx::CError(yx::String("Internal error: CVMDKSparseExtentFile::beginIOOp in "
                                    "CVMDKSparseExtentFile::") +
                             function + " returned less than the grain size.",
                         "", -1,
                         uriProps()
                             .add("position", yx::toString(m_position))
                             .add("grainSize", yx::toString(m_grainSizeBytes))
                             .add("toWrite", yx::toString(step))
                             .add("extentSize", yx::toString(m_capacityBytes)),
                         nullptr);
    }
}

void CVMDKSparseExtentFile::writePreparedGrainData(yx::TBuffer<unsigned char> const& data) {
    verifyPreparedGrainRange("write");
    onAboutToChange();
    beginPreparedGrainOp("writePreparedGrainData");
    m_grain->writePreparedGrainData(data);
    m_position += m_grainSizeBytes;
    assert(areCursorsSound());
}

void CVMDKSparseExtentFile::readPreparedGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange("read");
    // Deliberate: the message names a function that does not exist; logs are searched for it.
    beginPreparedGrainOp("tryReadPreparedGrainData");
    m_grain->readPreparedGrainData(data);
    m_position += m_grainSizeBytes;
    assert(areCursorsSound());
}

void CVMDKSparseExtentFile::writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data) {
    verifyPreparedGrainRange("write");
    onAboutToChange();
    beginPreparedGrainOp("writeEncipheredGrainData");
    m_grain->writeEncipheredGrainData(data);
    m_position += m_grainSizeBytes;
    assert(areCursorsSound());
}

bool CVMDKSparseExtentFile::tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange("read");
    beginPreparedGrainOp("tryReadEncipheredGrainData");
    bool const isRead = m_grain->tryReadEncipheredGrainData(data);
    if (isRead)
        m_position += m_grainSizeBytes;
    assert(areCursorsSound());
    return isRead;
}

__int64 CVMDKSparseExtentFile::makeGrainIndependentOfParent(__int64 grainIndex) {
    // Deliberate: unlike all other writes, this one does not change the content ID. What the disk
    // reads as stays the same, so its children remain valid.
    verifyHaveWriteAccess();
    seek(grainPositionBytes(grainIndex, m_grainSizeBytes));
    __int64 const result = m_grain->makeIndependentOfParent();
    // Deliberate: without a provider the grain's cursor does not move; the next seek corrects it.
    m_position += m_grainSizeBytes;
    return result;
}

bool CVMDKSparseExtentFile::isGrainWritten() {
    beginIOOp(1);
    return m_grain->isGrainWritten();
}

bool CVMDKSparseExtentFile::isGrainWrittenAndIndependentOfParent() {
    beginIOOp(1);
    return m_grain->isGrainWrittenAndIndependentOfParent();
}

__int64 CVMDKSparseExtentFile::countBytesWithoutData(__int64 maxBytes) {
    // Opens the grain at the cursor, so that the tables know all other ones.
    if (isGrainWrittenAndIndependentOfParent())
        return 0;
    __int64 const endBytes = m_position + std::min(maxBytes, m_capacityBytes - m_position);
    __int64 const endGrainIndex = (endBytes + m_grainSizeBytes - 1) / m_grainSizeBytes;
    __int64 const entriesPerTable = m_header->getGrainTableEntryCount();
    __int64 grainIndex = m_position / m_grainSizeBytes + 1;
    while (grainIndex < endGrainIndex) {
        __int64 const tableIndex = grainIndex / entriesPerTable;
        yx::P<CVMDKGrainTable> const table = m_grainDirectory->getGrainTable(tableIndex);
        __int64 const tableEnd = std::min((tableIndex + 1) * entriesPerTable, endGrainIndex);
        for (; grainIndex < tableEnd; ++grainIndex) {
            __int64 posSectors = 0;
            __int64 slotSizeSectors = 0;
            table->getGrainInfo(grainIndex % entriesPerTable, posSectors, slotSizeSectors);
            if (posSectors != 0)
                return grainIndex * m_grainSizeBytes - m_position;
        }
    }
    return endBytes - m_position;
}

void CVMDKSparseExtentFile::flushChanges() {
    // Deliberate: this checks for exactly read-only, the writes for exactly read and write.
    if (m_access == yx::IIOStream::ReadOnly)
        return;
    if (m_grain && m_grain->isOpen())
        m_grain->flushChangesToStream();
    m_grainAllocator->flushChangesToStream();
    // So that the data are on the device before a table points to them.
    m_stream->flush();
    m_grainDirectory->flushChangesToStream();
    m_stream->flush();
}

yx::P<CVMDKSpaceInfo> CVMDKSparseExtentFile::gatherSpaceInfo() {
    flushChanges();
    __int64 const grainCount =
        CVMDKGrainDirectory::calcExtentGrainCount(m_capacitySectors, m_grainSizeSectors);
    __int64 const entriesPerTable = m_header->getGrainTableEntryCount();
    CVMDKGrainTable::Usage usage;
    for (__int64 index = 0; index < grainCount; index += entriesPerTable) {
        int const entries = static_cast<int>(std::min(entriesPerTable, grainCount - index));
        usage += m_grainDirectory->getGrainTable(index / entriesPerTable)->calcUsage(entries);
    }
    assert(usage.grains >= 0 && usage.grains <= grainCount);
    __int64 const payloadSize = usage.grains * m_grainSizeBytes;
    __int64 const payloadSizeInFile =
        m_compressed ? usage.slotSectors * kSectorSizeBytes : payloadSize;
    // The overhead comes from the file and has not been checked.
    __int64 const headerSize = static_cast<__int64>(std::min<unsigned long long>(
                                   m_header->getOverheadSectors(), kMaxPositionSectors)) *
                               kSectorSizeBytes;
    __int64 deadSpace = m_stream->getLength() - headerSize - payloadSizeInFile;
    if (deadSpace < 0) {
        yx::logWarning("Calculated negative dead space value for VMDK extent file '" +
                       m_stream->getURI().toString(true) + "' (deadSpace: " +
                       yx::toString(deadSpace) + ", headerSize: " + yx::toString(headerSize) +
                       ", payloadSize: " + yx::toString(payloadSize) +
                       ", payloadSizeInFile: " + yx::toString(payloadSizeInFile) + ")");
        deadSpace = 0;
    }
    yx::P<CVMDKSpaceInfo> info = yx::makeObject<CVMDKSpaceInfo>();
    info->setPayloadSize(payloadSize);
    info->setPayloadSizeInFile(payloadSizeInFile);
    info->setHeaderSize(headerSize);
    info->setDeadSpaceSize(deadSpace);
    return info;
}

} // namespace kelm
