#include <cassert>
#include <climits>

#include "kelm/graindata/grain.h"
#include "kelm/graindata/grain_cipher.h"
#include "kelm/graindata/internal/record_cipher.h"
#include "yx/error.h"

namespace kelm {

namespace {

using Slice = yx::TConstBufferSlice<unsigned char>;

// Deliberate: a negative size is reported as if it came from `read`; logs are searched for it.
constexpr char kNegativeSizeName[] = "CVMDKGrain::read";
constexpr char kWriteName[] = "CVMDKGrain::write";
constexpr char kWritePreparedName[] = "CVMDKGrain::writePreparedGrainData";
constexpr char kWriteEncipheredName[] = "CVMDKGrain::writeEncipheredGrainData";
constexpr char kMakeIndependentName[] = "CVMDKGrain::makeIndependentOfParent";

Slice wholeOf(yx::TBuffer<unsigned char> const& buffer) {
    return {&buffer, 0, buffer.getUsed()};
}

} // namespace

void CVMDKGrain::write(void const* source, int size) {
    if (size == 0)
        return;
    // Deliberate: on a read-only grain a bad range is reported first; logs distinguish the two.
    verifyWriteRange(size);
    verifyWritable(kWriteName);
    if (size == m_grainSizeBytes)
        m_grainData.setUsed(size);
    else if (!isLoaded())
        readGrainData();
    yx::copyMemory(m_grainData.getData() + m_posInGrain, source, static_cast<std::size_t>(size));
    m_posInGrain += size;
    m_dirty = true;
    assert(isStateSound());
}

void CVMDKGrain::verifyWriteRange(int size) const {
    if (size < 0)
        throw yx::CInvalidArgError(kNegativeSizeName,
                                   "Invalid number of bytes to read: " + yx::toString(size),
                                   uriProps());
    if (m_posInGrain + size > m_grainSizeBytes)
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "Cannot write " + yx::toString(size) +
                               " bytes to grain. Grain size exceeded.",
                           uriProps(), nullptr);
}

void CVMDKGrain::verifyWritable(char const* function) const {
    auto const refuse = [function](char const* reason) {
        throw yx::CError(yx::String("Internal error: ") + function + " was called, but the grain " +
                             reason,
                         "", -1, yx::CProps(), nullptr);
    };
    if (m_access != yx::IIOStream::ReadWrite)
        refuse("was not opened for writing.");
    if (!isOpen())
        refuse("is not open.");
}

void CVMDKGrain::flushChangesToStream() {
    if (!m_dirty)
        return;
    assert(isStateSound());
    // Deliberate: the provider is not asked. Zeros over a parent's data are therefore dropped, and
    // the parent's data show again; hosts that must keep the zeros store the grain prepared.
    if (getStoredPosSectors() == 0 &&
        yx::isAllZero(m_grainData.getData(), static_cast<std::size_t>(m_grainSizeBytes))) {
        m_dirty = false;
        return;
    }
    yx::P<yx::TBuffer<unsigned char>> const prepared =
        m_dataPreparer->prepareGrainData(&m_grainData, m_diskGrainIndex, &m_preparedData);
    writePreparedGrainDataInternal(wholeOf(*prepared), false);
    m_dirty = false;
}

