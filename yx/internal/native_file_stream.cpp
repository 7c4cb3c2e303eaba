#include "yx/internal/native_file_stream.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>
#include <typeinfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "yx/internal/file_error.h"
#include "yx/internal/stream_error.h"
#include "yx/log.h"

namespace yx {

namespace {

using detail::FileAction;

constexpr __int64 kMaxFileLengthBytes = std::numeric_limits<off_t>::max();
static_assert(kMaxFileLengthBytes == std::numeric_limits<__int64>::max(),
              "positions are checked against that before they come here");

/// Pieces of one call; the system's own limit is at least 1024.
constexpr std::size_t kMaxPiecesPerCall = 64;

struct stat queryFile(int descriptor, CURI const& uri) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0)
        throw detail::makeFileError(FileAction::Query, errno, detail::makeUriProps(uri));
    return status;
}

/// The pieces of a gathering write that are still to be written.
class RemainingPieces {
public:
    RemainingPieces(IGatherOutStream::Piece const* pieces, int count)
        : m_piece(pieces), m_end(pieces + count) {}

    bool isEmpty() const { return m_piece == m_end; }

    /// Describes as many pieces as fit into `vectors`; returns their number.
    int describe(std::array<iovec, kMaxPiecesPerCall>& vectors) const {
        std::size_t count = 0;
        std::size_t skipped = m_doneOfPiece;
        for (auto const* piece = m_piece; piece != m_end && count < vectors.size(); ++piece) {
            auto* const data = static_cast<unsigned char*>(const_cast<void*>(piece->data));
            vectors[count++] = {data + skipped,
                                static_cast<std::size_t>(piece->sizeBytes) - skipped};
            skipped = 0;
        }
        assert(count > 0 && vectors[0].iov_len > 0);
        return static_cast<int>(count);
    }

    void advance(std::size_t writtenBytes) {
        m_doneOfPiece += writtenBytes;
        while (m_piece != m_end && m_doneOfPiece >= static_cast<std::size_t>(m_piece->sizeBytes)) {
            m_doneOfPiece -= static_cast<std::size_t>(m_piece->sizeBytes);
            ++m_piece;
        }
        assert((m_piece != m_end || m_doneOfPiece == 0) && "no more was written than was given");
    }

private:
    IGatherOutStream::Piece const* m_piece;
    IGatherOutStream::Piece const* m_end;
    std::size_t m_doneOfPiece = 0;
};

/// Whether a failed sync of a folder only means that folders cannot be synced there.
bool isSyncUnsupported(int errorNumber) {
    return errorNumber == EINVAL || errorNumber == ENOTSUP || errorNumber == ENOSYS;
}

} // namespace

CNativeFileStream* detail::asNativeFileStream(IStreamBase* stream) {
    if (!stream)
        return nullptr;
    IStreamBase const& object = *stream;
    return &typeid(object) == &typeid(CNativeFileStream)
               ? static_cast<CNativeFileStream*>(dynamic_cast<void*>(stream))
               : nullptr;
}

CNativeFileStream::CNativeFileStream(std::shared_ptr<detail::FileDescriptor> descriptor,
                                     struct stat const& status, CURI const& uri, std::string path,
                                     Access access, NativeFlush flush)
    : CFileStream("CNativeFileStream", uri, access),
      m_descriptor(std::move(descriptor)),
      m_path(std::move(path)) {
    bool const isFile = S_ISREG(status.st_mode);
    m_neverSyncs = flush == NativeFlush::ToSystem || (!isFile && !S_ISBLK(status.st_mode));
    m_folderNeedsSync = isFile;
    // An empty file may be a new one, whose entry is to become durable without any write.
    m_contentNeedsSync = access == ReadWrite && isFile && status.st_size == 0;
    if (access == ReadOnly && isFile)
        m_openingLength = status.st_size;
}

CNativeFileStream::~CNativeFileStream() {
    try {
        CNativeFileStream::close();
    } catch (std::exception& error) {
        onExceptionInDestructorIgnored("yx::CNativeFileStream", error, true);
    }
}

__int64 CNativeFileStream::getLength() const {
    requireOpen();
    m_openingLength.reset();
    struct stat const status = queryFile(m_descriptor->get(), uri());
    if (!S_ISBLK(status.st_mode))
        return status.st_size;
    off_t const size = ::lseek(m_descriptor->get(), 0, SEEK_END);
    if (size < 0)
        throw detail::makeFileError(FileAction::Query, errno, detail::makeUriProps(uri()));
    return size;
}

P<IStreamLock> CNativeFileStream::lockAt(__int64 position, __int64 length, bool exclusive) {
    // Who held the range before may have changed the file.
    m_openingLength.reset();
    if (!m_locks)
        m_locks = std::make_shared<detail::NativeRangeLocks>(m_descriptor);
    detail::NativeRangeLocks::Result const lock =
        m_locks->lock(position, position + length, exclusive);
    if (lock.token)
        return lock.token;
    if (lock.error == EAGAIN || lock.error == EACCES)
        detail::throwRangeLocked(uri(), position, length);
    // The one thing that can be invalid here is the command, on a system too old for it.
    throw detail::makeFileError(FileAction::Lock, lock.error == EINVAL ? ENOTSUP : lock.error,
                                detail::makeRangeProps(uri(), position, "length", length));
}

