#include <cassert>

#include <isa-l/igzip_lib.h>

#include "compressors/internal/mzu_coder.h"
#include "compressors/internal/sufficient_target.h"

namespace mzu {

namespace {

constexpr unsigned int kIsalLevel = 1;

/// The size of the stream if all blocks are stored, which is what ISA-L does with data that do not
/// shrink. With that much room it cannot fail.
std::size_t storedStreamSizeBytes(std::size_t sourceSizeBytes) {
    constexpr std::size_t kHeaderAndChecksumBytes = 2 + 4;
    constexpr std::size_t kBlockHeaderBytes = 5;
    constexpr std::size_t kMaxBlockBytes = 65535;
    std::size_t const blocks =
        sourceSizeBytes == 0 ? 1 : (sourceSizeBytes + kMaxBlockBytes - 1) / kMaxBlockBytes;
    return kHeaderAndChecksumBytes + blocks * kBlockHeaderBytes + sourceSizeBytes;
}

class CIsalEncoder : public IEncoder {
public:
    std::size_t compress(void const* source, std::size_t sourceSizeBytes, void* target,
                         std::size_t targetSizeBytes) override {
        if (!m_state)
            m_state.reset(new (std::nothrow) State());
        if (!m_state)
            return 0;
        std::size_t const sufficientBytes = storedStreamSizeBytes(sourceSizeBytes);
        assert(sufficientBytes <= getSizeUpperBound(sourceSizeBytes));
        return compressIntoAnyTarget(
            sufficientBytes, target, targetSizeBytes, [&](void* enough, std::size_t enoughBytes) {
                return compressWithRoom(source, sourceSizeBytes, enough, enoughBytes);
            });
    }

private:
    struct State {
        isal_zstream stream;
        /// Of this size ISA-L collects a block of 64 KiB, the usual grain, before it draws up
        /// codes.
        unsigned char levelBuffer[ISAL_DEF_LVL1_LARGE];
    };

    std::size_t compressWithRoom(void const* source, std::size_t sourceSizeBytes, void* target,
                                 std::size_t targetSizeBytes) {
        isal_zstream& stream = m_state->stream;
        isal_deflate_stateless_init(&stream);
        stream.level = kIsalLevel;
        stream.level_buf = m_state->levelBuffer;
        stream.level_buf_size = sizeof(m_state->levelBuffer);
        stream.gzip_flag = IGZIP_ZLIB;
        // ISA-L takes the source by a pointer to non-const bytes, but only reads it.
        stream.next_in = static_cast<unsigned char*>(const_cast<void*>(source));
        stream.avail_in = static_cast<unsigned int>(sourceSizeBytes);
        stream.next_out = static_cast<unsigned char*>(target);
        stream.avail_out = static_cast<unsigned int>(targetSizeBytes);
        return isal_deflate_stateless(&stream) == COMP_OK ? stream.total_out : 0;
    }

    std::unique_ptr<State> m_state;
};

} // namespace

std::unique_ptr<IEncoder> makeFastestEncoder() {
    return std::make_unique<CIsalEncoder>();
}

} // namespace mzu
