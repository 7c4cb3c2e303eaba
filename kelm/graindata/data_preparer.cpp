#include "kelm/graindata/data_preparer.h"

#include <cassert>

#include "kelm/graindata/compressor.h"
#include "kelm/graindata/internal/grain_record.h"
#include "yx/error.h"

namespace kelm {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

constexpr char kPreparerConstructorName[] = "CVMDKDataPreparer constructor";
constexpr char kPrepareName[] = "CVMDKDataPreparer::prepareGrainData";
constexpr char kUnprepareName[] = "CVMDKDataPreparer::unprepareGrainData";
constexpr char kUnprepareToName[] = "CVMDKDataPreparer::unprepareGrainDataTo";

void verifyBuffersGiven(char const* function, Buffer const* source, Buffer const* aux) {
    if (!source)
        throw yx::CInvalidArgError(function, "pSourceBuffer must not be NULL", yx::CProps());
    if (!aux)
        throw yx::CInvalidArgError(function, "pAuxBuffer must not be NULL", yx::CProps());
}

void verifyBuffersDiffer(char const* function, Buffer const* source, Buffer const* aux) {
    if (source == aux)
        throw yx::CInvalidArgError(function, "source and auxiliary buffer must not be the same",
                                   yx::CProps());
}

void verifyHasRecordHeader(Buffer const& prepared) {
    if (prepared.getUsed() < kGrainRecordHeaderSizeBytes)
        throw yx::CIOError(
            yx::CIOError::CorruptData,
            "Prepared VMDK grain data is too short: " + yx::toString(prepared.getUsed()) + " bytes",
            yx::CProps(), nullptr);
}

/// Fills the buffer with zeros from `beginBytes` to its end.
void clearRest(Buffer& buffer, int beginBytes) {
    yx::initMemory(buffer.getData() + beginBytes, 0,
                   static_cast<std::size_t>(buffer.getUsed() - beginBytes));
}

} // namespace

CVMDKDataPreparer::CVMDKDataPreparer(__int64 grainSizeSectors, bool compressed,
                                     int compressionLevel)
    : m_grainSizeSectors(grainSizeSectors) {
    if (grainSizeSectors < 1 || grainSizeSectors > kMaxGrainSizeSectors)
        throw yx::CInvalidArgError(
            kPreparerConstructorName,
            "Invalid grain size: " + yx::toString(grainSizeSectors) + " sectors", yx::CProps());
    m_grainSizeBytes = grainSizeSectors * kSectorSizeBytes;
    m_worstCaseGrainSizeSectors = grainSizeSectors;
    if (!compressed)
        return;
    m_compressor = yx::makeObject<CVMDKCompressor>(compressionLevel);
    m_compressedSizeUpperBound =
        m_compressor->getCompressedSizeUpperBound(static_cast<int>(m_grainSizeBytes));
    m_worstCaseGrainSizeSectors =
        roundUpToSectors(m_compressedSizeUpperBound + kGrainRecordHeaderSizeBytes);
    assert(m_worstCaseGrainSizeSectors >= m_grainSizeSectors);
}

CVMDKDataPreparer::CVMDKDataPreparer(CVMDKDataPreparer const&) = default;
CVMDKDataPreparer& CVMDKDataPreparer::operator=(CVMDKDataPreparer const&) = default;
CVMDKDataPreparer::~CVMDKDataPreparer() = default;

unsigned long long CVMDKDataPreparer::calcLBA(__int64 grainIndex) const {
    return static_cast<unsigned long long>(m_grainSizeSectors) *
           static_cast<unsigned long long>(grainIndex);
}

yx::P<Buffer> CVMDKDataPreparer::prepareGrainData(Buffer* source, __int64 grainIndex, Buffer* aux) {
    // Deliberately checked without compression too, so that a caller's mistake shows with every
    // kind of extent.
    verifyBuffersGiven(kPrepareName, source, aux);
    if (source->getUsed() > m_grainSizeBytes)
        throw yx::CInvalidArgError(kPrepareName,
                                   "source buffer is bigger than grain size (" +
                                       yx::toString(m_grainSizeBytes) + ").",
                                   yx::CProps());
    if (!m_compressor)
        return source;
    verifyBuffersDiffer(kPrepareName, source, aux);

    aux->setUsed(static_cast<int>(m_worstCaseGrainSizeSectors * kSectorSizeBytes));
    unsigned char* const record = aux->getData();
    int const compressedSizeBytes = m_compressor->compressSingleStep(
        source->getData(), source->getUsed(), record + kGrainRecordHeaderSizeBytes,
        static_cast<int>(m_compressedSizeUpperBound));
    // Storing the record anyway would show as damage only when the grain is read again.
    if (compressedSizeBytes < 0)
        throw yx::CError("Not enough memory to compress.", "", -1, yx::CProps(), nullptr);
    assert(compressedSizeBytes <= m_compressedSizeUpperBound);
    storeGrainRecordLBA(record, calcLBA(grainIndex));
    storeGrainRecordCompressedSize(record, static_cast<unsigned int>(compressedSizeBytes));

    int const recordSizeBytes = compressedSizeBytes + kGrainRecordHeaderSizeBytes;
    aux->setUsed(static_cast<int>(roundUpToMultiple(recordSizeBytes, kSectorSizeBytes)));
    clearRest(*aux, recordSizeBytes);
    assert(aux->getUsed() % kSectorSizeBytes == 0);
    assert(aux->getUsed() <= m_worstCaseGrainSizeSectors * kSectorSizeBytes);
    return aux;
}

yx::P<Buffer> CVMDKDataPreparer::unprepareGrainData(Buffer* source, Buffer* aux) {
    if (!m_compressor)
        return source;
    verifyBuffersGiven(kUnprepareName, source, aux);
    verifyBuffersDiffer(kUnprepareName, source, aux);
    verifyHasRecordHeader(*source);

    aux->setUsed(static_cast<int>(m_grainSizeBytes));
    decode(*source, aux->getData());
    return aux;
}

void CVMDKDataPreparer::unprepareGrainDataTo(Buffer* source, void* target) {
    if (!m_compressor)
        throw yx::CInvalidArgError(kUnprepareToName, "grains are not compressed", yx::CProps());
    if (!source)
        throw yx::CInvalidArgError(kUnprepareToName, "pSourceBuffer must not be NULL",
                                   yx::CProps());
    verifyHasRecordHeader(*source);
    decode(*source, static_cast<unsigned char*>(target));
}

void CVMDKDataPreparer::decode(Buffer const& source, unsigned char* target) {
    // Deliberately ignores the size in the header: the decoder finds the end of the stream by
    // itself, so it may be given the padding too.
    int const plainSizeBytes = m_compressor->decompressSingleStep(
        source.getData() + kGrainRecordHeaderSizeBytes,
        source.getUsed() - kGrainRecordHeaderSizeBytes, target, static_cast<int>(m_grainSizeBytes));
    assert(plainSizeBytes >= 0 && plainSizeBytes <= m_grainSizeBytes);
    yx::initMemory(target + plainSizeBytes, 0,
                   static_cast<std::size_t>(m_grainSizeBytes - plainSizeBytes));
}

void CVMDKDataPreparer::patchGrainIndexInPreparedGrainData(Buffer& prepared, __int64 grainIndex) {
    if (!m_compressor)
        return;
    verifyHasRecordHeader(prepared);
    storeGrainRecordLBA(prepared.getData(), calcLBA(grainIndex));
}

} // namespace kelm
