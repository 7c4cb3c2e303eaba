#include "tests/nbdkit/client.h"

#include <cerrno>
#include <stdexcept>

#include <libnbd.h>

namespace nbdkit {

namespace {

[[noreturn]] void fail() {
    throw std::runtime_error(::nbd_get_error());
}

int errorOf(int result) {
    return result == 0 ? 0 : ::nbd_get_errno();
}

int addExtents(void* target, char const*, std::uint64_t, std::uint32_t* entries,
               std::size_t entryCount, int*) {
    auto& extents = *static_cast<std::vector<Extent>*>(target);
    for (std::size_t i = 0; i < entryCount; i += 2)
        extents.push_back({entries[i], entries[i + 1] == (LIBNBD_STATE_HOLE | LIBNBD_STATE_ZERO)});
    return 0;
}

} // namespace

Client::Client(std::string const& socketPath) : m_handle(::nbd_create()) {
    if (!m_handle || ::nbd_set_strict_mode(m_handle, 0) != 0 ||
        ::nbd_add_meta_context(m_handle, LIBNBD_CONTEXT_BASE_ALLOCATION) != 0 ||
        ::nbd_connect_unix(m_handle, socketPath.c_str()) != 0) {
        std::string const error = ::nbd_get_error();
        ::nbd_close(m_handle);
        throw std::runtime_error(error);
    }
}

Client::~Client() {
    ::nbd_shutdown(m_handle, 0);
    ::nbd_close(m_handle);
}

std::string Client::read(std::uint64_t position, std::size_t count) const {
    std::string bytes(count, '?');
    if (::nbd_pread(m_handle, bytes.data(), count, position, 0) != 0)
        fail();
    return bytes;
}

int Client::tryRead(std::uint64_t position, std::size_t count) const {
    std::string bytes(count, '?');
    return errorOf(::nbd_pread(m_handle, bytes.data(), count, position, 0));
}

int Client::write(std::uint64_t position, std::string const& bytes, std::uint32_t flags) const {
    return errorOf(::nbd_pwrite(m_handle, bytes.data(), bytes.size(), position, flags));
}

int Client::writeZeros(std::uint64_t position, std::uint64_t count) const {
    return errorOf(::nbd_zero(m_handle, count, position, 0));
}

int Client::flush() const {
    return errorOf(::nbd_flush(m_handle, 0));
}

std::vector<Extent> Client::listExtents(std::uint64_t position, std::uint64_t count,
                                        std::uint32_t flags) const {
    std::vector<Extent> extents;
    nbd_extent_callback const callback{addExtents, &extents, nullptr};
    if (::nbd_block_status(m_handle, count, position, callback, flags) != 0)
        fail();
    return extents;
}

} // namespace nbdkit
