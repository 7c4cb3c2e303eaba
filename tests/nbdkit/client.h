#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct nbd_handle;

namespace nbdkit {

/// A stretch of a block device, and whether the server says that it is a hole that reads as zeros.
struct Extent {
    std::uint64_t lengthBytes;
    bool isHole;

    bool operator==(Extent const&) const = default;
};

/// A connection to a server. Requests that fail give the `errno` value that the server sent; those
/// that give something else throw `std::runtime_error` if they fail.
class Client {
public:
    /// Requests go to the server even if it said that it would refuse them.
    explicit Client(std::string const& socketPath);
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    /// Takes leave of the server.
    ~Client();

    nbd_handle* get() const { return m_handle; }

    std::string read(std::uint64_t position, std::size_t count) const;
    int tryRead(std::uint64_t position, std::size_t count) const;

    /// 0, or the error.
    int write(std::uint64_t position, std::string const& bytes, std::uint32_t flags = 0) const;
    int writeZeros(std::uint64_t position, std::uint64_t count) const;
    int flush() const;

    /// What the server tells about a range in one answer.
    std::vector<Extent> listExtents(std::uint64_t position, std::uint64_t count,
                                    std::uint32_t flags = 0) const;

private:
    nbd_handle* m_handle;
};

} // namespace nbdkit
