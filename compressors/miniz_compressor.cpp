#include "compressors/miniz_compressor.h"

#include "compressors/internal/mzu_coder.h"
#include "compressors/internal/single_step.h"

namespace mzu {

CMiniZCompressor::CMiniZCompressor(int level)
    : m_coder(std::make_unique<CCoder>(single_step::effectiveLevel(level))) {}

CMiniZCompressor::~CMiniZCompressor() = default;

yx::String CMiniZCompressor::getInternalDesc() const {
    return "miniz";
}

int CMiniZCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    return single_step::sizeUpperBound("CMiniZCompressor::getCompressedSizeUpperBound", sourceSize,
                                       CCoder::getSizeUpperBound);
}

int CMiniZCompressor::compressSingleStep(void const* source, int sourceSize, void* target,
                                         int targetSize) {
    single_step::checkArguments("CMiniZCompressor::compressSingleStep", source, sourceSize, target,
                                targetSize);
    unsigned char nothing = 0;
    std::size_t const sizeBytes =
        m_coder->compress(source ? source : &nothing, static_cast<std::size_t>(sourceSize),
                          target ? target : &nothing, static_cast<std::size_t>(targetSize));
    return sizeBytes > 0 ? static_cast<int>(sizeBytes) : -1;
}

int CMiniZCompressor::decompressSingleStep(void const* source, int sourceSize, void* target,
                                           int targetSize) {
    single_step::checkArguments("CMiniZCompressor::decompressSingleStep", source, sourceSize,
                                target, targetSize);
    unsigned char nothing = 0;
    DecodeResult const result =
        m_coder->decompress(source ? source : &nothing, static_cast<std::size_t>(sourceSize),
                            target ? target : &nothing, static_cast<std::size_t>(targetSize));
    switch (result.status) {
    case DecodeStatus::Ok:
        return static_cast<int>(result.sizeBytes);
    case DecodeStatus::NoMemory:
        single_step::throwNoMemory();
    case DecodeStatus::CorruptData:
        break;
    }
    single_step::throwCorruptData(sourceSize, targetSize);
}

} // namespace mzu