void CVMDKGrain::writePreparedGrainData(yx::TBuffer<unsigned char> const& data) {
    writePreparedGrainDataImpl(wholeOf(data), false);
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(Slice const& data) {
    writePreparedGrainDataImpl(data, true);
}

void CVMDKGrain::verifyMayWritePrepared(int dataSizeBytes) const {
    verifyWritable(kWritePreparedName);
    auto const refuse = [this, dataSizeBytes](char const* reason) {
        throw yx::CIOError(yx::CIOError::NotAllowed, yx::String(kWritePreparedName) + reason,
                           placeProps().add("preparedDataSize", yx::toString(dataSizeBytes)),
                           nullptr);
    };
    if (m_posInGrain != 0)
        refuse(" can only be called when the position in the grain is 0.");
    if (dataSizeBytes < 1)
        refuse(" called with zero-length prepared data.");
}

void CVMDKGrain::verifyEnciphered(char const* function) const {
    if (!m_cipher)
        throw yx::CError(yx::String("Internal error: ") + function +
                             " was called, but the grain is not enciphered.",
                         "", -1, uriProps(), nullptr);
}

void CVMDKGrain::writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data) {
    verifyEnciphered(kWriteEncipheredName);
    verifyMayWritePrepared(data.getUsed());
    CVMDKGrainCipher::verifyIsEnciphered(data, m_grainSizeBytes, m_compressed, m_cipherBlockSize);
    dropLoadedData();
    store(wholeOf(data), false);
    m_posInGrain = m_grainSizeBytes;
    assert(!isLoaded() && isStateSound());
}

void CVMDKGrain::writePreparedGrainDataImpl(Slice const& data, bool keepBuffer) {
    verifyMayWritePrepared(data.getLength());
    dropLoadedData();
    writePreparedGrainDataInternal(data, keepBuffer);
    m_posInGrain = m_grainSizeBytes;
    assert(!isLoaded() && isStateSound());
}

void CVMDKGrain::writePreparedGrainDataInternal(Slice const& data, bool keepBuffer) {
    if (!m_cipher) {
        store(data, keepBuffer);
        return;
    }
    makeCurrentGrainIV();
    if (m_compressed)
        encipherRecord(data);
    else
        encipherUncompressed(data);
    // The next grain reuses this buffer, so the stream must not keep it.
    store(wholeOf(m_cipherData), false);
}

void CVMDKGrain::encipherRecord(Slice const& data) {
    if (data.getLength() < kGrainRecordHeaderSizeBytes)
        throw yx::CIOError(
            yx::CIOError::CorruptData,
            "Prepared VMDK grain data is too short: " + yx::toString(data.getLength()) + " bytes",
            placeProps().add("preparedDataSize", yx::toString(data.getLength())), nullptr);
    reserveWorstCase(m_cipherData);
    RecordCipher{*m_cipher, m_encryptionKey, m_grainIV}.encipher(data.getData(), data.getLength(),
                                                                 m_cipherData);
}

void CVMDKGrain::encipherUncompressed(Slice const& data) {
    unsigned char const* source = data.getData();
    int sizeBytes = data.getLength();
    if (sizeBytes < m_grainSizeBytes) {
        sizeBytes = static_cast<int>(m_grainSizeBytes);
        source = padToGrain(data);
    }
    m_cipher->encrypt(m_encryptionKey, source, sizeBytes, m_cipherData, false, m_grainIV.getData());
    if (m_cipherData.getUsed() != m_grainSizeBytes)
        throw yx::CError("Internal error. Encrypted data in "
                         "CVMDKGrain::writePreparedGrainDataInternal has an unexpected size.",
                         "", -1,
                         yx::CProps()
                             .add("originalSize", yx::toString(data.getLength()))
                             .add("encryptedSize", yx::toString(m_cipherData.getUsed())),
                         nullptr);
}

unsigned char const* CVMDKGrain::padToGrain(Slice const& data) {
    auto const dataSizeBytes = static_cast<std::size_t>(data.getLength());
    m_paddedGrainData.setUsed(static_cast<int>(m_grainSizeBytes));
    yx::copyMemory(m_paddedGrainData.getData(), data.getData(), dataSizeBytes);
    yx::initMemory(m_paddedGrainData.getData() + dataSizeBytes, 0,
                   static_cast<std::size_t>(m_grainSizeBytes) - dataSizeBytes);
    return m_paddedGrainData.getData();
}

