// Which coder is behind level 1 of mzu::CMiniZCompressor, in a build with ISA-L and in one without.

#include <cmath>
#include <memory>

#include <gtest/gtest.h>

#ifdef KELM_TEST_LIBDEFLATE
#include <libdeflate.h>
#endif
#if KELM_TEST_LEVEL_ONE_IS_ISAL
#include <isa-l/igzip_lib.h>
#endif

#include "compressors/compressors.h"
#include "tests/compressors/samples.h"

namespace {

using test_support::Bytes;
using test_support::sameBytes;

#if KELM_TEST_LEVEL_ONE_IS_ISAL

/// The size alone, since ISA-L's bytes depend a little on where its state lies in memory.
std::size_t streamSizeOfIsal(Bytes const& bytes) {
    auto const stream = std::make_unique<isal_zstream>();
    Bytes levelBuffer(ISAL_DEF_LVL1_LARGE);
    Bytes source = bytes;
    Bytes target(bytes.size() + 1000);
    isal_deflate_stateless_init(stream.get());
    stream->level = 1;
    stream->level_buf = levelBuffer.data();
    stream->level_buf_size = static_cast<unsigned int>(levelBuffer.size());
    stream->gzip_flag = IGZIP_ZLIB;
    stream->next_in = source.data();
    stream->avail_in = static_cast<unsigned int>(source.size());
    stream->next_out = target.data();
    stream->avail_out = static_cast<unsigned int>(target.size());
    EXPECT_EQ(COMP_OK, isal_deflate_stateless(stream.get()));
    return stream->total_out;
}

#endif

#ifdef KELM_TEST_LIBDEFLATE

Bytes compressWithLibdeflate(Bytes const& bytes, int level) {
    std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> const compressor(
        libdeflate_alloc_compressor(level), libdeflate_free_compressor);
    Bytes target(bytes.size() + 1000);
    target.resize(libdeflate_zlib_compress(compressor.get(), bytes.data(), bytes.size(),
                                           target.data(), target.size()));
    return target;
}

#endif

#if KELM_TEST_LEVEL_ONE_IS_ISAL

TEST(MiniZCompressorLevelOne, IsOfISAL) {
    mzu::CMiniZCompressor compressor(1);
    Bytes const text = test_support::textPattern(65536, 7);
    auto const ours = static_cast<double>(compress(compressor, text).size());
    auto const isal = static_cast<double>(streamSizeOfIsal(text));
    EXPECT_NEAR(isal, ours, isal / 1000);
#ifdef KELM_TEST_LIBDEFLATE
    auto const libdeflate = static_cast<double>(compressWithLibdeflate(text, 1).size());
    EXPECT_GT(std::abs(libdeflate - ours), isal / 1000);
#endif
}

#elif defined(KELM_TEST_LIBDEFLATE)

TEST(MiniZCompressorLevelOne, IsOfLibdeflate) {
    mzu::CMiniZCompressor compressor(1);
    for (Sample const& sample : samples()) {
        SCOPED_TRACE(sample.name);
        EXPECT_TRUE(
            sameBytes(compressWithLibdeflate(sample.bytes, 1), compress(compressor, sample.bytes)));
    }
}

#endif

#if KELM_TEST_CODES_WITH_LIBDEFLATE

TEST(MiniZCompressor, TheOtherLevelsAreOfLibdeflate) {
    for (int const level : {0, 2, 3, 4, 5, 6, 7, 8, 9}) {
        mzu::CMiniZCompressor compressor(level);
        for (Sample const& sample : samples()) {
            SCOPED_TRACE(sample.name + " at level " + std::to_string(level));
            EXPECT_TRUE(sameBytes(compressWithLibdeflate(sample.bytes, level),
                                  compress(compressor, sample.bytes)));
        }
    }
}

#endif

} // namespace
