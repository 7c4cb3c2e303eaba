#pragma once

#include <random>
#include <string>

namespace year_test {

constexpr std::size_t kSectorBytes = 512;

/// The image of a file system that changes from day to day.
class ServerImage {
public:
    /// `random` must outlive it.
    explicit ServerImage(std::mt19937& random);

    /// A day's work: some files are written, some are wiped, and now and then the disk grows.
    void liveADay();

    std::string const& getBytes() const { return m_bytes; }

private:
    void write(std::size_t position, std::size_t count);
    std::size_t drawPosition();

    std::mt19937& m_random;
    std::string m_bytes;
};

/// The SHA-256 of bytes, in hexadecimal digits.
std::string digestOf(std::string const& bytes);

} // namespace year_test
