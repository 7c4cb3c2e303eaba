#pragma once

#include <cstddef>
#include <memory>

namespace mzu {

// What `CMiniZCompressor` is made of. Each library that codes has one source file that implements
// its part of this header, and the build chooses among them. A library's states are made at the
// first use and kept; what one call leaves behind does not change the next one's result. Pointers
// are never null, and source and target do not overlap.

/// Writes zlib streams (RFC 1950) of one level.
class IEncoder {
public:
    virtual ~IEncoder() = default;

    /// The size of the stream, or 0 if it does not fit into the target or memory is short. Sources
    /// have at most 2^31 - 1 bytes.
    virtual std::size_t compress(void const* source, std::size_t sourceSizeBytes, void* target,
                                 std::size_t targetSizeBytes) = 0;
};

enum class DecodeStatus {
    Ok,
    CorruptData, ///< damaged, short, or more data than the target holds
    NoMemory,
};

struct DecodeResult {
    DecodeStatus status;
    std::size_t sizeBytes; ///< what came out, if the status is `Ok`
};

/// Reads the zlib streams of any writer.
class IDecoder {
public:
    virtual ~IDecoder() = default;

    /// Ignores what lies behind the end of the stream.
    virtual DecodeResult decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                                    std::size_t targetSizeBytes) = 0;
};

// Of libdeflate or miniz.

/// `level` is from 0 (store) to 9.
std::unique_ptr<IEncoder> makeEncoder(int level);

std::unique_ptr<IDecoder> makeDecoder();

/// The largest size of a stream that `sourceSizeBytes` bytes, at most 2^31 - 1, can give at any
/// level, whichever encoder writes it.
std::size_t getSizeUpperBound(std::size_t sourceSizeBytes);

// Of ISA-L.

/// The encoder to prefer at level 1, or null where kelm is built without ISA-L.
std::unique_ptr<IEncoder> makeFastestEncoder();

} // namespace mzu
