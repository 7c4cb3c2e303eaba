#pragma once

#include <functional>
#include <vector>

#include "bench/report/work_files.h"
#include "compressors/compressors.h"
#include "krym/krym.h"

namespace bench {

/// The coder that compressed disks use, with nothing around it.
class BareCodec {
public:
    /// Compresses each of the grains once, to have something to decompress.
    explicit BareCodec(std::vector<yx::P<Buffer>> const& grains);

    void compressAll();

    /// The same, a part of the grains on each core at once. Cores share caches and more, so
    /// together they need longer than one alone would need for its part.
    void compressAllOnAllCores() const;
    void decompressAllOnAllCores() const { decompressAllOnAllCores({}); }

    /// Calls `use`, if given, with the index of each grain and the grain, on all these threads.
    void decompressAllOnAllCores(
        std::function<void(std::size_t index, unsigned char const*)> const& use) const;

    /// Calls `use`, if given, with each grain.
    void decompressAll(std::function<void(unsigned char const*)> const& use = {});

    double getPlainBytes() const { return static_cast<double>(m_grains.size()) * kGrainBytes; }
    double getCompressedBytes() const { return m_compressedBytes; }

private:
    std::vector<yx::P<Buffer>> m_grains;
    std::vector<yx::P<Buffer>> m_records;
    double m_compressedBytes = 0;
    mzu::CMiniZCompressor m_coder{1};
    Buffer m_target{2 * kGrainBytes, -1};
};

/// The cipher of encrypted disks, grain by grain.
class BareCipher {
public:
    BareCipher();
    void encipher(unsigned char const* grain);
    void decipher(unsigned char const* grain);
    unsigned char const* getResult() const { return m_target.getData(); }

private:
    krym::CCipher_AES256CBC m_cipher;
    yx::TCryptBuffer<unsigned char> m_key;
    Buffer m_target{kGrainBytes, -1};
};

} // namespace bench
