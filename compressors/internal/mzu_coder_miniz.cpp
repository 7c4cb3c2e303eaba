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

void setBuffers(mz_stream& stream, void const* source, std::size_t sourceSizeBytes, void* target,
                std::size_t targetSizeBytes) {
    stream.next_in = static_cast<unsigned char const*>(source);
    stream.avail_in = static_cast<unsigned int>(sourceSizeBytes);
    stream.next_out = static_cast<unsigned char*>(target);
    stream.avail_out = static_cast<unsigned int>(targetSizeBytes);
}

} // namespace

struct CCoder::State {
    State() = default;
    State(State const&) = delete;
    State& operator=(State const&) = delete;
    ~State() {
        if (hasDeflater)
            mz_deflateEnd(&deflater);
        if (hasInflater)
            mz_inflateEnd(&inflater);
    }

    mz_stream deflater{};
    mz_stream inflater{};
    bool hasDeflater = false;
    bool hasInflater = false;
};

CCoder::CCoder(int level) : m_level(level), m_state(std::make_unique<State>()) {}

CCoder::~CCoder() = default;

std::size_t CCoder::getSizeUpperBound(std::size_t sourceSizeBytes) {
    static_assert(sizeof(mz_ulong) > sizeof(int), "mz_compressBound multiplies the size by 110");
    return mz_compressBound(static_cast<mz_ulong>(sourceSizeBytes));
}

std::size_t CCoder::compress(void const* source, std::size_t sourceSizeBytes, void* target,
                             std::size_t targetSizeBytes) {
    auto& stream = m_state->deflater;
    if (m_state->hasDeflater)
        mz_deflateReset(&stream);
    else if (mz_deflateInit(&stream, m_level) == MZ_OK)
        m_state->hasDeflater = true;
    else
        return 0;

    setBuffers(stream, source, sourceSizeBytes, target, targetSizeBytes);
    if (mz_deflate(&stream, MZ_FINISH) != MZ_STREAM_END)
        return 0;
    return targetSizeBytes - stream.avail_out;
}

DecodeResult CCoder::decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                                std::size_t targetSizeBytes) {
    auto& stream = m_state->inflater;
    if (m_state->hasInflater)
        mz_inflateReset(&stream);
    else if (mz_inflateInit(&stream) == MZ_OK)
        m_state->hasInflater = true;
    else
        return {DecodeStatus::NoMemory, 0};

    // With MZ_FINISH in the first call miniz takes both buffers as the whole of the data, and
    // writes straight into the target.
    setBuffers(stream, source, sourceSizeBytes, target, targetSizeBytes);
    if (mz_inflate(&stream, MZ_FINISH) != MZ_STREAM_END)
        return {DecodeStatus::CorruptData, 0};
    return {DecodeStatus::Ok, targetSizeBytes - stream.avail_out};
}

} // namespace mzu
