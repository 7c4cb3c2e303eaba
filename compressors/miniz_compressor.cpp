#include "compressors/miniz_compressor.h"

#include <cassert>

#include "compressors/internal/mzu_coder.h"
#include "compressors/internal/single_step.h"

namespace mzu {

namespace {

constexpr int kFastestLevel = 1;

std::unique_ptr<IEncoder> makeEncoderOfLevel(int level) {
    if (level == kFastestLevel) {
        if (std::unique_ptr<IEncoder> fastest = makeFastestEncoder())
            return fastest;
    }
    return makeEncoder(level);
}

} // namespace

CMiniZCompressor::CMiniZCompressor(int level)
    : m_encoder(makeEncoderOfLevel(single_step::effectiveLevel(level))), m_decoder(makeDecoder()) {}

CMiniZCompressor::~CMiniZCompressor() = default;

yx::String CMiniZCompressor::getInternalDesc() const {
    return "miniz";
}

int CMiniZCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    return single_step::sizeUpperBound("CMiniZCompressor::getCompressedSizeUpperBound", sourceSize,
                                       getSizeUpperBound);
}

int CMiniZCompressor::compressSingleStep(void const* source, int sourceSize, void* target,
                                         int targetSize) {
    single_step::checkArguments("CMiniZCompressor::compressSingleStep", source, sourceSize, target,
                                targetSize);
    unsigned char nothing = 0;
    std::size_t const sizeBytes =
        m_encoder->compress(source ? source : &nothing, static_cast<std::size_t>(sourceSize),
                            target ? target : &nothing, static_cast<std::size_t>(targetSize));
    assert(sizeBytes <= static_cast<std::size_t>(targetSize));
    return sizeBytes > 0 ? static_cast<int>(sizeBytes) : -1;
}

int CMiniZCompressor::decompressSingleStep(void const* source, int sourceSize, void* target,
                                           int targetSize) {
    single_step::checkArguments("CMiniZCompressor::decompressSingleStep", source, sourceSize,
                                target, targetSize);
    unsigned char nothing = 0;
    DecodeResult const result =
        m_decoder->decompress(source ? source : &nothing, static_cast<std::size_t>(sourceSize),
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
