#pragma once

#include <memory>

#include "host/store/place_reader.h"
#include "integrations/s3/object_content.h"
#include "yx/internal/file_stream.h"

namespace kelm::s3 {

/// A stream on an object, for reading. Ranges of it cannot be locked: `lockRange` is
/// `NotSupported`.
class CObjectStream : public yx::CFileStream, public host::IPlaceReader {
public:
    CObjectStream(std::shared_ptr<ObjectContent> content, yx::CURI const& uri);

    /// That of the object when it was opened.
    __int64 getLength() const override;
    void close() override;
    void flush() override;
    void setLength(__int64 length) override;

    /// By whole blocks, which stay for a while.
    int readPlace(__int64 positionBytes, void* target, int sizeBytes) const override;

    /// Null once closed.
    ObjectContent const* getContent() const { return m_content.get(); }

private:
    bool isOpen() const override { return static_cast<bool>(m_content); }
    int readAt(__int64 position, void* target, int sizeBytes) const override;
    void writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) override;
    yx::P<yx::IStreamLock> lockAt(__int64 position, __int64 length, bool exclusive) override;

    /// Null once closed.
    std::shared_ptr<ObjectContent> m_content;
};

} // namespace kelm::s3
