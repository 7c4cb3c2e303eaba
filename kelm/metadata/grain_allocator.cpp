#include "kelm/metadata/grain_allocator.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>

#include "kelm/format/constants.h"
#include "kelm/metadata/internal/table_io.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

namespace {

constexpr char kAllocNewGrainName[] = "CVMDKGrainAllocator::allocNewGrain";

constexpr __int64 kMaxBufferBytes = std::numeric_limits<int>::max();

/// Zeros are held for this many grains.
constexpr __int64 kZeroDataGrains = 2;

} // namespace

CVMDKGrainAllocator::CVMDKGrainAllocator(yx::IIOStream* stream, yx::IIOStream::Access access,
                                         __int64 grainSizeSectors, __int64 alignmentSectors,
                                         CVMDKGrainDirectory* directory,
                                         yx::TBuffer<unsigned char> const& trailData)
    : m_stream(stream),
      m_access(access),
      m_directory(directory),
      m_grainSizeSectors(grainSizeSectors),
      m_alignmentSectors(alignmentSectors) {
    verifySizes();
    m_grainSizeBytes = m_grainSizeSectors * kSectorSizeBytes;
    m_alignmentBytes = m_alignmentSectors * kSectorSizeBytes;
    if (trailData.getUsed() > 0)
        readTrail(trailData);
    else
        m_nextPosBytes = m_stream->getLength();
    assert(m_nextPosBytes >= 0);
}

CVMDKGrainAllocator::~CVMDKGrainAllocator() {
    try {
        CVMDKGrainAllocator::flushChangesToStream();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKGrainAllocator", error, true);
    }
}

void CVMDKGrainAllocator::verifySizes() {
    if (m_grainSizeSectors < 1 ||
        m_grainSizeSectors > kMaxBufferBytes / kSectorSizeBytes / kZeroDataGrains) {
        throwCorruptField(*m_stream, "grain size", m_grainSizeSectors);
    }
    if (m_alignmentSectors < 1 || m_alignmentSectors > kMaxBufferBytes / kSectorSizeBytes) {
        throw yx::CInvalidArgError("CVMDKGrainAllocator constructor",
                                   "Invalid grain alignment: " + yx::toString(m_alignmentSectors),
                                   uriPropsOf(*m_stream));
    }
}

void CVMDKGrainAllocator::readTrail(yx::TBuffer<unsigned char> const& expected) {
    int const trailSizeBytes = expected.getUsed();
    __int64 const savedPosBytes = m_stream->getPosition();
    __int64 const lengthBytes = m_stream->getLength();
    m_trailData.setUsed(trailSizeBytes);
    m_stream->seek(lengthBytes - trailSizeBytes);
    m_stream->read(m_trailData.getData(), trailSizeBytes);
    m_stream->seek(savedPosBytes);

    if (std::memcmp(m_trailData.getData(), expected.getData(),
                    static_cast<std::size_t>(trailSizeBytes)) == 0) {
        m_nextPosBytes = lengthBytes - trailSizeBytes;
        return;
    }
    yx::logWarning("VMDK trail data is not what we expected. Assuming that it is not trail data - "
                   "we won't overwrite it.");
    m_trailData.assign(expected);
    m_nextPosBytes = lengthBytes;
    m_trailDataDirty = m_access != yx::IIOStream::ReadOnly;
}

void CVMDKGrainAllocator::flushChangesToStream() {
    if (!m_trailDataDirty || m_trailData.getUsed() == 0)
        return;
    // The next position stays in front of the trail, which the next new grain overwrites.
    assert(m_access != yx::IIOStream::ReadOnly);
    m_stream->seek(m_nextPosBytes);
    m_stream->write(m_trailData.getData(), m_trailData.getUsed(), nullptr);
    m_trailDataDirty = false;
}

__int64 CVMDKGrainAllocator::allocNewGrain(__int64 grainIndex, void const* data, int size,
                                           int slotSizeSectors) {
    return allocNewGrainImpl(grainIndex, data, size, slotSizeSectors, nullptr);
}