void CVMDKGrain::store(Slice const& data, bool keepBuffer) {
    __int64 const dataSizeSectors = roundUpToSectors(data.getLength());
    __int64 newSlotSizeSectors = m_compressed ? dataSizeSectors : m_grainSizeSectors;
    if (m_compressed && m_grainPosSectors > 0 && dataSizeSectors > m_slotSizeSectors) {
        // A grain that has grown once may grow again, so it gets the most that it can ever need.
        newSlotSizeSectors = m_worstCaseGrainSizeSectors;
        // Until there is a new slot, the tables point to the old one and reads use it.
        m_abandonedPosSectors = m_grainPosSectors;
        m_grainPosSectors = 0;
        m_slotSizeSectors = 0;
    }
    if (m_grainPosSectors > 0)
        overwrite(data, keepBuffer);
    else
        allocate(data, keepBuffer, static_cast<int>(newSlotSizeSectors));
    m_dirty = false;
    assert(m_abandonedPosSectors == 0);
    assert(roundUpToSectors(data.getLength()) <= m_slotSizeSectors);
}

void CVMDKGrain::overwrite(Slice const& data, bool keepBuffer) {
    // Only uncompressed data can be too big here. The bytes after the slot belong to other grains.
    if (roundUpToSectors(data.getLength()) > m_slotSizeSectors)
        throw yx::CInvalidArgError(
            kWritePreparedName,
            "Prepared data does not fit the slot of the grain (slot size: " +
                yx::toString(m_slotSizeSectors) +
                " sectors, prepared data size: " + yx::toString(data.getLength()) + " bytes)",
            placeProps());
    // Deliberate: the rest of the slot is left as it is, and the slot keeps its size.
    seekToGrain();
    if (keepBuffer)
        m_stream->writeKeepBuffer(data, nullptr);
    else
        m_stream->write(data.getData(), data.getLength(), nullptr);
}

void CVMDKGrain::allocate(Slice const& data, bool keepBuffer, int slotSizeSectors) {
    if (keepBuffer)
        m_grainPosSectors =
            m_allocator->allocNewGrainKeepBuffer(m_extentGrainIndex, data, slotSizeSectors);
    else
        m_grainPosSectors = m_allocator->allocNewGrain(m_extentGrainIndex, data.getData(),
                                                       data.getLength(), slotSizeSectors);
    m_slotSizeSectors = slotSizeSectors;
    m_abandonedPosSectors = 0;
}

__int64 CVMDKGrain::makeIndependentOfParent() {
    if (m_posInGrain != 0)
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "CVMDKGrain::makeIndependentOfParent can only be called when the "
                           "position in the grain is 0.",
                           placeProps(), nullptr);
    verifyWritable(kMakeIndependentName);
    // Deliberate: unlike below, the position stays at 0; the extent relies on neither.
    if (!m_fallbackDataProvider)
        return 0;
    if (getStoredPosSectors() >= 1) {
        m_posInGrain = m_grainSizeBytes;
        return m_grainSizeBytes;
    }
    // Deliberate: unflushed changes are replaced by the parent's data; hosts flush first.
    reserveWorstCase(m_parentPreparedData);
    m_fallbackDataProvider->getPreparedGrainData(calcDiskPosition(), m_parentPreparedData,
                                                 static_cast<int>(m_grainSizeBytes), m_compressed);
    writePreparedGrainData(m_parentPreparedData);
    return m_parentPreparedData.getUsed();
}

void CVMDKGrain::makeGrainEncryptIV(yx::TBuffer<unsigned char>& iv,
                                    yx::TBuffer<unsigned char> const& baseIV, __int64 grainIndex) {
    iv.assign(baseIV);
    auto const index = static_cast<unsigned long long>(grainIndex);
    for (int i = 0; i < iv.getUsed(); ++i) {
        auto const shift = static_cast<unsigned int>(i) % sizeof(index) * CHAR_BIT;
        iv.getData()[i] ^= static_cast<unsigned char>(index >> shift);
    }
}

} // namespace kelm
