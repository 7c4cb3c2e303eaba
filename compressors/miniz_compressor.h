#pragma once

#include <memory>

#include "compressors/export.h"
#include "yx/simple_compressor.h"

namespace mzu {

class IDecoder;
class IEncoder;

/// Compresses to zlib streams (RFC 1950) with the fast coders that the build chose, and reads the
/// zlib streams of any writer. Level 1 is coded by ISA-L, where that is found: several times as
/// fast as the other levels, for a few percent more bytes.
///
/// Beyond the contract of `yx::ISimpleCompressor`:
/// - `source` and `target` must not overlap.
/// - `compressSingleStep` gives -1 also if the coder cannot get memory. It is at its fastest with a
///   target of at least the upper bound.
/// - The upper bound is the coder's own, the same at every level and on every call. A source whose
///   bound is no `int` is `yx::CInvalidArgError` that names
///   "CMiniZCompressor::getCompressedSizeUpperBound": "Source is too large to compress: N bytes".
/// - `decompressSingleStep` fails with `yx::CIOError` `CorruptData`, "Compressed data is corrupt,
///   incomplete or larger than its target.", with "sourceSize" and "targetSize"; or with
///   `yx::CError` "Not enough memory to decompress.", code -1.
/// - Arguments that make no sense are `yx::CInvalidArgError` that names the operation, such as
///   "CMiniZCompressor::compressSingleStep": "Invalid source size: -1 bytes" (also "target"),
///   "No source" and "No target" for null and a size that is not 0.
///
/// The coders' states are made at the first use and kept; no call sees anything of the ones before,
/// failed ones included. An object serves one thread at a time, and several objects as many
/// threads. Two objects may write streams of the same source that differ: at level 1 ISA-L finds
/// other repetitions, if seldom, when its state lies elsewhere in memory.
class MZU_API CMiniZCompressor : public yx::CBase, public virtual yx::ISimpleCompressor {
public:
    /// `level` is from 0 (store) over 1 (fastest) to 9 (smallest). Any level below 0 stands for the
    /// default, which is 6, and any above 9 for 9.
    explicit CMiniZCompressor(int level);
    CMiniZCompressor(CMiniZCompressor const&) = delete;
    CMiniZCompressor& operator=(CMiniZCompressor const&) = delete;
    ~CMiniZCompressor() override;

    /// "miniz", whichever the coder is.
    yx::String getInternalDesc() const override;

    int getCompressedSizeUpperBound(int sourceSize) const override;
    int compressSingleStep(void const* source, int sourceSize, void* target,
                           int targetSize) override;
    int decompressSingleStep(void const* source, int sourceSize, void* target,
                             int targetSize) override;

private:
    std::unique_ptr<IEncoder> m_encoder;
    std::unique_ptr<IDecoder> m_decoder;
};

} // namespace mzu
