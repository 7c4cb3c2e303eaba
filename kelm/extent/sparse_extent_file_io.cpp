#include <algorithm>

#include "kelm/extent/internal/grain_position.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

// The extent keeps two cursors: `m_position`, and the grain's own. Between operations either the
// grain stands open under `m_position` and both agree, or the grain has no bytes left and the next
// operation puts it right. The step onto the next grain is left to that operation, since the caller
// may never go on; so a grain is written out only by the next access behind it, or by a flush.

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
    // A grain that failed to open is closed although the index still names it.
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
}

__int64 CVMDKSparseExtentFile::beginIOOp(__int64 maxBytes) {
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
    // Who reads on behind a grain will not want it again, and neither will who goes on like that
    // request by request.
    bool const goesOn = m_position == m_wholeGrainsReadEnd;
    while (bytes > 0) {
        int step = static_cast<int>(beginIOOp(bytes));
        bool const isWholeGrain = step == m_grainSizeBytes;
        if (isWholeGrain && (bytes > step || goesOn))
            step *= readGrainsAndLeave(target, (goesOn ? bytes : bytes - 1) / step);
        else
            m_grain->read(target, step);
        m_position += step;
        if (bytes == step)
            m_wholeGrainsReadEnd = isWholeGrain ? m_position : -1;
        target += step;
        bytes -= step;
    }
}

/// Reads the grain under the cursor, and with it as many of the next as lie behind it in the file,
/// up to `limit` grains. Returns how many it read.
int CVMDKSparseExtentFile::readGrainsAndLeave(void* target, __int64 limit) {
    // An unsuccessful `makeGrainIndependentOfParent` leaves a grain open that is not the cursor's.
    bool const isCursorsGrain = m_currentGrainIndex == m_position / m_grainSizeBytes;
    if (limit > 1 && isCursorsGrain && m_grain->isInFileAlone()) {
        int const count = countAdjacentGrains(limit);
        if (count > 1)
            return m_grain->readAdjacentAndLeave(target, count);
    }
    m_grain->readAndLeave(target);
    return 1;
}

/// Up to `limit` grains from the one under the cursor on, of one grain table, each of which begins
/// in the file where the one before it ends. One that cannot be opened ends them.
int CVMDKSparseExtentFile::countAdjacentGrains(__int64 limit) {
    __int64 const entriesPerTable = m_header->getGrainTableEntryCount();
    limit = std::min(limit, entriesPerTable - m_currentGrainIndex % entriesPerTable);
    __int64 const firstPosSectors = m_grain->getGrainStartPositionSectors();
    int count = 1;
    for (; count < limit; ++count) {
        __int64 posSectors = 0;
        __int64 slotSizeSectors = 0;
        m_grainDirectory->getGrainInfo(m_currentGrainIndex + count, posSectors, slotSizeSectors);
        if (posSectors != firstPosSectors + count * m_grainSizeSectors ||
            slotSizeSectors < m_grainSizeSectors)
            break;
    }
    return count;
}

void CVMDKSparseExtentFile::write(void const* buffer, int bytes) {
    if (bytes + m_position > m_capacityBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeded VMDK extent size.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    // Deliberate: a write of no bytes changes the content ID too, as hosts mark a disk that way.
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
    // Deliberately before the access: a read-only extent without an updater reports the updater.
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
}

void CVMDKSparseExtentFile::readPreparedGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange("read");
    // Deliberate: the message names a function that this class does not have; logs rely on it.
    beginPreparedGrainOp("tryReadPreparedGrainData");
    m_grain->readPreparedGrainData(data);
    m_position += m_grainSizeBytes;
}

__int64 CVMDKSparseExtentFile::makeGrainIndependentOfParent(__int64 grainIndex) {
    // Deliberate: the contents stay the same, so unlike every other write this one leaves the
    // content ID alone, and grandchildren keep their parent.
    verifyHaveWriteAccess();
    seek(grainPositionBytes(grainIndex, m_grainSizeBytes));
    __int64 const result = m_grain->makeIndependentOfParent();
    // Deliberate: without a provider the grain's own cursor stays behind; the next seek mends it.
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

void CVMDKSparseExtentFile::flushChanges() {
    // Deliberate: this asks for exactly read-only, the write paths for exactly read-and-write.
    if (m_access == yx::IIOStream::ReadOnly)
        return;
    if (m_grain && m_grain->isOpen())
        m_grain->flushChangesToStream();
    m_grainAllocator->flushChangesToStream();
    // The first flush puts the data on the device before a table can point to it.
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
    __int64 const payloadSize = usage.grains * m_grainSizeBytes;
    __int64 const payloadSizeInFile =
        m_compressed ? usage.slotSectors * kSectorSizeBytes : payloadSize;
    // The overhead is a number from the file that nothing has judged yet.
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
