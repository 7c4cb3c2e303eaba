#include "compressors/zlib_compressor.h"

#include <new>

#include <zlib.h>

#include "compressors/internal/single_step.h"

namespace zlu {

namespace {

void setBuffers(z_stream& stream, void const* source, int sourceSizeBytes, void* target,
                int targetSizeBytes) {
    // zlib takes the source by a pointer to non-const bytes, but only reads it.
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(source));
    stream.avail_in = static_cast<uInt>(sourceSizeBytes);
    stream.next_out = static_cast<Bytef*>(target);
    stream.avail_out = static_cast<uInt>(targetSizeBytes);
}

} // namespace

class CZLibCompressor::CDeflater {
public:
    /// Throws `std::bad_alloc`, the only way to fail with a level in range.
    explicit CDeflater(int level) {
        if (deflateInit(&m_stream, level) != Z_OK)
            throw std::bad_alloc();
    }
    CDeflater(CDeflater const&) = delete;
    CDeflater& operator=(CDeflater const&) = delete;
    ~CDeflater() { deflateEnd(&m_stream); }

    /// The compressed size, or -1 if it exceeds the target.
    int run(void const* source, int sourceSizeBytes, void* target, int targetSizeBytes) {
        deflateReset(&m_stream);
        setBuffers(m_stream, source, sourceSizeBytes, target, targetSizeBytes);
        if (deflate(&m_stream, Z_FINISH) != Z_STREAM_END)
            return -1;
        return targetSizeBytes - static_cast<int>(m_stream.avail_out);
    }

private:
    z_stream m_stream{};
};

class CZLibCompressor::CInflater {
public:
    CInflater() {
        if (inflateInit(&m_stream) != Z_OK)
            single_step::throwNoMemory();
    }
    CInflater(CInflater const&) = delete;
    CInflater& operator=(CInflater const&) = delete;
    ~CInflater() { inflateEnd(&m_stream); }

    int run(void const* source, int sourceSizeBytes, void* target, int targetSizeBytes) {
        inflateReset(&m_stream);
        // zlib refuses to run without a target, even for a stream of nothing.
        unsigned char nowhere = 0;
        setBuffers(m_stream, source, sourceSizeBytes, target ? target : &nowhere, targetSizeBytes);
        int const result = inflate(&m_stream, Z_FINISH);
        if (result == Z_MEM_ERROR)
            single_step::throwNoMemory();
        if (result != Z_STREAM_END)
            single_step::throwCorruptData(sourceSizeBytes, targetSizeBytes);
        return targetSizeBytes - static_cast<int>(m_stream.avail_out);
    }

private:
    z_stream m_stream{};
};

CZLibCompressor::CZLibCompressor(int level) : m_level(single_step::effectiveLevel(level)) {}

CZLibCompressor::~CZLibCompressor() = default;

yx::String CZLibCompressor::getInternalDesc() const {
    return "zlib";
}

int CZLibCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    // deflateBound gives the same number for these streams, but adds 4 on a state that has been
    // used and not yet reset, and needs a state at all. Grain slots are sized by this bound, so it
    // must not depend on what was done before.
    return single_step::sizeUpperBound("CZLibCompressor::getCompressedSizeUpperBound", sourceSize,
                                       compressBound);
}

int CZLibCompressor::compressSingleStep(void const* source, int sourceSize, void* target,
                                        int targetSize) {
    single_step::checkArguments("CZLibCompressor::compressSingleStep", source, sourceSize, target,
                                targetSize);
    try {
        if (!m_deflater)
            m_deflater = std::make_unique<CDeflater>(m_level);
    } catch (std::bad_alloc const&) {
        return -1;
    }
    return m_deflater->run(source, sourceSize, target, targetSize);
}

int CZLibCompressor::decompressSingleStep(void const* source, int sourceSize, void* target,
                                          int targetSize) {
    single_step::checkArguments("CZLibCompressor::decompressSingleStep", source, sourceSize, target,
                                targetSize);
    if (!m_inflater)
        m_inflater = std::make_unique<CInflater>();
    return m_inflater->run(source, sourceSize, target, targetSize);
}

} // namespace zlu
