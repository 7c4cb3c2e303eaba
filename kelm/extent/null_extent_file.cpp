#include "kelm/extent/null_extent_file.h"

#include <cassert>
#include <limits>

#include "kelm/extent/internal/grain_position.h"
#include "yx/error.h"

namespace kelm {

namespace {

constexpr char kNullExtentSeekName[] = "CVMDKNullExtentFile::seek";
constexpr char kNullExtentReadName[] = "CVMDKNullExtentFile::read";

constexpr __int64 kMaxSizeBytes = std::numeric_limits<__int64>::max();

/// A size that exceeds 64 bits becomes the largest number, a size below 1 becomes 0.
__int64 calcSizeBytes(__int64 sizeSectors, __int64 sectorSizeBytes) {
    if (sizeSectors < 1 || sectorSizeBytes < 1)
        return 0;
    return sizeSectors > kMaxSizeBytes / sectorSizeBytes ? kMaxSizeBytes
                                                         : sizeSectors * sectorSizeBytes;
}

} // namespace

CVMDKNullExtentFile::CVMDKNullExtentFile(yx::CURI const& uri, __int64 startGrainIndex,
                                         __int64 grainSizeSectors, __int64 extentSizeSectors,
                                         __int64 sectorSizeBytes, bool compressed,
                                         int compressionLevel, IVMDKDataProvider* provider)
    : m_uri(uri),
      m_startGrainIndex(startGrainIndex),
      m_grainSizeSectors(grainSizeSectors),
      m_extentSizeSectors(extentSizeSectors),
      m_sectorSizeBytes(sectorSizeBytes),
      m_compressed(compressed),
      m_compressionLevel(compressionLevel),
      m_grainSizeBytes(calcSizeBytes(m_grainSizeSectors, m_sectorSizeBytes)),
      m_extentSizeBytes(calcSizeBytes(m_extentSizeSectors, m_sectorSizeBytes)),
      m_fallbackDataProvider(provider) {
    assert(isCursorInside());
}

CVMDKNullExtentFile::CVMDKNullExtentFile(CVMDKNullExtentFile const&) = default;
CVMDKNullExtentFile& CVMDKNullExtentFile::operator=(CVMDKNullExtentFile const&) = default;
CVMDKNullExtentFile::~CVMDKNullExtentFile() = default;

/// For assertions: the cursor may be at the end, but never past it.
bool CVMDKNullExtentFile::isCursorInside() const {
    return m_position >= 0 && m_position <= m_extentSizeBytes;
}

yx::CProps CVMDKNullExtentFile::uriProps() const {
    return yx::CProps().add("uri", m_uri.toString(true));
}

void CVMDKNullExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    m_fallbackDataProvider = provider;
}

void CVMDKNullExtentFile::seek(__int64 position) {
    if (position < 0 || position > m_extentSizeBytes)
        throw yx::CInvalidArgError(kNullExtentSeekName,
                                   "Invalid position: " + yx::toString(position), uriProps());
    m_position = position;
}

void CVMDKNullExtentFile::read(void* buffer, int bytes) {
    if (bytes > m_extentSizeBytes - m_position)
        throw yx::CIOError(yx::CIOError::UnexpectedEnd,
                           "Unexpected end of data reading from VMDK null extent file.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("bytesToRead", yx::toString(bytes)),
                           nullptr);
    if (bytes < 0)
        throw yx::CInvalidArgError(kNullExtentReadName,
                                   "Invalid number of bytes to read: " + yx::toString(bytes),
                                   uriProps());
    if (m_fallbackDataProvider)
        m_fallbackDataProvider->getData(calcDiskPosition(m_startGrainIndex, m_position), buffer,
                                        bytes);
    else
        yx::initMemory(buffer, 0, static_cast<std::size_t>(bytes));
    m_position += bytes;
    assert(isCursorInside());
}

/// The disk position of the byte at `offsetBytes` from the start of a grain.
__int64 CVMDKNullExtentFile::calcDiskPosition(__int64 diskGrainIndex, __int64 offsetBytes) const {
    verifyGrainSize();
    __int64 const startBytes = grainPositionBytes(diskGrainIndex, m_grainSizeBytes);
    return startBytes > kMaxSizeBytes - offsetBytes ? kMaxSizeBytes : startBytes + offsetBytes;
}

