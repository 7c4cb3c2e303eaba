#include <cassert>

#include "kelm/graindata/grain.h"
#include "kelm/graindata/internal/record_cipher.h"
#include "yx/error.h"

namespace kelm {

namespace {

constexpr char kGrainReadName[] = "CVMDKGrain::read";
constexpr char kReadEncipheredName[] = "CVMDKGrain::tryReadEncipheredGrainData";

/// A record whose compressed data exceed this many grains is treated as damaged.
constexpr int kMaxRecordGrains = 2;

/// Pads a deciphered record to whole sectors for as long as it lives. Deciphered records end with
/// their data, unlike plain ones, and decoders are many times slower over the last bytes of their
/// input. For a grain of zeros those are all that it has.
class RecordPadding {
public:
    explicit RecordPadding(yx::TBuffer<unsigned char>& record)
        : m_record(record), m_sizeBytes(record.getUsed()) {
        record.setUsed(static_cast<int>(roundUpToMultiple(m_sizeBytes, kSectorSizeBytes)));
        yx::initMemory(record.getData() + m_sizeBytes, 0,
                       static_cast<std::size_t>(record.getUsed() - m_sizeBytes));
    }
    RecordPadding(RecordPadding const&) = delete;
    RecordPadding& operator=(RecordPadding const&) = delete;
    ~RecordPadding() { m_record.setUsed(m_sizeBytes); }

private:
    yx::TBuffer<unsigned char>& m_record;
    int m_sizeBytes;
};

} // namespace

void CVMDKGrain::read(void* target, int size) {
    if (size == 0)
        return;
    verifyReadRange(size);
    if (getStoredPosSectors() == 0 && !isLoaded()) {
        readFallbackData(m_posInGrain, target, size);
    } else if (m_compressed && size == m_grainSizeBytes && !isLoaded() && !isRecordLoaded()) {
        readWholeCompressedGrain(target);
    } else {
        if (!isLoaded())
            readGrainData();
        yx::copyMemory(target, m_grainData.getData() + m_posInGrain,
                       static_cast<std::size_t>(size));
    }
    m_posInGrain += size;
    assert(isStateSound());
}

bool CVMDKGrain::isInFileAlone() const {
    return getStoredPosSectors() != 0 && !m_compressed && !m_cipher && !isLoaded();
}

void CVMDKGrain::skipToEnd() {
    if (isOpen())
        m_posInGrain = m_grainSizeBytes;
}

void CVMDKGrain::verifyReadRange(int size) const {
    if (size < 0)
        throw yx::CInvalidArgError(
            kGrainReadName, "Invalid number of bytes to read: " + yx::toString(size), uriProps());
    if (m_posInGrain + size > m_grainSizeBytes)
        throw yx::CIOError(yx::CIOError::UnexpectedEnd,
                           "Unexpected end of data trying to read " + yx::toString(size) +
                               " bytes from VMDK grain.",
                           uriProps()
                               .add("position", yx::toString(m_posInGrain))
                               .add("bytesToRead", yx::toString(size)),
                           nullptr);
}

void CVMDKGrain::readFallbackData(__int64 posInGrain, void* target, int size) {
    assert(posInGrain >= 0 && posInGrain + size <= m_grainSizeBytes);
    if (m_fallbackDataProvider)
        m_fallbackDataProvider->getData(calcDiskPosition() + posInGrain, target, size);
    else
        yx::initMemory(target, 0, static_cast<std::size_t>(size));
}

void CVMDKGrain::readGrainData() {
    try {
        loadGrainData();
    } catch (...) {
        m_grainData.setUsed(0);
        m_preparedData.setUsed(0);
        throw;
    }
}

/// Keeps the record, so that further reads of the grain need not access the file.
void CVMDKGrain::readWholeCompressedGrain(void* target) {
    try {
        loadRecord();
        RecordPadding const padding(m_preparedData);
        m_dataPreparer->unprepareGrainDataTo(&m_preparedData, target);
    } catch (...) {
        m_preparedData.setUsed(0);
        throw;
    }
}

void CVMDKGrain::loadRecord() {
    if (isRecordLoaded())
        return;
    seekToGrain();
    reserveWorstCase(m_preparedData);
    readCompressedGrain(m_preparedData);
}

void CVMDKGrain::loadGrainData() {
    m_grainData.setUsed(static_cast<int>(m_grainSizeBytes));
    if (getStoredPosSectors() == 0) {
        readFallbackData(0, m_grainData.getData(), m_grainData.getUsed());
        return;
    }
    if (!m_compressed) {
        seekToGrain();
        readUncompressedGrain(m_grainData);
        return;
    }
    loadRecord();
    RecordPadding const padding(m_preparedData);
    if (m_dataPreparer->unprepareGrainData(&m_preparedData, &m_grainData).get() != &m_grainData)
        throw yx::CError("Internal error. VMDK data unprepare returned original buffer instead of "
                         "aux buffer, even though compression is used.",
                         "", -1, yx::CProps(), nullptr);
}

void CVMDKGrain::readCompressedGrain(yx::TBuffer<unsigned char>& target) {
    if (m_cipher)
        reserveWorstCase(m_cipherData);
    unsigned int const compressedSizeBytes = readRecord(m_cipher ? m_cipherData : target);
    if (m_cipher) {
        decipherRecord(static_cast<int>(roundUpToMultiple(compressedSizeBytes, m_cipherBlockSize)),
                       target);
        // The fill of the last cipher block does not belong to the prepared form.
        target.setUsed(static_cast<int>(compressedSizeBytes) + kGrainRecordHeaderSizeBytes);
    }
}

/// Reads a record as the file holds it, up to a sector's end. Returns the size of its data.
unsigned int CVMDKGrain::readRecord(yx::TBuffer<unsigned char>& record) {
    record.setUsed(kSectorSizeBytes);
    m_stream->read(record.getData(), kSectorSizeBytes);

    unsigned int const compressedSizeBytes = verifiedCompressedSize(record.getData());
    __int64 const storedSizeBytes =
        m_cipher ? roundUpToMultiple(compressedSizeBytes, m_cipherBlockSize) : compressedSizeBytes;
    record.setUsed(static_cast<int>(
        roundUpToMultiple(storedSizeBytes + kGrainRecordHeaderSizeBytes, kSectorSizeBytes)));
    if (record.getUsed() > kSectorSizeBytes)
        m_stream->read(record.getData() + kSectorSizeBytes, record.getUsed() - kSectorSizeBytes);
    return compressedSizeBytes;
}

/// The compressed size from the record's header. Deliberately, `lba` is not checked: the grain
/// tables alone decide which grain a record belongs to.
unsigned int CVMDKGrain::verifiedCompressedSize(unsigned char const* record) const {
    unsigned int const compressedSizeBytes = loadGrainRecordCompressedSize(record);
    if (compressedSizeBytes > kMaxRecordGrains * m_grainSizeBytes)
        throw yx::CIOError(
            yx::CIOError::CorruptData,
            "Error reading compressed data from VMDK. Invalid compressed grain size.",
            uriProps()
                .add("position", yx::toString(getStoredPosSectors() * kSectorSizeBytes))
                .add("lba", yx::toString(loadGrainRecordLBA(record)))
                .add("compressedGrainSize", yx::toString(compressedSizeBytes)),
            nullptr);
    return compressedSizeBytes;
}

void CVMDKGrain::decipherRecord(int storedSizeBytes, yx::TBuffer<unsigned char>& target) {
    makeCurrentGrainIV();
    RecordCipher{*m_cipher, m_encryptionKey, m_grainIV}.decipher(m_cipherData.getData(),
                                                                 storedSizeBytes, target);
}

void CVMDKGrain::readUncompressedGrain(yx::TBuffer<unsigned char>& target) {
    target.setUsed(static_cast<int>(m_grainSizeBytes));
    if (!m_cipher) {
        m_stream->read(target.getData(), target.getUsed());
        return;
    }
    m_cipherData.setUsed(static_cast<int>(m_grainSizeBytes));
    m_stream->read(m_cipherData.getData(), m_cipherData.getUsed());
    makeCurrentGrainIV();
    m_cipher->decrypt(m_encryptionKey, m_cipherData.getData(), m_cipherData.getUsed(), target,
                      false, m_grainIV.getData());
    if (target.getUsed() != m_grainSizeBytes)
        throw yx::CError("Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is "
                         "not uncompressed grain size",
                         "", -1,
                         yx::CProps()
                             .add("decryptedSize", yx::toString(target.getUsed()))
                             .add("uncompressedGrainSize", yx::toString(m_grainSizeBytes)),
                         nullptr);
}

void CVMDKGrain::verifyMayReadPrepared() const {
    // Deliberate: the message names an operation that does not exist; logs are searched for it.
    if (m_posInGrain != 0)
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "CVMDKGrain::tryReadPreparedGrainData can only be called when the "
                           "position in the grain is 0.",
                           placeProps(), nullptr);
}

