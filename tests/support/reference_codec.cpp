#include "tests/support/reference_codec.h"

#include <memory>
#include <stdexcept>

#include <openssl/evp.h>
#include <zlib.h>

namespace test_support {

namespace {

using Bytes = std::vector<unsigned char>;

Bytes cipherWithOpenSSL(Bytes const& source, Bytes const& key, Bytes const& iv, int encipher) {
    if (key.size() != 32 || iv.size() != 16 || source.size() % 16 != 0)
        throw std::runtime_error("sizes that do not fit AES-256-CBC");
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> const context(
        EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Bytes result(source.size());
    int sizeBytes = 0;
    if (EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                          encipher) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_CipherUpdate(context.get(), result.data(), &sizeBytes, source.data(),
                         static_cast<int>(source.size())) != 1)
        throw std::runtime_error("OpenSSL failed");
    result.resize(static_cast<std::size_t>(sizeBytes));
    return result;
}

} // namespace

Bytes compressWithZlib(Bytes const& plain, int level) {
    uLongf sizeBytes = compressBound(plain.size());
    Bytes stream(sizeBytes);
    if (compress2(stream.data(), &sizeBytes, plain.data(), plain.size(), level) != Z_OK)
        throw std::runtime_error("zlib cannot compress");
    stream.resize(sizeBytes);
    return stream;
}

Bytes decompressWithZlib(Bytes const& stream, int maxSizeBytes) {
    // One byte more, since zlib wants a target also for nothing.
    uLongf plainSizeBytes = static_cast<uLongf>(maxSizeBytes) + 1;
    uLong streamSizeBytes = stream.size();
    Bytes plain(plainSizeBytes);
    if (uncompress2(plain.data(), &plainSizeBytes, stream.data(), &streamSizeBytes) != Z_OK)
        throw std::runtime_error("zlib cannot decompress");
    if (streamSizeBytes != stream.size())
        throw std::runtime_error("bytes behind the zlib stream");
    if (plainSizeBytes > static_cast<uLongf>(maxSizeBytes))
        throw std::runtime_error("the zlib stream holds too much");
    plain.resize(plainSizeBytes);
    return plain;
}

Bytes encipherWithOpenSSL(Bytes const& plain, Bytes const& key, Bytes const& iv) {
    return cipherWithOpenSSL(plain, key, iv, 1);
}

Bytes decipherWithOpenSSL(Bytes const& enciphered, Bytes const& key, Bytes const& iv) {
    return cipherWithOpenSSL(enciphered, key, iv, 0);
}

} // namespace test_support
