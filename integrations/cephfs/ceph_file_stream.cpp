#include "integrations/cephfs/ceph_file_stream.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <cephfs/libcephfs.h>

#include "integrations/cephfs/cluster_error.h"
#include "yx/internal/stream_error.h"
#include "yx/log.h"

namespace kelm::ceph {

using yx::detail::FileAction;
using yx::detail::makeRangeProps;
using yx::detail::makeUriProps;

CCephFileStream::CCephFileStream(std::shared_ptr<CephFile> file, yx::CURI const& uri, Access access,
                                 bool isEmpty)
    : CFileStream("CCephFileStream", uri, access),
      m_file(std::move(file)),
      // An empty file may be a new one, whose entry is to become durable without any write.
      m_needsSync(access == ReadWrite && isEmpty) {
    m_fetchedBlocks.fill(-1);
}

CCephFileStream::~CCephFileStream() {
    try {
        CCephFileStream::close();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::ceph::CCephFileStream", error, true);
    }
}

__int64 CCephFileStream::getLength() const {
    requireOpen();
    struct ceph_statx status {};
    if (int const result = m_file->query(m_file->getMount().use(uri()), status, CEPH_STATX_SIZE);
        result != 0)
        throw makeClusterError(FileAction::Query, result, makeUriProps(uri()));
    return static_cast<__int64>(status.stx_size);
}

void CCephFileStream::close() {
    m_locks.reset();
    std::shared_ptr<CephFile> const file = std::move(m_file);
    // A lock may still need the open file, and then ends it.
    if (!file || file.use_count() > 1)
        return;
    if (int const result = file->close(); result != 0)
        throw makeClusterError(FileAction::Close, result, makeUriProps(uri()));
}

void CCephFileStream::flush() {
    requireOpen();
    if (!isWritable())
        return;
    if (m_syncError != 0)
        throwSyncError();
    if (!m_needsSync)
        return;
    // Not of the content alone: the length and a new file's entry are metadata of the cluster, which
    // would otherwise be told later.
    m_syncError = ceph_fsync(m_file->getMount().use(uri()), m_file->getDescriptor(), 0);
    if (m_syncError != 0)
        throwSyncError();
    m_needsSync = false;
}

void CCephFileStream::setLength(__int64 length) {
    requireWritable();
    if (length < 0)
        yx::detail::throwBadLength(uri(), length);
    m_needsSync = true;
    if (int const result =
            ceph_ftruncate(m_file->getMount().use(uri()), m_file->getDescriptor(), length);
        result != 0)
        throw makeClusterError(FileAction::SetLength, result,
                               makeUriProps(uri()).add("length", yx::toString(length)));
}

void CCephFileStream::writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) {
    ceph_mount_info* const client = m_file->getMount().use(uri());
    m_needsSync = true;
    __int64 next = position;
    for (Piece const* piece = pieces; piece != pieces + count; ++piece) {
        auto const* const data = static_cast<char const*>(piece->data);
        for (int done = 0; done < piece->sizeBytes;) {
            int const written = ceph_write(client, m_file->getDescriptor(), data + done,
                                           piece->sizeBytes - done, next);
            // No progress without a reason would repeat itself for ever.
            if (written <= 0)
                throw makeClusterError(FileAction::Write, written == 0 ? -EIO : written,
                                       makeRangeProps(uri(), position, "bytesToWrite", sizeBytes));
            done += written;
            next += written;
        }
    }
}

int CCephFileStream::readAt(__int64 position, void* target, int sizeBytes) const {
    ceph_mount_info* const client = m_file->getMount().use(uri());
    // No file reaches up to the largest number, and the client does not expect ranges that pass it.
    auto const wanted = static_cast<int>(
        std::min<__int64>(sizeBytes, std::numeric_limits<__int64>::max() - position));
    if (wanted > 0 && wanted < kBlockBytes)
        fetchBlock(client, position / kBlockBytes);
    int done = 0;
    while (done < wanted) {
        int const count =
            ceph_read(client, m_file->getDescriptor(), static_cast<char*>(target) + done,
                      wanted - done, position + done);
        if (count == 0)
            break;
        if (count < 0)
            throw makeClusterError(FileAction::Read, count,
                                   makeRangeProps(uri(), position, "bytesToRead", sizeBytes));
        done += count;
    }
    return done;
}

/// Has the client read a block into its cache, unless that was done a short while ago. A failure is
/// left to the read that follows.
void CCephFileStream::fetchBlock(ceph_mount_info* client, __int64 block) const {
    if (std::ranges::find(m_fetchedBlocks, block) != m_fetchedBlocks.end())
        return;
    if (!m_blockBuffer)
        m_blockBuffer = std::make_unique_for_overwrite<char[]>(kBlockBytes);
    ceph_read(client, m_file->getDescriptor(), m_blockBuffer.get(), kBlockBytes,
              block * kBlockBytes);
    m_fetchedBlocks[m_nextFetched] = block;
    m_nextFetched = (m_nextFetched + 1) % kKnownBlocks;
}

yx::P<yx::IStreamLock> CCephFileStream::lockAt(__int64 position, __int64 length, bool exclusive) {
    m_file->getMount().use(uri());
    if (!m_locks)
        m_locks = std::make_shared<CephRangeLocks>(m_file);
    CephRangeLocks::Result const lock = m_locks->lock(position, position + length, exclusive);
    if (lock.token)
        return lock.token;
    if (lock.error == -EAGAIN || lock.error == -EACCES)
        yx::detail::throwRangeLocked(uri(), position, length);
    // So it says that the session under which this file had locks has ended.
    if (lock.error == -EIO)
        throw yx::CIOError(yx::CIOError::IOFailure,
                           "Cannot lock the file: The cluster has ended the session that held its "
                           "locks.",
                           makeRangeProps(uri(), position, "length", length), nullptr);
    throw makeClusterError(FileAction::Lock, lock.error,
                           makeRangeProps(uri(), position, "length", length));
}

void CCephFileStream::throwSyncError() const {
    throw makeClusterError(FileAction::Flush, m_syncError, makeUriProps(uri()));
}

} // namespace kelm::ceph
