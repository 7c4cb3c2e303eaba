#pragma once

#include <algorithm>
#include <stdexcept>

#include "host/content/byte_source.h"
#include "tests/support/bytes.h"

namespace content_test {

/// Bytes that must outlive the object; reading others than these is an error.
class BytesInMemory : public kelm::host::ByteSource {
public:
    explicit BytesInMemory(test_support::Bytes const& bytes) : m_bytes(bytes) {}

    __int64 getSizeBytes() const override { return static_cast<__int64>(m_bytes.size()); }

    void read(__int64 positionBytes, unsigned char* data, int bytes) override {
        if (positionBytes < 0 || bytes < 0 || positionBytes > getSizeBytes() - bytes)
            throw std::out_of_range("read outside of the bytes");
        std::copy_n(m_bytes.begin() + positionBytes, bytes, data);
        readBytes += bytes;
    }

    __int64 readBytes = 0;

private:
    test_support::Bytes const& m_bytes;
};

} // namespace content_test
