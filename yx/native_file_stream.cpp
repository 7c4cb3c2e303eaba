#include "yx/native_file_stream.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "yx/file_error.h"
#include "yx/log.h"
#include "yx/stream_error.h"

namespace yx {

namespace {

using detail::FileAction;

constexpr __int64 kMaxFileLengthBytes = std::numeric_limits<off_t>::max();

/// Pieces of one call; the system's own limit is at least 1024.
constexpr std::size_t kMaxPiecesPerCall = 64;

CProps makeTransferProps(CURI const& uri, __int64 position, char const* sizeName,
                         __int64 sizeBytes) {
    return detail::makeUriProps(uri)
        .add("position", toString(position))
        .add(sizeName, toString(sizeBytes));
}

struct stat queryFile(int descriptor, CURI const& uri) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0)
        throw detail::makeFileError(FileAction::Query, errno, detail::makeUriProps(uri));
    return status;
}

/// Sets or frees a lock of the open file; 0 or the `errno` value.
int setRangeLock(int descriptor, short type, __int64 position, __int64 length) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = position;
    range.l_len = length;
    while (::fcntl(descriptor, F_OFD_SETLK, &range) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

/// Keeps the open file, since its locks end with it.
class CNativeRangeLock : public CBase, public virtual IStreamLock {
public:
    CNativeRangeLock(std::shared_ptr<detail::FileDescriptor> descriptor, __int64 position,
                     __int64 length)
        : m_descriptor(std::move(descriptor)), m_position(position), m_length(length) {}
    CNativeRangeLock(CNativeRangeLock const&) = delete;
    CNativeRangeLock& operator=(CNativeRangeLock const&) = delete;

    /// A child process that shares the open file does not keep the lock.
    ~CNativeRangeLock() override {
        setRangeLock(m_descriptor->get(), F_UNLCK, m_position, m_length);
    }

private:
    std::shared_ptr<detail::FileDescriptor> m_descriptor;
    __int64 m_position;
    __int64 m_length;
};

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
        return static_cast<int>(count);
    }

    void advance(std::size_t writtenBytes) {
        m_doneOfPiece += writtenBytes;
        while (m_piece != m_end && m_doneOfPiece >= static_cast<std::size_t>(m_piece->sizeBytes)) {
            m_doneOfPiece -= static_cast<std::size_t>(m_piece->sizeBytes);
            ++m_piece;
        }
    }

private:
    IGatherOutStream::Piece const* m_piece;
    IGatherOutStream::Piece const* m_end;
    std::size_t m_doneOfPiece = 0;
};

/// Whether a failed sync of a folder only tells that folders cannot be synced there.
bool isSyncUnsupported(int errorNumber) {
    return errorNumber == EINVAL || errorNumber == ENOTSUP || errorNumber == ENOSYS;
}

} // namespace

CNativeFileStream::CNativeFileStream(std::shared_ptr<detail::FileDescriptor> descriptor,
                                     CURI const& uri, std::string path, Access access,
                                     NativeFlush flush)
    : m_descriptor(std::move(descriptor)), m_uri(uri), m_path(std::move(path)), m_access(access) {
    struct stat const status = queryFile(m_descriptor->get(), m_uri);
    bool const isFile = S_ISREG(status.st_mode);
    m_neverSyncs = flush == NativeFlush::ToSystem || (!isFile && !S_ISBLK(status.st_mode));
    m_folderNeedsSync = isFile;
    // An empty file may be a new one, whose entry is to become durable without any write.
    m_contentNeedsSync = access == ReadWrite && isFile && status.st_size == 0;
}

CNativeFileStream::~CNativeFileStream() {
    try {
        CNativeFileStream::close();
    } catch (std::exception& error) {
        onExceptionInDestructorIgnored("yx::CNativeFileStream", error, true);
    }
}

__int64 CNativeFileStream::getLength() const {
    struct stat const status = queryFile(getDescriptor(), m_uri);
    if (!S_ISBLK(status.st_mode))
        return status.st_size;
    off_t const size = ::lseek(getDescriptor(), 0, SEEK_END);
    if (size < 0)
        throw detail::makeFileError(FileAction::Query, errno, detail::makeUriProps(m_uri));
    return size;
}

__int64 CNativeFileStream::getPosition() const {
    getDescriptor();
    return m_position;
}

CURI CNativeFileStream::getURI() {
    return m_uri;
}

void CNativeFileStream::seek(__int64 position) {
    getDescriptor();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    m_position = position;
}

