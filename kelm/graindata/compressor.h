#pragma once

#include "kelm/export.h"
#include "yx/simple_compressor.h"

namespace kelm {

/// The coder of compressed grains, made of two: a fast one, and, where that gives no usable result,
/// one that stores. Both write zlib streams (RFC 1950), and the decoder of the first reads both.
///
/// Each coder has an object of its own: not thread-safe, one compressor a thread.
class KELM_API CVMDKCompressor : public yx::CBase,
                                 public virtual yx::IBase,
                                 public virtual yx::ISimpleCompressor {
public:
    /// The level to give for the usual one, which is 1.
    static constexpr int kDefaultLevel = -1;

    /// `level` is that of the fast coder; `kDefaultLevel` stands for 1. Level 0 stores, without the
    /// fast coder.
    explicit CVMDKCompressor(int level = kDefaultLevel);

    /// "smart-" and the name of the coder that is used first.
    yx::String getInternalDesc() const override;

    /// The size that compressing `sourceSize` bytes never exceeds, the same for every level: what
    /// the storing coder needs at most, rounded up so that a grain record of that size ends on a
    /// sector boundary.
    int getCompressedSizeUpperBound(int sourceSize) const override;

    /// Compresses all of `source` and returns the compressed size, at most the upper bound. A
    /// result of -1, which means failure, needs a `targetSize` below the upper bound or a want of
    /// memory.
    int compressSingleStep(void const* source, int sourceSize, void* target,
                           int targetSize) override;

    /// Decompresses `source` and returns the decompressed size; see `yx::ISimpleCompressor`.
    int decompressSingleStep(void const* source, int sourceSize, void* target,
                             int targetSize) override;

    /// How often the storing coder had to step in.
    __int64 getCompressFallbackCount() const { return m_compressFallbackCount; }

private:
    int m_level;
    yx::P<yx::ISimpleCompressor> m_compressor;
    yx::P<yx::ISimpleCompressor> m_fallbackCompressor;
    __int64 m_compressFallbackCount = 0;
};

} // namespace kelm
