#pragma once

#include "kelm/export.h"
#include "yx/simple_compressor.h"

namespace kelm {

/// Compresses and decompresses grains. It uses two coders: a fast one, and one that stores the data
/// uncompressed if the fast one gives no usable result. Both write zlib streams (RFC 1950), and the
/// decoder of the fast one reads both.
///
/// Not thread-safe: each thread needs a compressor of its own.
class KELM_API CVMDKCompressor : public yx::CBase,
                                 public virtual yx::IBase,
                                 public virtual yx::ISimpleCompressor {
public:
    /// Stands for the usual level, which is 1.
    static constexpr int kDefaultLevel = -1;

    /// `level` is that of the fast coder. With level 0 everything is stored, and the fast coder is
    /// not used.
    explicit CVMDKCompressor(int level = kDefaultLevel);

    /// A copy shares the coders, so it belongs to the same thread.
    CVMDKCompressor(CVMDKCompressor const&);
    CVMDKCompressor& operator=(CVMDKCompressor const&);

    ~CVMDKCompressor() override;

    /// "smart-", followed by the name of the coder that is tried first.
    yx::String getInternalDesc() const override;

    /// An upper bound in bytes for the compressed size of `sourceSize` bytes, the same for every
    /// level: what the storing coder needs at most, rounded up so that a grain record of that size
    /// ends on a sector boundary.
    int getCompressedSizeUpperBound(int sourceSize) const override;

    /// Compresses all of `source` and returns the compressed size, at most the upper bound. Returns
    /// -1 on failure, which can only happen if `targetSize` is below the upper bound or memory runs
    /// out.
    int compressSingleStep(void const* source, int sourceSize, void* target,
                           int targetSize) override;

    /// Decompresses `source` and returns the decompressed size; see `yx::ISimpleCompressor`.
    int decompressSingleStep(void const* source, int sourceSize, void* target,
                             int targetSize) override;

    /// How often the fast coder gave no usable result.
    __int64 getCompressFallbackCount() const { return m_compressFallbackCount; }

private:
    int m_level;
    yx::P<yx::ISimpleCompressor> m_compressor;
    yx::P<yx::ISimpleCompressor> m_fallbackCompressor;
    __int64 m_compressFallbackCount = 0;
};

} // namespace kelm