bool CVMDKGrain::tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& target) {
    verifyEnciphered(kReadEncipheredName);
    target.setUsed(0);
    verifyMayReadPrepared();
    flushChangesToStream();
    if (getStoredPosSectors() <= 0)
        return false;
    seekToGrain();
    if (m_compressed) {
        readRecord(target);
    } else {
        target.setUsed(static_cast<int>(m_grainSizeBytes));
        m_stream->read(target.getData(), target.getUsed());
    }
    m_posInGrain = m_grainSizeBytes;
    assert(!m_dirty && isStateSound());
    return true;
}

void CVMDKGrain::readPreparedGrainData(yx::TBuffer<unsigned char>& target) {
    target.setUsed(0);
    verifyMayReadPrepared();
    flushChangesToStream();
    if (getStoredPosSectors() > 0)
        readPreparedFromExtent(target);
    else if (m_fallbackDataProvider)
        m_fallbackDataProvider->getPreparedGrainData(
            calcDiskPosition(), target, static_cast<int>(m_grainSizeBytes), m_compressed);
    else {
        initZeroGrainData(m_diskGrainIndex);
        target.assign(m_preparedZeroGrain.getLast());
    }
    m_posInGrain = m_grainSizeBytes;
    assert(!m_dirty && isStateSound());
}

void CVMDKGrain::readPreparedFromExtent(yx::TBuffer<unsigned char>& target) {
    yx::TBuffer<unsigned char> const& loaded = m_compressed ? m_preparedData : m_grainData;
    if (loaded.getUsed() != 0) {
        target.assign(loaded);
        return;
    }
    seekToGrain();
    if (m_compressed)
        readCompressedGrain(target);
    else
        readUncompressedGrain(target);
}

void CVMDKGrain::initZeroGrainData(__int64 grainIndex) {
    m_preparedZeroGrain.get(*m_dataPreparer, m_grainSizeBytes, grainIndex);
}

} // namespace kelm