P<IStreamLock> CNativeFileStream::lockRange(__int64 position, __int64 length, LockType type) {
    int const descriptor = getDescriptor();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    if (length < 1 || length > kMaxFileLengthBytes - position)
        detail::throwBadLength(m_uri, length);
    bool const exclusive = type == Exclusive;
    if (exclusive && m_access != ReadWrite)
        detail::throwReadOnly(m_uri);
    int const error = setRangeLock(descriptor, exclusive ? F_WRLCK : F_RDLCK, position, length);
    if (error == EAGAIN || error == EACCES)
        detail::throwRangeLocked(m_uri, position, length);
    if (error != 0) {
        // The one thing that can be invalid here is the command, on a system too old for it.
        throw detail::makeFileError(FileAction::Lock, error == EINVAL ? ENOTSUP : error,
                                    makeTransferProps(m_uri, position, "length", length));
    }
    return makeObject<CNativeRangeLock>(m_descriptor, position, length);
}

void CNativeFileStream::close() {
    std::shared_ptr<detail::FileDescriptor> const descriptor = std::move(m_descriptor);
    // A lock may still need the open file, and then ends it.
    if (!descriptor || descriptor.use_count() > 1)
        return;
    if (int const error = descriptor->close(); error != 0)
        throw detail::makeFileError(FileAction::Close, error, detail::makeUriProps(m_uri));
}

void CNativeFileStream::read(void* target, int sizeBytes) {
    getDescriptor();
    if (sizeBytes < 0)
        detail::throwBadSize("CNativeFileStream::read", sizeBytes);
    if (readAt(m_position, target, sizeBytes) < sizeBytes)
        detail::throwUnexpectedEnd(m_uri, m_position, sizeBytes);
    m_position += sizeBytes;
}

int CNativeFileStream::readLax(void* target, int sizeBytes) {
    getDescriptor();
    if (sizeBytes < 0)
        detail::throwBadSize("CNativeFileStream::readLax", sizeBytes);
    int const count = readAt(m_position, target, sizeBytes);
    m_position += count;
    return count;
}

int CNativeFileStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool CNativeFileStream::waitReadable(int) const {
    return !isEndOfStream();
}

bool CNativeFileStream::isEndOfStream() const {
    return m_position >= getLength();
}

int CNativeFileStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CNativeFileStream::write(void const* source, int sizeBytes, IWriteBarrier*) {
    getWritableDescriptor();
    if (sizeBytes < 0)
        detail::throwBadSize("CNativeFileStream::write", sizeBytes);
    if (sizeBytes == 0)
        return;
    Piece const piece{source, sizeBytes};
    writePieces(m_position, &piece, 1);
    m_position += sizeBytes;
}

void CNativeFileStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                        IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

P<IWriteBarrier> CNativeFileStream::createWriteBarrier(IWriteBarrier*) {
    getDescriptor();
    return makeObject<CDummyWriteBarrier>();
}

void CNativeFileStream::flush() {
    getDescriptor();
    if (m_neverSyncs || m_access != ReadWrite)
        return;
    if (m_syncError != 0)
        throwSyncError();
    if (!m_contentNeedsSync)
        return;
    syncContent();
    if (m_folderNeedsSync)
        syncFolder();
    m_contentNeedsSync = false;
    m_folderNeedsSync = false;
}

void CNativeFileStream::setLength(__int64 length) {
    int const descriptor = getWritableDescriptor();
    if (length < 0)
        detail::throwBadLength(m_uri, length);
    m_contentNeedsSync = true;
    while (::ftruncate(descriptor, length) != 0) {
        if (errno != EINTR) {
            throw detail::makeFileError(
                FileAction::SetLength, errno,
                detail::makeUriProps(m_uri).add("length", toString(length)));
        }
    }
}

void CNativeFileStream::writePieces(__int64 position, Piece const* pieces, int count) {
    int const descriptor = getWritableDescriptor();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    __int64 sizeBytes = 0;
    for (int i = 0; i < count; ++i)
        sizeBytes += pieces[i].sizeBytes;
    if (position > kMaxFileLengthBytes - sizeBytes)
        detail::throwTooLong(m_uri, position, sizeBytes);

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
                makeTransferProps(m_uri, position, "bytesToWrite", sizeBytes));
        }
    }
}

int CNativeFileStream::getDescriptor() const {
    if (!m_descriptor)
        detail::throwStreamClosed(m_uri);
    return m_descriptor->get();
}

int CNativeFileStream::getWritableDescriptor() const {
    int const descriptor = getDescriptor();
    if (m_access != ReadWrite)
        detail::throwReadOnly(m_uri);
    return descriptor;
}

int CNativeFileStream::readAt(__int64 position, void* target, int sizeBytes) const {
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
                makeTransferProps(m_uri, position, "bytesToRead", sizeBytes));
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
        return; // It was deleted or moved away: there is no entry to keep.
    if (error)
        throw detail::makeFileError(FileAction::Flush, error.value(), detail::makeUriProps(m_uri));

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
        throw detail::makeFileError(FileAction::Flush, -folder.get(), detail::makeUriProps(m_uri));
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
    throw detail::makeFileError(FileAction::Flush, m_syncError, detail::makeUriProps(m_uri));
}

} // namespace yx
