#include "integrations/cephfs/ceph_file_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
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
    auto const answer = m_file->getMount().ask<__int64>(
        uri(), [descriptor = m_file->getDescriptor()](ceph_mount_info* client, __int64& length) {
            struct ceph_statx status {};
            int const result = ceph_fstatx(client, descriptor, &status, CEPH_STATX_SIZE, 0);
            length = static_cast<__int64>(status.stx_size);
            return result;
        });
    if (answer.result != 0)
        throw makeClusterError(FileAction::Query, answer.result, makeUriProps(uri()));
    return answer.value;
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
    m_syncError = call([descriptor = m_file->getDescriptor()](ceph_mount_info* client) {
        return ceph_fsync(client, descriptor, 0);
    });
    if (m_syncError != 0)
        throwSyncError();
    m_needsSync = false;
}

void CCephFileStream::setLength(__int64 length) {
    requireWritable();
    if (length < 0)
        yx::detail::throwBadLength(uri(), length);
    m_needsSync = true;
    int const result =
        call([descriptor = m_file->getDescriptor(), length](ceph_mount_info* client) {
            return ceph_ftruncate(client, descriptor, length);
        });
    if (result != 0)
        throw makeClusterError(FileAction::SetLength, result,
                               makeUriProps(uri()).add("length", yx::toString(length)));
}

void CCephFileStream::writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) {
    m_needsSync = true;
    __int64 next = position;
    int gathered = 0;
    __int64 left = sizeBytes;
    for (Piece const* piece = pieces; piece != pieces + count; ++piece) {
        auto const* const data = static_cast<char const*>(piece->data);
        for (int done = 0; done < piece->sizeBytes;) {
            auto const wanted = static_cast<int>(std::min<__int64>(left, kTransferBytes));
            int const part = std::min(piece->sizeBytes - done, wanted - gathered);
            std::memcpy(provideBuffer(wanted).get() + gathered, data + done,
                        static_cast<std::size_t>(part));
            done += part;
            gathered += part;
            if (gathered < wanted)
                continue;
            if (int const error = writePart(next, gathered); error != 0)
                throw makeClusterError(FileAction::Write, error,
                                       makeRangeProps(uri(), position, "bytesToWrite", sizeBytes));
            next += gathered;
            left -= gathered;
            gathered = 0;
        }
    }
}

/// Writes what is in the buffer; 0 or the negative `errno` value.
int CCephFileStream::writePart(__int64 position, int sizeBytes) {
    int const result =
        call([=, descriptor = m_file->getDescriptor(), buffer = m_buffer](ceph_mount_info* client) {
            for (int done = 0; done < sizeBytes;) {
                int const written = ceph_write(client, descriptor, buffer.get() + done,
                                               sizeBytes - done, position + done);
                // No progress without a reason would repeat itself for ever.
                if (written <= 0)
                    return written == 0 ? -EIO : written;
                done += written;
            }
            return 0;
        });
    if (result == -ECANCELED)
        dropBuffer();
    return result;
}

int CCephFileStream::readAt(__int64 position, void* target, int sizeBytes) const {
    // No file reaches up to the largest number, and the client does not expect ranges that pass it.
    auto const wanted = static_cast<int>(
        std::min<__int64>(sizeBytes, std::numeric_limits<__int64>::max() - position));
    int done = 0;
    while (done < wanted) {
        int const count = readPart(position + done, static_cast<char*>(target) + done,
                                   std::min(wanted - done, kTransferBytes));
        if (count == 0)
            break;
        if (count < 0)
            throw makeClusterError(FileAction::Read, count,
                                   makeRangeProps(uri(), position, "bytesToRead", sizeBytes));
        done += count;
    }
    return done;
}

/// Reads by one call; fewer bytes at the end, or where it was not worth more. Returns the count or a
/// negative `errno` value.
int CCephFileStream::readPart(__int64 position, char* target, int sizeBytes) const {
    __int64 const block = position / kBlockBytes;
    // The client itself reads ahead of what comes in order, unless blocks disturb the order.
    bool const isInOrder = position == m_endOfLastRead;
    bool const fetchesBlock = sizeBytes < kBlockBytes && !isInOrder && !isFetched(block);
    __int64 const begin = fetchesBlock ? block * kBlockBytes : position;
    int const length = fetchesBlock ? kBlockBytes : sizeBytes;
    Buffer const buffer = provideBuffer(length);
    int const count = call([=, descriptor = m_file->getDescriptor()](ceph_mount_info* client) {
        return ceph_read(client, descriptor, buffer.get(), length, begin);
    });
    if (count == -ECANCELED)
        dropBuffer();
    if (count < 0)
        return count;
    if (fetchesBlock) {
        m_fetchedBlocks[m_nextFetched] = block;
        m_nextFetched = (m_nextFetched + 1) % kKnownBlocks;
    }
    auto const offset = static_cast<int>(position - begin);
    int const here = std::min(count - offset, sizeBytes);
    if (here <= 0)
        return fetchesBlock && count > 0 ? readPart(position, target, sizeBytes) : 0;
    std::memcpy(target, buffer.get() + offset, static_cast<std::size_t>(here));
    m_endOfLastRead = position + here;
    return here;
}

int CCephFileStream::readPlace(__int64 positionBytes, void* target, int sizeBytes) const {
    requireOpen();
    // The call may outlive the operation, and others may be under way.
    Buffer const buffer(new char[static_cast<std::size_t>(sizeBytes)]);
    int const count = call([=, descriptor = m_file->getDescriptor()](ceph_mount_info* client) {
        for (int done = 0; done < sizeBytes;) {
            int const part = ceph_read(client, descriptor, buffer.get() + done, sizeBytes - done,
                                       positionBytes + done);
            if (part <= 0)
                return part == 0 ? done : part;
            done += part;
        }
        return sizeBytes;
    });
    if (count < 0)
        throw makeClusterError(FileAction::Read, count,
                               makeRangeProps(uri(), positionBytes, "bytesToRead", sizeBytes));
    std::memcpy(target, buffer.get(), static_cast<std::size_t>(count));
    return count;
}

/// Whether a block was read a short while ago, so that it may be in the client's cache.
bool CCephFileStream::isFetched(__int64 block) const {
    return std::ranges::find(m_fetchedBlocks, block) != m_fetchedBlocks.end();
}

/// Leaves the buffer to the call that was left alone.
void CCephFileStream::dropBuffer() const {
    m_buffer.reset();
    m_bufferBytes = 0;
}

/// The buffer, of at least that size; what is in it goes only if it was smaller.
CCephFileStream::Buffer const& CCephFileStream::provideBuffer(int sizeBytes) const {
    if (m_bufferBytes < sizeBytes) {
        m_buffer = Buffer(new char[static_cast<std::size_t>(sizeBytes)]);
        m_bufferBytes = sizeBytes;
    }
    return m_buffer;
}

yx::P<yx::IStreamLock> CCephFileStream::lockAt(__int64 position, __int64 length, bool exclusive) {
    // Fails in a process that was forked off.
    call([](ceph_mount_info*) { return 0; });
    if (!m_locks)
        m_locks = std::make_shared<CephRangeLocks>(m_file);
    CephRangeLocks::Result lock = m_locks->lock(position, position + length, exclusive);
    bool const isHeld = lock.error == -EAGAIN || lock.error == -EACCES;
    if (isHeld && m_file->getMount().clearAwayTheDead())
        lock = m_locks->lock(position, position + length, exclusive);
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
