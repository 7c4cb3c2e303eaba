#include "tests/compressors/stream_readers.h"

#include <memory>
#include <stdexcept>

#ifdef KELM_TEST_LIBDEFLATE
#include <libdeflate.h>
#endif
#ifdef KELM_TEST_ISAL
#include <isa-l/igzip_lib.h>
#endif
#ifdef KELM_TEST_MINIZ
#define MINIZ_NO_ZLIB_COMPATIBLE_NAMES
#if __has_include(<miniz/miniz.h>)
#include <miniz/miniz.h>
#else
#include <miniz.h>
#endif
#endif

#include "tests/support/reference_codec.h"

using test_support::Bytes;

namespace {

#ifdef KELM_TEST_LIBDEFLATE
Bytes readWithLibdeflate(Bytes const& stream, std::size_t roomBytes) {
    std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> const decompressor(
        libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    Bytes plain(roomBytes + 1);
    std::size_t sizeBytes = 0;
    if (libdeflate_zlib_decompress(decompressor.get(), stream.data(), stream.size(), plain.data(),
                                   roomBytes, &sizeBytes) != LIBDEFLATE_SUCCESS)
        throw std::runtime_error("libdeflate cannot read the stream");
    plain.resize(sizeBytes);
    return plain;
}
#endif

#ifdef KELM_TEST_ISAL
Bytes readWithIsal(Bytes const& stream, std::size_t roomBytes) {
    Bytes source = stream;
    Bytes plain(roomBytes + 1);
    auto const state = std::make_unique<inflate_state>();
    isal_inflate_init(state.get());
    state->crc_flag = ISAL_ZLIB;
    state->next_in = source.data();
    state->avail_in = static_cast<unsigned int>(source.size());
    state->next_out = plain.data();
    state->avail_out = static_cast<unsigned int>(roomBytes);
    if (isal_inflate_stateless(state.get()) != ISAL_DECOMP_OK)
        throw std::runtime_error("ISA-L cannot read the stream");
    plain.resize(state->total_out);
    return plain;
}
#endif

#ifdef KELM_TEST_MINIZ
Bytes readWithMiniz(Bytes const& stream, std::size_t roomBytes) {
    Bytes plain(roomBytes + 1);
    mz_ulong sizeBytes = static_cast<mz_ulong>(roomBytes);
    if (mz_uncompress(plain.data(), &sizeBytes, stream.data(),
                      static_cast<mz_ulong>(stream.size())) != MZ_OK)
        throw std::runtime_error("miniz cannot read the stream");
    plain.resize(sizeBytes);
    return plain;
}
#endif

} // namespace

std::vector<StreamReader> const& streamReaders() {
    static std::vector<StreamReader> const all = {
        {"zlib",
         [](Bytes const& stream, std::size_t roomBytes) {
             return test_support::decompressWithZlib(stream, static_cast<int>(roomBytes) + 1);
         }},
#ifdef KELM_TEST_LIBDEFLATE
        {"libdeflate", readWithLibdeflate},
#endif
#ifdef KELM_TEST_ISAL
        {"ISA-L", readWithIsal},
#endif
#ifdef KELM_TEST_MINIZ
        {"miniz", readWithMiniz},
#endif
    };
    return all;
}
