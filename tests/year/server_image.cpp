#include "tests/year/server_image.h"

#include <algorithm>

#include <openssl/sha.h>

namespace year_test {

namespace {

constexpr std::size_t kGrainBytes = std::size_t{64} << 10;
constexpr std::size_t kFirstBytes = std::size_t{2} << 20;
constexpr std::size_t kMostBytes = std::size_t{4} << 20;

} // namespace

ServerImage::ServerImage(std::mt19937& random) : m_random(random), m_bytes(kFirstBytes, '\0') {
    for (int file = 0; file < 16; ++file)
        write(drawPosition(), kGrainBytes);
}

std::size_t ServerImage::drawPosition() {
    return m_random() % (m_bytes.size() / kSectorBytes) * kSectorBytes;
}

void ServerImage::write(std::size_t position, std::size_t count) {
    bool const isText = m_random() % 2 == 0;
    auto const first = static_cast<char>('a' + m_random() % 16);
    std::size_t const end = std::min(m_bytes.size(), position + count);
    for (std::size_t i = position; i < end; ++i)
        m_bytes[i] = isText ? static_cast<char>(first + static_cast<char>(i % 7))
                            : static_cast<char>(m_random());
}

void ServerImage::liveADay() {
    for (auto files = 1 + m_random() % 5; files > 0; --files)
        write(drawPosition(), 1 + m_random() % (2 * kGrainBytes));
    if (m_random() % 3 == 0) {
        std::size_t const position = drawPosition();
        std::size_t const end = std::min(m_bytes.size(), position + 2 * kGrainBytes);
        std::fill(m_bytes.begin() + static_cast<std::ptrdiff_t>(position),
                  m_bytes.begin() + static_cast<std::ptrdiff_t>(end), '\0');
    }
    if (m_random() % 10 == 0 && m_bytes.size() < kMostBytes)
        m_bytes.resize(m_bytes.size() + (1 + m_random() % 200) * kSectorBytes);
}

std::string digestOf(std::string const& bytes) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    ::SHA256(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size(), digest);
    std::string text;
    for (unsigned char const byte : digest) {
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
    }
    return text;
}

} // namespace year_test
