#include "yx/internal/open_lock_file.h"

#include "yx/error.h"
#include "yx/mt_rand.h"

namespace yx::detail {

namespace {

constexpr __int64 kLockPosition = 0;
constexpr __int64 kPresencePosition = 1;
constexpr __int64 kLockedRangeBytes = 1;

constexpr __int64 kLivingLengthBytes = 0;

/// Dead files are sparse, so this takes no space.
constexpr unsigned int kMaxDeadLengthBytes = 1024 * 1024;

/// From the operating system, so that processes forked from one do not draw the same numbers.
__int64 drawDeadLength() {
    unsigned int number = 0;
    CMutexLock const lock(CMTRand::getGlobalInstanceMutex().get());
    CMTRand::getGlobal()->randData(reinterpret_cast<unsigned char*>(&number), sizeof number);
    return 1 + __int64{number % kMaxDeadLengthBytes};
}

P<IIOStream> open(IFileSystem& fileSystem, CURI const& uri, IIOStream::Access access) {
    unsigned int reserved = 0;
    return fileSystem.openFile(uri, access, &reserved);
}

} // namespace

OpenLockFile::OpenLockFile(IFileSystem* fileSystem, CURI const& uri)
    : m_fileSystem(fileSystem),
      m_uri(uri),
      m_stream(open(*fileSystem, uri, IIOStream::ReadWrite)) {}

bool OpenLockFile::tryEnter() {
    m_presence = tryLockPresence(IStreamBase::Shared);
    if (!m_presence)
        return false;
    if (m_stream->getLength() == kLivingLengthBytes)
        return true;
    // Whoever removed it has gone, perhaps by a crash on the way.
    if (becomeAloneOnNamedFile())
        m_stream->setLength(kLivingLengthBytes);
    return false;
}

void OpenLockFile::lock(IStreamBase::LockType type) {
    m_lock = m_stream->lockRange(kLockPosition, kLockedRangeBytes, type);
}

void OpenLockFile::removeIfAlone() {
    if (becomeAloneOnNamedFile())
        m_fileSystem->deleteFile(m_uri, true);
}

/// Null if others are in the way.
P<IStreamLock> OpenLockFile::tryLockPresence(IStreamBase::LockType type) {
    try {
        return m_stream->lockRange(kPresencePosition, kLockedRangeBytes, type);
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::AccessDenied)
            throw;
        return {};
    }
}

/// Whether nobody else is present on the file, and it is the one that has the name; it is dead then.
bool OpenLockFile::becomeAloneOnNamedFile() {
    // Given up first: of two that ask for more than they hold, neither would ever get it.
    m_presence.reset();
    m_presence = tryLockPresence(IStreamBase::Exclusive);
    if (!m_presence)
        return false;
    __int64 const deadLength = drawDeadLength();
    m_stream->setLength(deadLength);
    return isLengthOfNamedFile(deadLength);
}

bool OpenLockFile::isLengthOfNamedFile(__int64 length) {
    try {
        return open(*m_fileSystem, m_uri, IIOStream::ReadOnly)->getLength() == length;
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::NotFound)
            throw;
        return false;
    }
}

} // namespace yx::detail
