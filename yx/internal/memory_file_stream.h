#pragma once

#include <memory>

#include "yx/internal/file_stream.h"
#include "yx/internal/memory_file.h"

namespace yx {

/// A stream on a file of `CMemoryFileSystem`. Internal. The file lives on while it is open here,
/// also after it was deleted or replaced.
class CMemoryFileStream : public CFileStream {
public:
    CMemoryFileStream(std::shared_ptr<detail::MemoryFile> file, CURI const& uri, Access access);

    __int64 getLength() const override;
    void close() override;
    void flush() override;
    void setLength(__int64 length) override;

private:
    bool isOpen() const override { return static_cast<bool>(m_file); }
    int readAt(__int64 position, void* target, int sizeBytes) const override;
    void writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) override;
    P<IStreamLock> lockAt(__int64 position, __int64 length, bool exclusive) override;

    /// Null once closed.
    std::shared_ptr<detail::MemoryFile> m_file;
    detail::RangeLocks::Owner m_lockOwner;
};

} // namespace yx