__int64 CVMDKGrainAllocator::allocNewGrainKeepBuffer(
    __int64 grainIndex, yx::TConstBufferSlice<unsigned char> const& data, int slotSizeSectors) {
    return allocNewGrainImpl(grainIndex, data.getData(), data.getLength(), slotSizeSectors, &data);
}

__int64 CVMDKGrainAllocator::allocNewGrainImpl(
    __int64 grainIndex, void const* data, int size, int slotSizeSectors,
    yx::TConstBufferSlice<unsigned char> const* keepBufferData) {
    // Deliberately in 32 bits: a slot too large for them wraps, which the check and its message
    // depend on.
    int const slotBytes =
        static_cast<int>(static_cast<unsigned int>(slotSizeSectors) * kSectorSizeBytes);
    verifySlotSize(slotBytes, size);
    verifyWritable();

    __int64 const startPosBytes = beginSlot();
    // From here on the trail is overwritten, or it is not at the end any more.
    m_trailDataDirty = true;
    if (keepBufferData)
        m_stream->writeKeepBuffer(*keepBufferData, nullptr);
    else
        m_stream->write(data, size, nullptr);
    m_nextPosBytes = startPosBytes + size;
    fillWithZeros(startPosBytes + slotBytes);

    assert(startPosBytes % m_alignmentBytes == 0);
    // The slot lies within what has been written, and the next one will lie behind it.
    assert(m_nextPosBytes == startPosBytes + slotBytes);

    // Only now, so that the table never points to data that could not be written.
    __int64 const posSectors = startPosBytes / kSectorSizeBytes;
    m_directory->setGrainInfo(grainIndex, posSectors, slotSizeSectors);
    return posSectors;
}

void CVMDKGrainAllocator::verifySlotSize(int slotBytes, int size) const {
    if (slotBytes < size) {
        throw yx::CInvalidArgError(
            kAllocNewGrainName,
            "Slot size is smaller than grain data size (slot size: " + yx::toString(slotBytes) +
                " bytes, grain data size: " + yx::toString(size) + " bytes)",
            yx::CProps());
    }
    if (size < 0) {
        throw yx::CInvalidArgError(kAllocNewGrainName,
                                   "Invalid grain data size: " + yx::toString(size), yx::CProps());
    }
}

void CVMDKGrainAllocator::verifyWritable() const {
    // Deliberately a test for read-only, unlike the tests of the grain and its table for
    // read-and-write: it decides which of them refuses an access that is neither.
    if (m_access == yx::IIOStream::ReadOnly) {
        throw yx::CError("Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the "
                         "grain allocator was not opened for writing.",
                         "", -1, yx::CProps(), nullptr);
    }
}

/// Leaves the stream at the aligned start of the next slot, having filled the gap before it, and
/// returns that position. The next position does not move yet.
__int64 CVMDKGrainAllocator::beginSlot() {
    m_stream->seek(m_nextPosBytes);
    __int64 const surplusBytes = m_nextPosBytes % m_alignmentBytes;
    if (surplusBytes == 0)
        return m_nextPosBytes;
    __int64 const gapBytes = m_alignmentBytes - surplusBytes;
    m_stream->write(zeroData().getData(), static_cast<int>(gapBytes), nullptr);
    return m_nextPosBytes + gapBytes;
}

void CVMDKGrainAllocator::fillWithZeros(__int64 endPosBytes) {
    while (m_nextPosBytes < endPosBytes) {
        __int64 const pieceBytes =
            std::min<__int64>(zeroData().getUsed(), endPosBytes - m_nextPosBytes);
        m_stream->write(zeroData().getData(), static_cast<int>(pieceBytes), nullptr);
        m_nextPosBytes += pieceBytes;
    }
}

/// Made at first need: extents that are only read, and those with an absurd grain size, do without.
yx::TBuffer<unsigned char> const& CVMDKGrainAllocator::zeroData() {
    if (m_zeroData.getUsed() == 0) {
        int const sizeBytes =
            static_cast<int>(std::max(kZeroDataGrains * m_grainSizeBytes, m_alignmentBytes));
        m_zeroData.setUsed(sizeBytes);
        yx::initMemory(m_zeroData.getData(), 0, static_cast<std::size_t>(sizeBytes));
    }
    return m_zeroData;
}

} // namespace kelm
