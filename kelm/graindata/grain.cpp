#include "kelm/graindata/grain.h"

#include <cassert>
#include <limits>

#include "kelm/format/internal/uri_props.h"
#include "kelm/graindata/internal/grain_record.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

namespace {

constexpr char kGrainConstructorName[] = "CVMDKGrain constructor";
constexpr char kGrainOpenName[] = "CVMDKGrain::open";
constexpr char kGrainSeekName[] = "CVMDKGrain::seek";

constexpr __int64 kClosed = -1;

constexpr __int64 kMaxPositionBytes = std::numeric_limits<__int64>::max();

} // namespace

CVMDKGrain::CVMDKGrain(yx::IIOStream* stream, yx::IIOStream::Access access,
                       __int64 grainSizeSectors, IVMDKGrainAllocator* allocator, bool compressed,
                       int compressionLevel, IVMDKDataProvider* fallbackDataProvider,
                       krym::ICipher* cipher, yx::TCryptBuffer<unsigned char> const& encryptionKey,
                       yx::TBuffer<unsigned char> const& encryptionIV)
    : m_stream(stream),
      m_access(access),
      m_allocator(allocator),
      m_grainSizeSectors(grainSizeSectors),
      m_compressed(compressed),
      m_compressionLevel(compressionLevel),
      m_fallbackDataProvider(fallbackDataProvider),
      m_cipher(cipher),
      m_cipherBlockSize(cipher ? cipher->getBlockSize() : 0),
      m_encryptionKey(encryptionKey),
      m_encryptionIV(encryptionIV) {
    verifySizes();
    m_grainSizeBytes = m_grainSizeSectors * kSectorSizeBytes;
    m_dataPreparer = createDataPreparer();
    m_worstCaseGrainSizeSectors = calcWorstCaseGrainSizeSectors();
    assert(m_worstCaseGrainSizeSectors >= m_grainSizeSectors);
    assert(isStateSound());
}

CVMDKGrain::CVMDKGrain(CVMDKGrain const&) = default;
CVMDKGrain& CVMDKGrain::operator=(CVMDKGrain const&) = default;

CVMDKGrain::~CVMDKGrain() {
    try {
        close();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKGrain", error, true);
    }
}

/// For assertions: what is true between operations, also after failures.
bool CVMDKGrain::isStateSound() const {
    bool const isPositionSound = m_posInGrain >= 0 && m_posInGrain <= m_grainSizeBytes;
    bool const isLoadedWhole = !isLoaded() || m_grainData.getUsed() == m_grainSizeBytes;
    bool const areChangesLoaded = !m_dirty || (isLoaded() && isOpen());
    // An abandoned slot is used only while the grain has no position.
    bool const isPlaceSound = m_abandonedPosSectors == 0 || m_grainPosSectors == 0;
    return isPositionSound && isLoadedWhole && areChangesLoaded && isPlaceSound;
}

void CVMDKGrain::verifySizes() const {
    if (m_grainSizeSectors < 1 || m_grainSizeSectors > CVMDKDataPreparer::kMaxGrainSizeSectors)
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid grain size of VMDK grain: " + yx::toString(m_grainSizeSectors) +
                               " sectors",
                           uriProps(), nullptr);
    if (m_cipher && (m_cipherBlockSize < 1 || m_cipherBlockSize > kSectorSizeBytes))
        throw yx::CInvalidArgError(
            kGrainConstructorName,
            "Invalid block size of cipher: " + yx::toString(m_cipherBlockSize) + " bytes",
            uriProps());
}

__int64 CVMDKGrain::calcWorstCaseGrainSizeSectors() const {
    __int64 const plainSectors = m_dataPreparer->getWorstCaseGrainSizeSectors();
    if (!m_cipher)
        return plainSectors;
    int const headerSizeBytes = m_compressed ? kGrainRecordHeaderSizeBytes : 0;
    __int64 const encipheredBytes =
        roundUpToMultiple(plainSectors * kSectorSizeBytes - headerSizeBytes, m_cipherBlockSize);
    return roundUpToSectors(encipheredBytes + headerSizeBytes);
}

yx::P<CVMDKDataPreparer> CVMDKGrain::createDataPreparer() {
    return yx::makeObject<CVMDKDataPreparer>(m_grainSizeSectors, m_compressed, m_compressionLevel);
}

void CVMDKGrain::setFallbackDataProvider(IVMDKDataProvider* provider) {
    m_fallbackDataProvider = provider;
}

void CVMDKGrain::open(__int64 extentGrainIndex, __int64 diskGrainIndex, __int64 posSectors,
                      __int64 slotSizeSectors) {
    flushChangesToStream();
    // Before the checks, so that the grain is closed if one of them fails.
    resetToClosed();
    if (posSectors >= 1)
        verifySlot(slotSizeSectors);
    verifyPlace(diskGrainIndex, posSectors);
    m_extentGrainIndex = extentGrainIndex;
    m_diskGrainIndex = diskGrainIndex;
    m_grainPosSectors = posSectors;
    m_slotSizeSectors = posSectors >= 1 ? slotSizeSectors : 0;
    assert(isStateSound());
}

