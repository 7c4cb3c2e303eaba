#include "kelm/graindata/compressor.h"

#include "compressors/miniz_compressor.h"
#include "compressors/zlib_compressor.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm {

namespace {

constexpr int kEffectiveDefaultLevel = 1;
constexpr int kStoringLevel = 0;
constexpr int kCompressionFailed = -1;

} // namespace

CVMDKCompressor::CVMDKCompressor(int level)
    : m_level(level == kDefaultLevel ? kEffectiveDefaultLevel : level),
      m_fallbackCompressor(yx::makeObject<zlu::CZLibCompressor>(kStoringLevel)) {
    if (m_level == kStoringLevel)
        m_compressor = m_fallbackCompressor;
    else
        m_compressor = yx::makeObject<mzu::CMiniZCompressor>(m_level);
}

yx::String CVMDKCompressor::getInternalDesc() const {
    return "smart-" + m_compressor->getInternalDesc();
}

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    // The bound is that of the fallback, the one coder which always keeps what it promises.
    int const boundBytes = m_fallbackCompressor->getCompressedSizeUpperBound(sourceSize);
    __int64 const roundedBytes =
        roundUpToMultiple(boundBytes, kSectorSizeBytes) - kGrainRecordHeaderSizeBytes;
    return roundedBytes < boundBytes ? boundBytes : static_cast<int>(roundedBytes);
}

int CVMDKCompressor::compressSingleStep(void const* source, int sourceSize, void* target,
                                        int targetSize) {
    int const size = m_compressor->compressSingleStep(source, sourceSize, target, targetSize);
    if (size != kCompressionFailed &&
        (size <= sourceSize || size <= getCompressedSizeUpperBound(sourceSize)))
        return size;
    // Deliberate: this counts at level 0 too, where the other coder is the same one, and its result
    // is passed on as it is.
    ++m_compressFallbackCount;
    return m_fallbackCompressor->compressSingleStep(source, sourceSize, target, targetSize);
}

int CVMDKCompressor::decompressSingleStep(void const* source, int sourceSize, void* target,
                                          int targetSize) {
    return m_compressor->decompressSingleStep(source, sourceSize, target, targetSize);
}

} // namespace kelm
