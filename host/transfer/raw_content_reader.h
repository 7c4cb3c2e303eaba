#pragma once

#include <algorithm>

#include "host/transfer/content_reader.h"
#include "host/transfer/raw_source.h"

namespace kelm::host {

/// The content of a raw image, for a comparison. The source must outlive the reader.
class RawContentReader : public ContentReader {
public:
    /// Starts where the source stands.
    explicit RawContentReader(RawSource& source) : m_source(source) {}

    __int64 getLength() const override { return m_source.getLength(); }
    int readNext(unsigned char* buffer, int bytes, bool& isZero) override {
        return m_source.readNext(buffer, bytes, isZero);
    }
    __int64 countZeros(__int64 maxBytes) override {
        return std::min(m_source.findHoleBytes(), maxBytes);
    }
    void skipZeros(__int64 bytes) override { m_source.skipTo(m_source.getPosition() + bytes); }

private:
    RawSource& m_source;
};

} // namespace kelm::host
