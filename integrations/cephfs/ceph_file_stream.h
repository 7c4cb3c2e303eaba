#pragma once

#include <array>
#include <memory>

#include "host/store/place_reader.h"
#include "integrations/cephfs/ceph_file.h"
#include "integrations/cephfs/ceph_range_locks.h"
#include "yx/internal/file_stream.h"

namespace kelm::ceph {

/// A stream on a file of a cluster. Every transfer is a positioned one.
///
/// Nothing is kept here: the client merges small writes, and caches what it read as long as no
/// other client writes to the file, so streams see each other's writes at once. But small reads
/// fetch a whole block into the client's cache, since most of the time of a read is the journey.
class CCephFileStream : public yx::CFileStream, public host::IPlaceReader {
public:
    /// Takes the open file over. `isEmpty` says that it may be a new one.
    CCephFileStream(std::shared_ptr<CephFile> file, yx::CURI const& uri, Access access,
                    bool isEmpty);
    ~CCephFileStream() override;

    __int64 getLength() const override;
    void close() override;

    /// Returns when what was written through this stream is on as many of the cluster's devices as
    /// its pool demands, and the file's entry is in the metadata servers' journal. A failure is
    /// final for the stream, since the client may have dropped what it could not write.
    void flush() override;
    void setLength(__int64 length) override;

    int readPlace(__int64 positionBytes, void* target, int sizeBytes) const override;

    /// Null once closed.
    CephFile const* getFile() const { return m_file.get(); }

private:
    /// A part of a file whose start has been read, so that it may be in the client's cache.
    static constexpr int kBlockBytes = 256 * 1024;
    static constexpr std::size_t kKnownBlocks = 16;

    /// The most that one call of the client reads or writes.
    static constexpr int kTransferBytes = 1024 * 1024;

    using Buffer = std::shared_ptr<char[]>;

    bool isOpen() const override { return static_cast<bool>(m_file); }
    int readAt(__int64 position, void* target, int sizeBytes) const override;
    void writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) override;
    yx::P<yx::IStreamLock> lockAt(__int64 position, __int64 length, bool exclusive) override;

    int call(CephMount::Call const& call) const { return m_file->getMount().call(uri(), call); }
    Buffer const& provideBuffer(int sizeBytes) const;
    void dropBuffer() const;
    bool isFetched(__int64 block) const;
    int readPart(__int64 position, char* target, int sizeBytes) const;
    int writePart(__int64 position, int sizeBytes);
    [[noreturn]] void throwSyncError() const;

    /// Null once closed. Tokens of locks keep it.
    std::shared_ptr<CephFile> m_file;

    /// Null until the first lock, and once closed. Tokens keep it.
    std::shared_ptr<CephRangeLocks> m_locks;

    /// The numbers of the blocks that were fetched last, -1 for none. The oldest gives way.
    mutable std::array<__int64, kKnownBlocks> m_fetchedBlocks;
    mutable std::size_t m_nextFetched = 0;
    mutable __int64 m_endOfLastRead = -1;

    /// What calls of the client read to and write from, since a call may outlive the operation that
    /// it was made for. Null until the first one.
    mutable Buffer m_buffer;
    mutable int m_bufferBytes = 0;

    bool m_needsSync;

    /// What the sync that failed returned, 0 if none has.
    int m_syncError = 0;
};

} // namespace kelm::ceph