void CVMDKNullExtentFile::verifyGrainSize() const {
    if (m_grainSizeBytes < 1 || m_grainSizeBytes > std::numeric_limits<int>::max())
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid grain size of VMDK null extent file: " +
                               yx::toString(m_grainSizeSectors) + " sectors",
                           uriProps(), nullptr);
}

__int64 CVMDKNullExtentFile::calcCurrentDiskGrainIndex() const {
    return diskGrainIndexOf(m_startGrainIndex, m_position / m_grainSizeBytes);
}

void CVMDKNullExtentFile::flushChanges() {}

void CVMDKNullExtentFile::write(void const*, int) {
    refuse("write");
}

void CVMDKNullExtentFile::writePreparedGrainData(yx::TBuffer<unsigned char> const&) {
    refuse("writePreparedGrainData");
}

__int64 CVMDKNullExtentFile::makeGrainIndependentOfParent(__int64) {
    refuse("makeGrainIndependentOfParent");
}

void CVMDKNullExtentFile::refuse(char const* operation) const {
    throw yx::CError(yx::String("Internal error: ") + operation +
                         " method called on VMDK null extent file.",
                     "", -1, uriProps(), nullptr);
}

bool CVMDKNullExtentFile::isGrainWritten() {
    if (!m_fallbackDataProvider)
        return false;
    verifyGrainSize();
    // Deliberate: no bounds check, so at the end the provider answers for the grain after it.
    return m_fallbackDataProvider->isGrainWritten(calcDiskPosition(calcCurrentDiskGrainIndex(), 0));
}

bool CVMDKNullExtentFile::isGrainWrittenAndIndependentOfParent() {
    return false;
}

yx::P<CVMDKSpaceInfo> CVMDKNullExtentFile::gatherSpaceInfo() {
    return yx::makeObject<CVMDKSpaceInfo>();
}

yx::P<CVMDKDataPreparer> CVMDKNullExtentFile::createDataPreparer() {
    return yx::makeObject<CVMDKDataPreparer>(m_grainSizeSectors, m_compressed, m_compressionLevel);
}

void CVMDKNullExtentFile::readPreparedGrainData(yx::TBuffer<unsigned char>& data) {
    verifyPreparedGrainRange();
    __int64 const diskGrainIndex = calcCurrentDiskGrainIndex();
    if (m_fallbackDataProvider)
        m_fallbackDataProvider->getPreparedGrainData(calcDiskPosition(diskGrainIndex, 0), data,
                                                     static_cast<int>(m_grainSizeBytes),
                                                     m_compressed);
    else
        fillWithPreparedZeroGrain(data, diskGrainIndex);
    m_position += m_grainSizeBytes;
    assert(isCursorInside());
}

void CVMDKNullExtentFile::verifyPreparedGrainRange() const {
    verifyGrainSize();
    // Deliberate: the code is `NotAllowed`, where `read` has `UnexpectedEnd`.
    if (m_grainSizeBytes > m_extentSizeBytes - m_position)
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "Prepared grain read exceeds VMDK extent size.",
                           uriProps()
                               .add("position", yx::toString(m_position))
                               .add("grainSize", yx::toString(m_grainSizeBytes))
                               .add("extentSize", yx::toString(m_extentSizeBytes)),
                           nullptr);
    if (m_position % m_grainSizeBytes != 0)
        throw yx::CIOError(
            yx::CIOError::NotAligned,
            "Prepared grain read in VMDK extent file can only be done on a grain boundary.",
            uriProps()
                .add("position", yx::toString(m_position))
                .add("grainSize", yx::toString(m_grainSizeBytes)),
            nullptr);
}

void CVMDKNullExtentFile::fillWithPreparedZeroGrain(yx::TBuffer<unsigned char>& data,
                                                    __int64 diskGrainIndex) {
    if (!m_dataPreparer)
        m_dataPreparer = createDataPreparer();
    data.assign(m_preparedZeroGrain.get(*m_dataPreparer, m_grainSizeBytes, diskGrainIndex));
}

} // namespace kelm
