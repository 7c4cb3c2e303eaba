// Names that zlib has too are left alone, so that both libraries can be used in one program.
#define MINIZ_NO_ZLIB_COMPATIBLE_NAMES

#if __has_include(<miniz/miniz.h>)
#include <miniz/miniz.h>
#else
#include <miniz.h>
#endif

#include "compressors/internal/mzu_coder.h"

namespace mzu {

namespace {

void setMinizBuffers(mz_stream& stream, void const* source, std::size_t sourceSizeBytes,
                     void* target, std::size_t targetSizeBytes) {
    stream.next_in = static_cast<unsigned char const*>(source);
    stream.avail_in = static_cast<unsigned int>(sourceSizeBytes);
    stream.next_out = static_cast<unsigned char*>(target);
    stream.avail_out = static_cast<unsigned int>(targetSizeBytes);
}

class CMinizEncoder : public IEncoder {
public:
    explicit CMinizEncoder(int level) : m_level(level) {}
    CMinizEncoder(CMinizEncoder const&) = delete;
    CMinizEncoder& operator=(CMinizEncoder const&) = delete;
    ~CMinizEncoder() override {
        if (m_isReady)
            mz_deflateEnd(&m_stream);
    }

    std::size_t compress(void const* source, std::size_t sourceSizeBytes, void* target,
                         std::size_t targetSizeBytes) override {
        if (m_isReady)
            mz_deflateReset(&m_stream);
        else if (mz_deflateInit(&m_stream, m_level) == MZ_OK)
            m_isReady = true;
        else
            return 0;

        setMinizBuffers(m_stream, source, sourceSizeBytes, target, targetSizeBytes);
        if (mz_deflate(&m_stream, MZ_FINISH) != MZ_STREAM_END)
            return 0;
        return targetSizeBytes - m_stream.avail_out;
    }

private:
    int m_level;
    mz_stream m_stream{};
    bool m_isReady = false;
};

class CMinizDecoder : public IDecoder {
public:
    CMinizDecoder() = default;
    CMinizDecoder(CMinizDecoder const&) = delete;
    CMinizDecoder& operator=(CMinizDecoder const&) = delete;
    ~CMinizDecoder() override {
        if (m_isReady)
            mz_inflateEnd(&m_stream);
    }

    DecodeResult decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                            std::size_t targetSizeBytes) override {
        if (m_isReady)
            mz_inflateReset(&m_stream);
        else if (mz_inflateInit(&m_stream) == MZ_OK)
            m_isReady = true;
        else
            return {DecodeStatus::NoMemory, 0};

        // With MZ_FINISH in the first call miniz takes both buffers as the whole of the data, and
        // writes straight into the target.
        setMinizBuffers(m_stream, source, sourceSizeBytes, target, targetSizeBytes);
        if (mz_inflate(&m_stream, MZ_FINISH) != MZ_STREAM_END)
            return {DecodeStatus::CorruptData, 0};
        return {DecodeStatus::Ok, targetSizeBytes - m_stream.avail_out};
    }

private:
    mz_stream m_stream{};
    bool m_isReady = false;
};

} // namespace

std::unique_ptr<IEncoder> makeEncoder(int level) {
    return std::make_unique<CMinizEncoder>(level);
}

std::unique_ptr<IDecoder> makeDecoder() {
    return std::make_unique<CMinizDecoder>();
}

std::size_t getSizeUpperBound(std::size_t sourceSizeBytes) {
    static_assert(sizeof(mz_ulong) > sizeof(int), "mz_compressBound multiplies the size by 110");
    return mz_compressBound(static_cast<mz_ulong>(sourceSizeBytes));
}

} // namespace mzu
