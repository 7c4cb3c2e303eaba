#include "kelm/graindata/compressor.h"

#include <cassert>

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

CVMDKCompressor::CVMDKCompressor(CVMDKCompressor const&) = default;
CVMDKCompressor& CVMDKCompressor::operator=(CVMDKCompressor const&) = default;
CVMDKCompressor::~CVMDKCompressor() = default;

yx::String CVMDKCompressor::getInternalDesc() const {
    return "smart-" + m_compressor->getInternalDesc();
}

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    // The bound is that of the fallback, the only coder that never exceeds its own bound.
    int const boundBytes = m_fallbackCompressor->getCompressedSizeUpperBound(sourceSize);
    assert(sourceSize < 0 || boundBytes >= sourceSize);
    __int64 const roundedBytes =
        roundUpToMultiple(boundBytes, kSectorSizeBytes) - kGrainRecordHeaderSizeBytes;
    return roundedBytes < boundBytes ? boundBytes : static_cast<int>(roundedBytes);
}

int CVMDKCompressor::compressSingleStep(void const* source, int sourceSize, void* target,
                                        int targetSize) {
    int const size = m_compressor->compressSingleStep(source, sourceSize, target, targetSize);
    assert(size == kCompressionFailed || (size >= 0 && size <= targetSize));
    if (size != kCompressionFailed &&
        (size <= sourceSize || size <= getCompressedSizeUpperBound(sourceSize)))
        return size;
    // Deliberate: at level 0 this counts as well, although both coders are the same object there.
    // The result of the second one is returned unchecked.
    ++m_compressFallbackCount;
    return m_fallbackCompressor->compressSingleStep(source, sourceSize, target, targetSize);
}

int CVMDKCompressor::decompressSingleStep(void const* source, int sourceSize, void* target,
                                          int targetSize) {
    return m_compressor->decompressSingleStep(source, sourceSize, target, targetSize);
}

} // namespace kelm
