#include <libdeflate.h>

#include "compressors/internal/mzu_coder.h"
#include "compressors/internal/sufficient_target.h"

namespace mzu {

namespace {

struct FreeLibdeflate {
    void operator()(libdeflate_compressor* compressor) const {
        libdeflate_free_compressor(compressor);
    }
    void operator()(libdeflate_decompressor* decompressor) const {
        libdeflate_free_decompressor(decompressor);
    }
};

class CLibdeflateEncoder : public IEncoder {
public:
    explicit CLibdeflateEncoder(int level) : m_level(level) {}

    std::size_t compress(void const* source, std::size_t sourceSizeBytes, void* target,
                         std::size_t targetSizeBytes) override {
        if (!m_compressor)
            m_compressor.reset(libdeflate_alloc_compressor(m_level));
        if (!m_compressor)
            return 0;
        // libdeflate gives up when fewer bytes than it likes to have are left behind its output,
        // also where the result would have fitted. Only its bound is sure to be enough.
        return compressIntoAnyTarget(getSizeUpperBound(sourceSizeBytes), target, targetSizeBytes,
                                     [&](void* enough, std::size_t enoughBytes) {
                                         return libdeflate_zlib_compress(m_compressor.get(), source,
                                                                         sourceSizeBytes, enough,
                                                                         enoughBytes);
                                     });
    }

private:
    int m_level;
    std::unique_ptr<libdeflate_compressor, FreeLibdeflate> m_compressor;
};

class CLibdeflateDecoder : public IDecoder {
public:
    DecodeResult decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                            std::size_t targetSizeBytes) override {
        if (!m_decompressor)
            m_decompressor.reset(libdeflate_alloc_decompressor());
        if (!m_decompressor)
            return {DecodeStatus::NoMemory, 0};

        std::size_t sizeBytes = 0;
        if (libdeflate_zlib_decompress(m_decompressor.get(), source, sourceSizeBytes, target,
                                       targetSizeBytes, &sizeBytes) != LIBDEFLATE_SUCCESS)
            return {DecodeStatus::CorruptData, 0};
        return {DecodeStatus::Ok, sizeBytes};
    }

private:
    std::unique_ptr<libdeflate_decompressor, FreeLibdeflate> m_decompressor;
};

} // namespace

std::unique_ptr<IEncoder> makeEncoder(int level) {
    return std::make_unique<CLibdeflateEncoder>(level);
}

std::unique_ptr<IDecoder> makeDecoder() {
    return std::make_unique<CLibdeflateDecoder>();
}

std::size_t getSizeUpperBound(std::size_t sourceSizeBytes) {
    // Without a compressor, libdeflate's bound holds for all of its levels.
    return libdeflate_zlib_compress_bound(nullptr, sourceSizeBytes);
}

} // namespace mzu
