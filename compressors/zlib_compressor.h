#pragma once

#include <memory>

#include "compressors/export.h"
#include "yx/simple_compressor.h"

namespace zlu {

/// Compresses to zlib streams (RFC 1950) with zlib, and reads the zlib streams of any writer.
///
/// Beyond the contract of `yx::ISimpleCompressor`:
/// - `source` and `target` must not overlap.
/// - `compressSingleStep` gives -1 also if zlib cannot get memory.
/// - The upper bound is zlib's own `compressBound`, the same at every level and on every call: for
///   65536 bytes it is 65569. A source whose bound is no `int` is `yx::CInvalidArgError` that names
///   "CZLibCompressor::getCompressedSizeUpperBound": "Source is too large to compress: N bytes".
/// - `decompressSingleStep` fails with `yx::CIOError` `CorruptData`, "Compressed data is corrupt,
///   incomplete or larger than its target.", with "sourceSize" and "targetSize"; or with
///   `yx::CError` "Not enough memory to decompress.", code -1.
/// - Arguments that make no sense are `yx::CInvalidArgError` that names the operation, such as
///   "CZLibCompressor::compressSingleStep": "Invalid source size: -1 bytes" (also "target"),
///   "No source" and "No target" for null and a size that is not 0.
///
/// The states of zlib are made at the first use and reset for each call; no call sees anything of
/// the ones before, failed ones included. An object serves one thread at a time.
class ZLU_API CZLibCompressor : public yx::CBase, public virtual yx::ISimpleCompressor {
public:
    /// `level` is from 0 (store) over 1 (fastest) to 9 (smallest). Any level below 0 stands for the
    /// default, which is 6, and any above 9 for 9.
    explicit CZLibCompressor(int level);
    CZLibCompressor(CZLibCompressor const&) = delete;
    CZLibCompressor& operator=(CZLibCompressor const&) = delete;
    ~CZLibCompressor() override;

    /// "zlib".
    yx::String getInternalDesc() const override;

    int getCompressedSizeUpperBound(int sourceSize) const override;
    int compressSingleStep(void const* source, int sourceSize, void* target,
                           int targetSize) override;
    int decompressSingleStep(void const* source, int sourceSize, void* target,
                             int targetSize) override;

private:
    class CDeflater;
    class CInflater;

    int m_level;
    std::unique_ptr<CDeflater> m_deflater;
    std::unique_ptr<CInflater> m_inflater;
};

} // namespace zlu