void CVMDKGrain::verifySlot(__int64 slotSizeSectors) const {
    if (m_compressed && slotSizeSectors < 1)
        throw yx::CInvalidArgError(kGrainOpenName,
                                   "Invalid slot size for allocated compressed grain: " +
                                       yx::toString(slotSizeSectors) + " sectors",
                                   yx::CProps());
    // Deliberate: the message has no closing bracket; logs are searched for it as it is.
    if (!m_compressed && slotSizeSectors < m_grainSizeSectors)
        throw yx::CInvalidArgError(
            kGrainOpenName,
            "Slot size for allocated uncompressed grain is smaller than the grain size (slot "
            "size: " +
                yx::toString(slotSizeSectors) +
                " sectors, grain size: " + yx::toString(m_grainSizeSectors) + " sectors",
            yx::CProps());
}

void CVMDKGrain::verifyPlace(__int64 diskGrainIndex, __int64 posSectors) const {
    if (posSectors > kMaxPositionSectors)
        throw yx::CInvalidArgError(
            kGrainOpenName, "Invalid grain position: " + yx::toString(posSectors) + " sectors",
            yx::CProps());
    if (diskGrainIndex < 0 || diskGrainIndex >= kMaxPositionBytes / m_grainSizeBytes)
        throw yx::CInvalidArgError(kGrainOpenName,
                                   "Invalid disk grain index: " + yx::toString(diskGrainIndex),
                                   yx::CProps());
}

void CVMDKGrain::close() {
    flushChangesToStream();
    resetToClosed();
}

void CVMDKGrain::resetToClosed() {
    m_extentGrainIndex = kClosed;
    m_diskGrainIndex = kClosed;
    m_grainPosSectors = kClosed;
    m_slotSizeSectors = kClosed;
    m_abandonedPosSectors = 0;
    m_posInGrain = 0;
    dropLoadedData();
    assert(!isOpen() && isStateSound());
}

void CVMDKGrain::dropLoadedData() {
    m_grainData.setUsed(0);
    m_preparedData.setUsed(0);
    m_dirty = false;
}

bool CVMDKGrain::isOpen() const {
    return m_grainPosSectors != kClosed;
}

void CVMDKGrain::seek(__int64 position) {
    // Deliberate: the grain's end is refused, although reading can lead there. The extent opens
    // the next grain instead.
    if (position < 0 || position >= m_grainSizeBytes)
        throw yx::CInvalidArgError(kGrainSeekName,
                                   "Invalid seek position in VMDK grain: " + yx::toString(position),
                                   uriProps()
                                       .add("position", yx::toString(position))
                                       .add("grainSize", yx::toString(m_grainSizeBytes)));
    m_posInGrain = position;
}

__int64 CVMDKGrain::getPosition() const {
    return isOpen() ? m_posInGrain : 0;
}

int CVMDKGrain::getBytesLeft() {
    return isOpen() ? static_cast<int>(m_grainSizeBytes - m_posInGrain) : 0;
}

bool CVMDKGrain::isGrainWritten() {
    if (isGrainWrittenAndIndependentOfParent())
        return true;
    return m_fallbackDataProvider && m_fallbackDataProvider->isGrainWritten(calcDiskPosition());
}

bool CVMDKGrain::isGrainWrittenAndIndependentOfParent() {
    return m_dirty || m_grainPosSectors != 0 || m_abandonedPosSectors != 0;
}

__int64 CVMDKGrain::calcDiskPosition() const {
    return m_diskGrainIndex * m_grainSizeBytes;
}

void CVMDKGrain::seekToGrain() {
    assert(getStoredPosSectors() > 0);
    m_stream->seek(getStoredPosSectors() * kSectorSizeBytes);
}

/// Makes a long-lived buffer grow once, instead of a little with each larger record.
void CVMDKGrain::reserveWorstCase(yx::TBuffer<unsigned char>& buffer) const {
    buffer.ensureAllocated(static_cast<int>(m_worstCaseGrainSizeSectors * kSectorSizeBytes));
}

void CVMDKGrain::makeCurrentGrainIV() {
    // The cipher gets a bare pointer and reads a whole block from it.
    if (m_encryptionIV.getUsed() < m_cipherBlockSize)
        throw yx::CInvalidArgError(kGrainConstructorName,
                                   "Initialization vector is shorter than a cipher block (size: " +
                                       yx::toString(m_encryptionIV.getUsed()) +
                                       " bytes, block size: " + yx::toString(m_cipherBlockSize) +
                                       " bytes)",
                                   uriProps());
    makeGrainEncryptIV(m_grainIV, m_encryptionIV, m_diskGrainIndex);
}

yx::CProps CVMDKGrain::uriProps() const {
    return uriPropsOf(*m_stream);
}

yx::CProps CVMDKGrain::placeProps() const {
    return uriProps()
        .add("posInGrain", yx::toString(m_posInGrain))
        .add("diskGrainIndex", yx::toString(m_diskGrainIndex))
        .add("extentGrainIndex", yx::toString(m_extentGrainIndex));
}

} // namespace kelm
