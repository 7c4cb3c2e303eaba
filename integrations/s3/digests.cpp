#include "integrations/s3/digests.h"

#include <array>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "yx/error.h"

namespace kelm::s3 {

namespace {

[[noreturn]] void throwNoDigest(char const* name) {
    constexpr __int64 kNoCode = -1;
    throw yx::CError(yx::String::fromUTF8(std::string("Cannot make a digest: ") + name), "",
                     kNoCode, yx::CProps(), nullptr);
}

std::string digest(char const* name, EVP_MD const* type, std::string_view data) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> result{};
    unsigned int size = 0;
    if (EVP_Digest(data.data(), data.size(), result.data(), &size, type, nullptr) != 1)
        throwNoDigest(name);
    return {reinterpret_cast<char const*>(result.data()), size};
}

unsigned char const* toBytes(std::string_view text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

} // namespace

std::string sha256(std::string_view data) {
    return digest("SHA-256", EVP_sha256(), data);
}

std::string md5(std::string_view data) {
    return digest("MD5", EVP_md5(), data);
}

std::string hmacSHA256(std::string_view key, std::string_view data) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> result{};
    unsigned int size = 0;
    if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), toBytes(data), data.size(),
              result.data(), &size))
        throwNoDigest("HMAC-SHA-256");
    return {reinterpret_cast<char const*>(result.data()), size};
}

std::string toBase64(std::string_view bytes) {
    constexpr std::size_t kBytesOfGroup = 3;
    constexpr std::size_t kCharactersOfGroup = 4;
    std::size_t const groups = (bytes.size() + kBytesOfGroup - 1) / kBytesOfGroup;
    // A zero byte is written behind the text.
    std::string text(groups * kCharactersOfGroup + 1, '\0');
    int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       toBytes(bytes), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

} // namespace kelm::s3
