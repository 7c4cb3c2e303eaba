#pragma once

#include <cstddef>
#include <memory>

namespace mzu {

enum class DecodeStatus {
    Ok,
    CorruptData, ///< damaged, short, or more data than the target holds
    NoMemory,
};

struct DecodeResult {
    DecodeStatus status;
    std::size_t sizeBytes; ///< what came out, if the status is `Ok`
};

/// Writes and reads zlib streams with the library that the build chose; each such library has one
/// source file that implements this class. The library's states are made at the first use and kept.
/// Pointers are never null, and source and target do not overlap.
class CCoder {
public:
    /// `level` is from 0 (store) to 9.
    explicit CCoder(int level);
    CCoder(CCoder const&) = delete;
    CCoder& operator=(CCoder const&) = delete;
    ~CCoder();

    /// The largest size of a stream that `sourceSizeBytes` bytes, at most 2^31 - 1, can give at any
    /// level.
    static std::size_t getSizeUpperBound(std::size_t sourceSizeBytes);

    /// The size of the stream, or 0 if it does not fit into the target or memory is short.
    std::size_t compress(void const* source, std::size_t sourceSizeBytes, void* target,
                         std::size_t targetSizeBytes);

    /// Ignores what lies behind the end of the stream.
    DecodeResult decompress(void const* source, std::size_t sourceSizeBytes, void* target,
                            std::size_t targetSizeBytes);

private:
    struct State;

    int m_level;
    std::unique_ptr<State> m_state;
};

} // namespace mzu
