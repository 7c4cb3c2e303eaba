// What our compressor classes cost: grains of 64 KiB, beside the libraries called directly.
//
//   bench_compressors [rounds]
//
// CMiniZCompressor is measured beside libdeflate, also where it was built with another coder.

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <zlib.h>
#if __has_include(<libdeflate.h>)
#include <libdeflate.h>
#endif

#include "bench/interleaved.h"
#include "bench/sample_content.h"
#include "compressors/compressors.h"

namespace {

constexpr int kGrainSizeBytes = 65536;
constexpr int kRoomBytes = 2 * kGrainSizeBytes;
/// Enough that the clock is read seldom.
constexpr int kGrainsPerRound = 8;
constexpr double kAim = 0.97;

using Bytes = std::vector<unsigned char>;

struct Grain {
    char const* name;
    Bytes bytes;
};

/// zlib with its states made beforehand.
class CDirectZLib {
public:
    explicit CDirectZLib(int level) {
        deflateInit(&m_deflater, level);
        inflateInit(&m_inflater);
    }
    CDirectZLib(CDirectZLib const&) = delete;
    CDirectZLib& operator=(CDirectZLib const&) = delete;
    ~CDirectZLib() {
        deflateEnd(&m_deflater);
        inflateEnd(&m_inflater);
    }

    std::size_t compress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        deflateReset(&m_deflater);
        setBuffers(m_deflater, source, sizeBytes, target);
        deflate(&m_deflater, Z_FINISH);
        return m_deflater.total_out;
    }

    std::size_t decompress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        inflateReset(&m_inflater);
        setBuffers(m_inflater, source, sizeBytes, target);
        inflate(&m_inflater, Z_FINISH);
        return m_inflater.total_out;
    }

private:
    static void setBuffers(z_stream& stream, Bytes const& source, std::size_t sizeBytes,
                           Bytes& target) {
        stream.next_in = const_cast<Bytef*>(source.data());
        stream.avail_in = static_cast<uInt>(sizeBytes);
        stream.next_out = target.data();
        stream.avail_out = static_cast<uInt>(target.size());
    }

    z_stream m_deflater{};
    z_stream m_inflater{};
};

#if __has_include(<libdeflate.h>)

/// libdeflate with its states made beforehand.
class CDirectLibdeflate {
public:
    explicit CDirectLibdeflate(int level) : m_compressor(libdeflate_alloc_compressor(level)) {}
    CDirectLibdeflate(CDirectLibdeflate const&) = delete;
    CDirectLibdeflate& operator=(CDirectLibdeflate const&) = delete;
    ~CDirectLibdeflate() {
        libdeflate_free_compressor(m_compressor);
        libdeflate_free_decompressor(m_decompressor);
    }

    std::size_t compress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        return libdeflate_zlib_compress(m_compressor, source.data(), sizeBytes, target.data(),
                                        target.size());
    }

    std::size_t decompress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        std::size_t resultBytes = 0;
        libdeflate_zlib_decompress(m_decompressor, source.data(), sizeBytes, target.data(),
                                   target.size(), &resultBytes);
        return resultBytes;
    }

private:
    libdeflate_compressor* m_compressor;
    libdeflate_decompressor* m_decompressor = libdeflate_alloc_decompressor();
};

#endif

/// One line for compressing the grain and one for decompressing it.
template <class Direct, class Ours>
void benchGrain(std::string const& name, int level, Grain const& grain, int rounds) {
    Direct direct(level);
    Ours ours(level);
    Bytes stream(kRoomBytes);
    double const compressRatio = bench::speedRatio(
        rounds,
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                direct.compress(grain.bytes, grain.bytes.size(), stream);
        },
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                ours.compressSingleStep(grain.bytes.data(), kGrainSizeBytes, stream.data(),
                                        kRoomBytes);
        });
    std::string const what = "level " + std::to_string(level) + " " + grain.name + " / " + name;
    bench::report(("compress " + what).c_str(), compressRatio, kAim, "");

    std::size_t const streamBytes = direct.compress(grain.bytes, grain.bytes.size(), stream);
    Bytes target(kGrainSizeBytes);
    double const decompressRatio = bench::speedRatio(
        rounds,
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                direct.decompress(stream, streamBytes, target);
        },
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                ours.decompressSingleStep(stream.data(), static_cast<int>(streamBytes),
                                          target.data(), kGrainSizeBytes);
        });
    bench::report(("decompress " + what).c_str(), decompressRatio, kAim, "");
}

} // namespace

int main(int argc, char** argv) {
    int const rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 101;
    Grain const grains[] = {{"text", bench::makeText(kGrainSizeBytes)},
                            {"random", bench::makeRandom(kGrainSizeBytes)},
                            {"zeros", Bytes(kGrainSizeBytes, 0)}};
    for (Grain const& grain : grains) {
        // zlib stores what does not shrink, and 1 is the default of the disk code.
        benchGrain<CDirectZLib, zlu::CZLibCompressor>("zlib", 0, grain, rounds);
        benchGrain<CDirectZLib, zlu::CZLibCompressor>("zlib", 1, grain, rounds);
#if __has_include(<libdeflate.h>)
        benchGrain<CDirectLibdeflate, mzu::CMiniZCompressor>("libdeflate", 1, grain, rounds);
        benchGrain<CDirectLibdeflate, mzu::CMiniZCompressor>("libdeflate", 6, grain, rounds);
#endif
    }
    return 0;
}
