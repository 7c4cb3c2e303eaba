#include <new>

#include <libdeflate.h>

#include "compressors/internal/mzu_coder.h"
#include "yx/memory.h"

namespace mzu {

namespace {

struct Free {
    void operator()(libdeflate_compressor* compressor) const {
        libdeflate_free_compressor(compressor);
    }
    void operator()(libdeflate_decompressor* decompressor) const {
        libdeflate_free_decompressor(decompressor);
    }
};

} // namespace

struct CCoder::State {
    std::unique_ptr<libdeflate_compressor, Free> compressor;
    std::unique_ptr<libdeflate_decompressor, Free> decompressor;
};

CCoder::CCoder(int level) : m_level(level), m_state(std::make_unique<State>()) {}

CCoder::~CCoder() = default;

std::size_t CCoder::getSizeUpperBound(std::size_t sourceSizeBytes) {
    // Without a compressor, libdeflate's bound holds for all of its levels.
    return libdeflate_zlib_compress_bound(nullptr, sourceSizeBytes);
}

std::size_t CCoder::compress(void const* source, std::size_t sourceSizeBytes, void* target,
                             std::size_t targetSizeBytes) {
    auto& compressor = m_state->compressor;
    if (!compressor)
        compressor.reset(libdeflate_alloc_compressor(m_level));
    if (!compressor)
        return 0;

    // libdeflate gives up when fewer bytes than it likes to have are left behind its output, also
    // where the result would have fitted. Only its bound is sure to be enough.
    std::size_t const boundBytes = getSizeUpperBound(sourceSizeBytes);
    if (targetSizeBytes >= boundBytes)
        return libdeflate_zlib_compress(compressor.get(), source, sourceSizeBytes, target,
                                        targetSizeBytes);
    std::unique_ptr<unsigned char[]> const result(new (std::nothrow) unsigned char[boundBytes]);
    if (!result)
        return 0;
    std::size_t const sizeBytes = libdeflate_zlib_compress(
        compressor.get(), source, sourceSizeBytes, result.get(), boundBytes);
    if (sizeBytes > targetSizeBytes)
        return 0;
    yx::copyMemory(target, result.get(), sizeBytes);
    return sizeBytes;
}

DecodeResult CCoder::decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                                std::size_t targetSizeBytes) {
    auto& decompressor = m_state->decompressor;
    if (!decompressor)
        decompressor.reset(libdeflate_alloc_decompressor());
    if (!decompressor)
        return {DecodeStatus::NoMemory, 0};

    std::size_t sizeBytes = 0;
    if (libdeflate_zlib_decompress(decompressor.get(), source, sourceSizeBytes, target,
                                   targetSizeBytes, &sizeBytes) != LIBDEFLATE_SUCCESS)
        return {DecodeStatus::CorruptData, 0};
    return {DecodeStatus::Ok, sizeBytes};
}

} // namespace mzu