void CNativeFileStream::close() {
    m_locks.reset();
    std::shared_ptr<detail::FileDescriptor> const descriptor = std::move(m_descriptor);
    // A lock may still need the open file, and then ends it.
    if (!descriptor || descriptor.use_count() > 1)
        return;
    if (int const error = descriptor->close(); error != 0)
        throw detail::makeFileError(FileAction::Close, error, detail::makeUriProps(uri()));
}

void CNativeFileStream::flush() {
    requireOpen();
    if (m_neverSyncs || !isWritable())
        return;
    if (m_syncError != 0)
        throwSyncError();
    if (!m_contentNeedsSync)
        return;
    syncContent();
    if (m_folderNeedsSync)
        syncFolder();
    assert(m_syncError == 0);
    m_contentNeedsSync = false;
    m_folderNeedsSync = false;
}

void CNativeFileStream::setLength(__int64 length) {
    requireWritable();
    if (length < 0)
        detail::throwBadLength(uri(), length);
    m_contentNeedsSync = true;
    while (::ftruncate(m_descriptor->get(), length) != 0) {
        int const error = errno;
        if (error == EINTR)
            continue;
        // A device refuses every length.
        bool const isFixed =
            error == EINVAL && !S_ISREG(queryFile(m_descriptor->get(), uri()).st_mode);
        throw detail::makeFileError(FileAction::SetLength, isFixed ? ENOTSUP : error,
                                    detail::makeUriProps(uri()).add("length", toString(length)));
    }
}

void CNativeFileStream::writeAt(__int64 position, Piece const* pieces, int count,
                                __int64 sizeBytes) {
    int const descriptor = m_descriptor->get();
    m_contentNeedsSync = true;
    RemainingPieces remaining(pieces, count);
    for (__int64 next = position; !remaining.isEmpty();) {
        std::array<iovec, kMaxPiecesPerCall> vectors;
        int const vectorCount = remaining.describe(vectors);
        ssize_t const written = ::pwritev(descriptor, vectors.data(), vectorCount, next);
        if (written > 0) {
            remaining.advance(static_cast<std::size_t>(written));
            next += written;
        } else if (written == 0 || errno != EINTR) {
            // No progress without a reason would repeat itself for ever.
            throw detail::makeFileError(
                FileAction::Write, written == 0 ? EIO : errno,
                detail::makeRangeProps(uri(), position, "bytesToWrite", sizeBytes));
        }
    }
    if (!m_neverSyncs)
        m_earlyWriteBack.onWritten(descriptor, position, sizeBytes);
}

int CNativeFileStream::readAt(__int64 position, void* target, int sizeBytes) const {
    m_openingLength.reset();
    // No file reaches up to the largest number, and the system refuses ranges that pass it.
    auto const wanted =
        static_cast<int>(std::min<__int64>(sizeBytes, kMaxFileLengthBytes - position));
    int done = 0;
    while (done < wanted) {
        ssize_t const count =
            ::pread(m_descriptor->get(), static_cast<unsigned char*>(target) + done,
                    static_cast<std::size_t>(wanted - done), position + done);
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<int>(count);
        else if (errno != EINTR)
            throw detail::makeFileError(
                FileAction::Read, errno,
                detail::makeRangeProps(uri(), position, "bytesToRead", sizeBytes));
    }
    return done;
}

void CNativeFileStream::syncContent() {
    while (::fdatasync(m_descriptor->get()) != 0) {
        if (errno != EINTR) {
            m_syncError = errno;
            throwSyncError();
        }
    }
}

void CNativeFileStream::syncFolder() {
    std::error_code error;
    std::filesystem::path const path = std::filesystem::canonical(m_path, error);
    if (error == std::errc::no_such_file_or_directory)
        return; // It was deleted or moved away: no entry of that name is left to keep.
    if (error)
        throw detail::makeFileError(FileAction::Flush, error.value(), detail::makeUriProps(uri()));

    detail::FileDescriptor const folder(
        detail::openDescriptor(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY));
    if (folder.get() == -EACCES) {
        // A folder may let its files be written but not itself be read; only this is left then.
        if (::syncfs(m_descriptor->get()) == 0)
            return;
        m_syncError = errno;
        throwSyncError();
    }
    if (folder.get() < 0)
        throw detail::makeFileError(FileAction::Flush, -folder.get(), detail::makeUriProps(uri()));
    while (::fsync(folder.get()) != 0) {
        if (errno == EINTR)
            continue;
        if (isSyncUnsupported(errno))
            return;
        m_syncError = errno;
        throwSyncError();
    }
}

void CNativeFileStream::throwSyncError() const {
    throw detail::makeFileError(FileAction::Flush, m_syncError, detail::makeUriProps(uri()));
}

} // namespace yx
